// The Go Live sheet in the studio window on Qt's offscreen platform, over a model whose cloud
// account is the recording stand-in: which view each state of a stream shows, the words the
// operator reads there, and the buttons reaching the model and the account. A screenshot of
// each view is written for a person to look at.
#include <gmock/gmock.h>

#include <QAbstractButton>
#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QElapsedTimer>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTimer>
#include <filesystem>

#include "cloud/scripted_cloud.h"
#include "studio/recording_hubs.h"
#include "ui/go_live_destinations.h"
#include "ui/go_live_parts.h"
#include "ui/go_live_progress.h"
#include "ui/go_live_sheet.h"
#include "ui/go_live_tabs.h"
#include "ui/main_window.h"
#include "ui/offscreen_app.h"
#include "ui/sign_in_view.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::Not;
using View = ui::GoLiveSheet::View;
using Kind = QvnCloud::EmbedLink::Kind;

QvnCloud::Destination destination(std::string id, std::string name, bool on, bool key,
                                  std::string lastError = "") {
  const std::string platform = name == "Twitch"          ? "twitch"
                               : name == "Facebook Page" ? "facebook"
                                                         : "youtube";
  return {std::move(id), platform, std::move(name), on, key, std::move(lastError)};
}

// Every text a person can see under `root`: labels, buttons and fields.
void collectShown(QObject& parent, QWidget& root, std::vector<std::string>& out) {
  for (QObject* child : parent.children()) {
    auto* w = dynamic_cast<QWidget*>(child);
    if (!w || !w->isVisibleTo(&root)) continue;
    if (auto* label = dynamic_cast<QLabel*>(w)) out.push_back(label->text().toStdString());
    if (auto* button = dynamic_cast<QAbstractButton*>(w))
      out.push_back(button->text().toStdString());
    if (auto* field = dynamic_cast<QLineEdit*>(w)) out.push_back(field->text().toStdString());
    collectShown(*w, root, out);
  }
}

// Widgets a layout takes in while shown appear from Qt's loop.
void letLayoutsShowNewWidgets() {
  QApplication::processEvents();
}

std::vector<std::string> shown(QWidget& root) {
  letLayoutsShowNewWidgets();
  std::vector<std::string> out;
  collectShown(root, root, out);
  return out;
}

// The visible button that reads `text`, as the operator finds it.
QAbstractButton* button(QWidget& root, const QString& text) {
  letLayoutsShowNewWidgets();
  QAbstractButton* found = nullptr;
  std::function<void(QObject&)> walk = [&](QObject& parent) {
    for (QObject* child : parent.children()) {
      auto* w = dynamic_cast<QWidget*>(child);
      if (!w || !w->isVisibleTo(&root)) continue;
      if (auto* b = dynamic_cast<QAbstractButton*>(w); b && b->text() == text) found = b;
      walk(*w);
    }
  };
  walk(root);
  return found;
}

void settle(int milliseconds = 100) {
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < milliseconds) QApplication::processEvents(QEventLoop::AllEvents, 20);
}

// Answers the stop question with `answer` once it is up, and keeps its text.
void answerStopQuestion(const QString& answer, QString& asked) {
  // The pending timer holds the attempt, so nothing keeps it once the box is answered.
  auto attempt = std::make_shared<std::function<void()>>();
  *attempt = [weak = std::weak_ptr(attempt), answer, &asked] {
    auto* box = dynamic_cast<QMessageBox*>(QApplication::activeModalWidget());
    if (!box) {
      if (auto again = weak.lock()) QTimer::singleShot(10, [again] { (*again)(); });
      return;
    }
    asked = box->text();
    for (QAbstractButton* b : box->buttons())
      if (b->text() == answer) b->click();
  };
  QTimer::singleShot(0, [attempt] { (*attempt)(); });
}

class GoLiveSheetUI : public StudioFixture {
 protected:
  GoLiveSheetUI() { offscreenApplication(); }
  ~GoLiveSheetUI() override { window.reset(); }

  ui::MainWindow& open(CloudAccount* signIn = nullptr) {
    CameraModel& m = start();
    hubs.cloud->online = true;
    window = std::make_unique<ui::MainWindow>(m, *hubs.frames, *store, signIn, hubs.cloud.get());
    window->open();
    window->resize(ui::MainWindow::kDefaultWidth, ui::MainWindow::kDefaultHeight);
    if (ui::GoLiveSheet* s = window->goLiveSheet())
      s->setUrlOpener([this](const std::string& url) { opened.push_back(url); });
    trace.calls.clear();
    return *window;
  }
  ui::GoLiveSheet& sheet() { return *window->goLiveSheet(); }
  std::vector<std::string> texts() { return shown(sheet()); }
  void press(const QString& text) {
    QAbstractButton* b = button(sheet(), text);
    ASSERT_NE(b, nullptr) << text.toStdString();
    QTest::mouseClick(b, Qt::LeftButton);
  }
  // The cloud opens the session it was asked for; the publisher starts on it.
  void answerSession(std::optional<QvnCloud::Session> s) {
    ASSERT_FALSE(hubs.cloud->starts.empty());
    if (s) hubs.cloud->livePhase = LivePhase::connecting;
    hubs.cloud->starts.back()(s);
    main.drain();
  }
  void shoot(const std::string& name) {
    settle();
    const fs::path folder = QVN_SCREENSHOT_DIR;
    fs::create_directories(folder);
    EXPECT_TRUE(window->grab().save(
        QString::fromStdString((folder / ("go-live-" + name + ".png")).string())));
  }

  std::unique_ptr<ui::MainWindow> window;
  std::vector<std::string> opened;
};

TEST_F(GoLiveSheetUI, TheSetupCountsSelectedDestinationsAndStartRunsTheChecklist) {
  ui::MainWindow& w = open();
  EXPECT_FALSE(sheet().isVisible());
  EXPECT_EQ(w.goLiveButton().text(), "Go Live");
  QTest::mouseClick(&w.goLiveButton(), Qt::LeftButton);
  EXPECT_TRUE(model->showGoLiveSheet());
  EXPECT_TRUE(sheet().isVisible());
  EXPECT_TRUE(trace.has("cloud.loadDestinations"));
  EXPECT_EQ(sheet().view(), View::setup);
  QTabWidget& tabs = sheet().tabs();
  ASSERT_EQ(tabs.count(), 3);
  EXPECT_EQ(tabs.tabText(0), "Destinations");
  EXPECT_EQ(tabs.tabText(1), "Embed");
  EXPECT_EQ(tabs.tabText(2), "Settings");

  // Only destinations that are on and have a key count.
  QPushButton& start = sheet().startButton();
  hubs.cloud->destinations = std::vector<QvnCloud::Destination>{};
  EXPECT_EQ(start.text(), "Turn on a destination first");
  EXPECT_FALSE(start.isEnabled());
  hubs.cloud->destinations = std::vector{destination("d1", "Main channel", true, true),
                                         destination("d2", "Backup", true, false),
                                         destination("d3", "Twitch", false, true)};
  EXPECT_EQ(start.text(), "Start streaming to 1 destination selected");
  EXPECT_TRUE(start.isEnabled());
  hubs.cloud->destinations = std::vector{destination("d1", "Main channel", true, true),
                                         destination("d3", "Twitch", true, true)};
  EXPECT_EQ(start.text(), "Start streaming to 2 destinations selected");
  EXPECT_THAT(texts(), Contains("Stream settings"));
  EXPECT_EQ(sheet().footer().text(), "1080p HD · 30 FPS");
  shoot("setup");

  QTest::mouseClick(&start, Qt::LeftButton);
  EXPECT_TRUE(trace.has("cloud.startLive"));
  EXPECT_EQ(sheet().view(), View::checklist);
  EXPECT_THAT(texts(), Contains("Starting your stream…"));
  EXPECT_THAT(texts(), Contains("Internet connection"));
  EXPECT_THAT(texts(), Contains("Main channel, Twitch"));
  EXPECT_THAT(texts(), Not(Contains("Try again")));
  shoot("checklist");

  // Before its first publish a connecting stream is still starting, not reconnecting.
  answerSession(QvnCloud::Session{"s1", "rtmp://ingest.test/live", "k", {1920, 1080, 30, 1, 1}});
  EXPECT_FALSE(model->goLiveStarting());
  EXPECT_EQ(sheet().view(), View::checklist);
  EXPECT_THAT(texts(), Contains("Connection to Quorvane"));
  EXPECT_EQ(w.goLiveButton().text(), "Connecting…");

  // Cancel ends the session and closes the sheet.
  press("Cancel");
  main.drain();
  EXPECT_TRUE(trace.has("cloud.endLive"));
  EXPECT_FALSE(model->showGoLiveSheet());
  EXPECT_FALSE(sheet().isVisible());
}

TEST_F(GoLiveSheetUI, AFailedCheckStaysWithItsReasonBackAndTryAgain) {
  open();
  hubs.cloud->online = false;
  hubs.cloud->destinations = std::vector{destination("d1", "Main channel", true, true)};
  model->toggleGoLive();
  QTest::mouseClick(&sheet().startButton(), Qt::LeftButton);
  EXPECT_EQ(sheet().view(), View::checklist);
  EXPECT_THAT(texts(), Contains("Your stream didn't start"));
  EXPECT_THAT(texts(),
              Contains("This computer is offline. Connect to the internet, then try again."));
  EXPECT_THAT(texts(), Not(Contains("Cancel")));
  shoot("checklist-failed");

  hubs.cloud->online = true;
  press("Try again");
  EXPECT_TRUE(trace.has("cloud.startLive"));
  EXPECT_THAT(texts(), Contains("Starting your stream…"));
  hubs.cloud->error = "Quorvane is busy. Try again in a minute.";
  answerSession(std::nullopt);
  EXPECT_THAT(texts(), Contains("Quorvane is busy. Try again in a minute."));

  press("Back");
  EXPECT_TRUE(model->goLiveChecks().empty());
  EXPECT_EQ(sheet().view(), View::setup);
}

TEST_F(GoLiveSheetUI, LiveShowsTheClockAndEachDestinationAndAsksBeforeStopping) {
  ui::MainWindow& w = open();
  hubs.cloud->destinations = std::vector{destination("d1", "Main channel", true, true)};
  model->toggleGoLive();
  QTest::mouseClick(&sheet().startButton(), Qt::LeftButton);
  answerSession(QvnCloud::Session{"s1", "rtmp://ingest.test/live", "k", {1920, 1080, 30, 1, 1}});
  hubs.cloud->markLive();
  hubs.cloud->liveClock = "01:05";
  EXPECT_EQ(sheet().view(), View::live);
  EXPECT_EQ(sheet().live().clock().text(), "01:05");
  EXPECT_EQ(w.goLiveButton().text(), "LIVE 01:05");
  hubs.cloud->sessionDestinations = std::vector<QvnCloud::SessionDestination>{
      {"d1", "youtube", "Main channel", "live", ""},
      {"d2", "twitch", "Twitch", "error", "Stream key rejected"}};
  EXPECT_THAT(texts(), Contains("Main channel"));
  EXPECT_THAT(texts(), Contains("Stream key rejected"));
  EXPECT_THAT(texts(), Contains("Twitch is not live: Stream key rejected"));
  EXPECT_THAT(texts(), Not(Contains("Status unavailable")));
  hubs.cloud->destinationStatusUnavailable = true;
  EXPECT_THAT(texts(), Contains("Status unavailable"));
  shoot("live");

  hubs.cloud->noteReconnecting();
  EXPECT_EQ(sheet().view(), View::reconnecting);
  EXPECT_THAT(texts(), Contains("Studio lost the connection to Quorvane and is reconnecting."));
  shoot("reconnecting");
  hubs.cloud->markLive();

  // Closing the sheet leaves the stream alone; the header button brings it back.
  QTest::keyClick(&sheet(), Qt::Key_Escape);
  EXPECT_FALSE(model->showGoLiveSheet());
  QTest::mouseClick(&w.goLiveButton(), Qt::LeftButton);
  EXPECT_TRUE(sheet().isVisible());
  EXPECT_FALSE(trace.has("cloud.endLive"));

  QString asked;
  answerStopQuestion("Keep streaming", asked);
  press("Stop Live");
  EXPECT_EQ(asked, "Stop the live stream on every destination?");
  EXPECT_FALSE(trace.has("cloud.endLive"));
  hubs.cloud->endsAtOnce = false;
  answerStopQuestion("Stop Live", asked);
  press("Stop Live");
  EXPECT_TRUE(trace.has("cloud.endLive"));

  hubs.cloud->livePhase = LivePhase::stopping;
  EXPECT_EQ(sheet().view(), View::stopping);
  EXPECT_THAT(texts(), Contains("Stopping"));
  EXPECT_EQ(w.goLiveButton().text(), "Stopping…");
  shoot("stopping");
  hubs.cloud->lastLiveSummary = LiveSummary{3723, 2, std::nullopt};
  hubs.cloud->ends.back()();
  EXPECT_EQ(sheet().view(), View::ended);
  EXPECT_EQ(w.goLiveButton().text(), "Go Live");
  for (const char* text :
       {"Live stream ended", "01:02:03", "2", "Complete", "Your stream has ended successfully."})
    EXPECT_THAT(texts(), Contains(text));
  shoot("ended");

  press("Done");
  EXPECT_FALSE(model->showGoLiveSheet());
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::idle);
}

TEST_F(GoLiveSheetUI, TheEndedViewSaysWhyAStreamStopped) {
  open();
  model->showGoLiveSheet = true;
  auto endWith = [&](std::optional<std::string> failure) {
    hubs.cloud->lastLiveSummary = LiveSummary{65, 1, failure};
    hubs.cloud->livePhase = failure ? LivePhase::error : LivePhase::ended;
    EXPECT_EQ(sheet().view(), View::ended);
    return std::pair{sheet().ended().title().text().toStdString(),
                     sheet().ended().message().text().toStdString()};
  };
  using Words = std::pair<std::string, std::string>;  // the title and the text
  EXPECT_EQ(endWith(std::nullopt),
            (Words{"Live stream ended", "Your stream has ended successfully."}));
  EXPECT_THAT(texts(), Contains("00:01:05"));
  EXPECT_EQ(endWith("ingest lost"),
            (Words{"Stream stopped",
                   "Studio lost its connection to Quorvane and could not reconnect. Check your "
                   "internet connection, then go live again."}));
  EXPECT_THAT(texts(), Contains("Interrupted"));
  shoot("ended-failed");
  EXPECT_EQ(endWith("Could not start the encoder").second,
            "Studio could not start sending Program. Go live again; if it repeats, restart "
            "Studio.");
  EXPECT_EQ(endWith("Twitch refused the stream").second, "Twitch refused the stream");

  // Without a summary's failure, the phase's own words.
  hubs.cloud->lastLiveSummary = LiveSummary{5, 1, std::nullopt};
  hubs.cloud->liveFailure = "ingest lost";
  hubs.cloud->livePhase = LivePhase::error;
  EXPECT_EQ(sheet().ended().title().text(), "Stream stopped");
  EXPECT_THAT(texts(), Contains("Interrupted"));
}

TEST_F(GoLiveSheetUI, TheEmbedTabFollowsTheLink) {
  open();
  model->showGoLiveSheet = true;
  sheet().tabs().setCurrentIndex(1);
  auto show = [&](QvnCloud::EmbedLink link) {
    hubs.cloud->embedLink = link;
    return texts();
  };
  EXPECT_THAT(show({Kind::loading}), Contains("Getting your embed link…"));
  EXPECT_THAT(texts(), Contains("Web Embed"));
  EXPECT_THAT(texts(), Contains("Your Quorvane live stream can be embedded on your website."));
  EXPECT_THAT(show({Kind::unknown}), Contains("Getting your embed link…"));
  EXPECT_THAT(show({Kind::none}),
              Contains("You don't have an embed link yet. It's the same link the Quorvane "
                       "dashboard makes, and it stays the same for every stream."));
  press("Create embed link");
  EXPECT_TRUE(trace.has("cloud.createEmbedLink"));
  EXPECT_THAT(show({Kind::unavailable}),
              Contains("Studio can't show your embed link yet. It's in your Quorvane dashboard, "
                       "under Website Embed."));
  press("Open dashboard");
  EXPECT_THAT(opened, Contains("https://cloud.test/dashboard"));
  EXPECT_THAT(show({Kind::failed, "", false, "The embed service did not answer."}),
              Contains("The embed service did not answer."));
  press("Try again");
  EXPECT_TRUE(trace.has("cloud.loadEmbedLink"));

  const std::string url = "https://embed.test/p/abc";
  auto ready = show({Kind::ready, url, false});
  EXPECT_THAT(ready, Contains("This is the same embed link as your Quorvane dashboard. Anyone "
                              "with it can watch while you're live."));
  EXPECT_THAT(ready, Contains(url));
  EXPECT_THAT(ready, Contains("The player shows streams sent to your Quorvane stream key. "
                              "Studio's Go Live doesn't reach it yet."));
  EXPECT_THAT(show({Kind::ready, url, true}), Contains("Ready · the link works when you go live."));
  hubs.cloud->publishing = true;
  EXPECT_THAT(texts(), Contains("Live · the player is showing this stream."));
  hubs.cloud->publishing = false;
  press("Copy link");
  EXPECT_EQ(QGuiApplication::clipboard()->text().toStdString(), url);
  EXPECT_EQ(sheet().embed().copyButton().text(), "Copied");
  press("Open Embed");
  EXPECT_THAT(opened, Contains(url));
  shoot("embed");
  hubs.cloud->embedLink = QvnCloud::EmbedLink{Kind::ready, url + "2", true};
  EXPECT_EQ(sheet().embed().copyButton().text(), "Copy link");
}

TEST_F(GoLiveSheetUI, DestinationRowsSayWhereEachStandsAndSwitchThroughTheAccount) {
  open();
  model->showGoLiveSheet = true;
  hubs.cloud->destinations = std::vector{
      destination("d1", "Main channel", true, true), destination("d2", "Twitch", false, true),
      destination("d3", "Facebook Page", true, true, "Stream key was rejected"),
      destination("d4", "Podcast", true, false)};
  ui::DestinationsTab& tab = sheet().destinations();
  ASSERT_EQ(tab.rowCount(), 4);
  EXPECT_EQ(tab.row(0).statusLine().text(), "Connected · Ready");
  EXPECT_EQ(tab.row(1).statusLine().text(), "Connected · Off");
  EXPECT_EQ(tab.row(2).statusLine().text(), "Connected · Last stream had a problem");
  EXPECT_EQ(tab.row(3).statusLine().text(), "Not connected");
  EXPECT_EQ(tab.row(0).toggle().toolTip(), "Don't stream to Main channel");
  EXPECT_EQ(tab.row(1).toggle().toolTip(), "Stream to Twitch");
  EXPECT_EQ(tab.row(3).toggle().toolTip(), "Connect Podcast in your Quorvane dashboard first");
  EXPECT_FALSE(tab.row(3).toggle().isEnabled());
  shoot("destinations");

  // The switch asks the account, which has the last word.
  QTest::mouseClick(&tab.row(1).toggle(), Qt::LeftButton);
  EXPECT_TRUE(trace.has("cloud.toggle d2 true"));
  EXPECT_FALSE(tab.row(1).toggle().isChecked());
  hubs.cloud->error = "Twitch couldn't be turned on. Try again.";
  EXPECT_THAT(texts(), Contains("Twitch couldn't be turned on. Try again."));
  hubs.cloud->error = std::nullopt;

  // Details open and close; the last problem is there.
  EXPECT_FALSE(tab.row(2).details().isVisibleTo(&sheet()));
  QTest::mouseClick(&tab.row(2).detailsButton(), Qt::LeftButton);
  EXPECT_EQ(tab.row(2).detailsButton().text(), "Hide details");
  const auto details = shown(tab.row(2));
  for (const char* text : {"Name", "Facebook Page", "Stream key", "Saved in Quorvane",
                           "Manage in dashboard", "Last time: Stream key was rejected"})
    EXPECT_THAT(details, Contains(text));
  QTest::mouseClick(&tab.row(2).detailsButton(), Qt::LeftButton);
  EXPECT_EQ(tab.row(2).detailsButton().text(), "Show details");
  EXPECT_FALSE(tab.row(2).details().isVisibleTo(&sheet()));

  // Without a key: what to do, and the way there.
  EXPECT_THAT(shown(tab.row(3)),
              Contains("Podcast isn't connected to your Quorvane account yet. Connect it in the "
                       "dashboard; it appears here as soon as it is."));
  press("Connect Podcast");
  EXPECT_THAT(opened, Contains("https://cloud.test/dashboard"));

  hubs.cloud->destinations = std::vector<QvnCloud::Destination>{};
  EXPECT_EQ(tab.rowCount(), 0);
  EXPECT_THAT(texts(), Contains("Connect YouTube, Facebook, Twitch and others in your Quorvane "
                                "dashboard. They appear here straight away."));
  opened.clear();
  press("Open Quorvane dashboard");
  EXPECT_EQ(opened, std::vector<std::string>{"https://cloud.test/dashboard"});
}

TEST_F(GoLiveSheetUI, SettingsShowTheCanvasAndTheSizeSent) {
  open();
  model->showGoLiveSheet = true;
  sheet().tabs().setCurrentIndex(2);
  ui::StreamSettingsTab& tab = sheet().settings();
  EXPECT_THAT(texts(), Contains("Studio output"));
  EXPECT_EQ(tab.canvas().text(), "1920 × 1080 (HD)");
  EXPECT_FALSE(tab.changeCanvas().isEnabled());
  EXPECT_EQ(tab.changeCanvas().toolTip(), "Canvas changes come with the canvas settings");
  ASSERT_EQ(tab.sizeSent().count(), 5);
  EXPECT_EQ(tab.sizeSent().itemText(0), "Canvas size");
  EXPECT_EQ(tab.sizeSent().itemText(4), "1280 × 720");
  EXPECT_EQ(tab.sizeLine().text(),
            "Program is sent at the canvas size, 1920 × 1080. Studio's Program runs at 30 fps.");
  shoot("settings");

  tab.sizeSent().setCurrentIndex(4);
  tab.sizeSent().activated(4);  // as a pick from the list
  EXPECT_EQ(model->streamOutput(), StreamOutputChoice::hd720);
  EXPECT_TRUE(trace.has("publisher.setPreferredSize 1280x720"));
  EXPECT_EQ(tab.sizeLine().text(),
            "Program is sent at 1280 × 720. Studio's Program runs at 30 fps.");
  EXPECT_EQ(sheet().footer().text(), "720p HD · 30 FPS");

  // Refused while a stream runs: the box goes back to what the model kept.
  hubs.cloud->livePhase = LivePhase::live;
  tab.sizeSent().setCurrentIndex(0);
  tab.sizeSent().activated(0);
  EXPECT_EQ(model->streamOutput(), StreamOutputChoice::hd720);
  EXPECT_EQ(tab.sizeSent().currentIndex(), 4);

  model->canvasSize = MixCanvasSize::uhd;
  EXPECT_EQ(tab.canvas().text(), "3840 × 2160 (4K)");
}

TEST_F(GoLiveSheetUI, ASignInLostWhileLiveKeepsTheStudioUntilTheStreamEnds) {
  auto http = std::make_shared<ScriptedHttp>(main);
  auto secrets = std::make_shared<MemoryStore>();
  secrets->values["access"] = "a1";
  CloudAccount account(CloudAccount::Services{
      {main, http, secrets, *store, "http://127.0.0.1:9", [] { return "machine-1"; }},
      [](const std::string&) { return true; }});
  account.user = QvnCloud::User{"a@x.io"};
  ui::MainWindow& w = open(&account);
  EXPECT_TRUE(w.showsStudio());

  // Revoked mid-stream: the stream runs on, and so does the studio.
  account.livePhase = LivePhase::live;
  account.signedOutWhileLive = true;
  secrets->values.clear();
  account.user = std::nullopt;
  EXPECT_TRUE(w.showsStudio());
  EXPECT_FALSE(w.signInView()->isVisible());

  account.signedOutWhileLive = false;
  account.livePhase = LivePhase::ended;
  EXPECT_FALSE(w.showsStudio());
  EXPECT_TRUE(w.signInView()->isVisible());
  window.reset();
}

}  // namespace
}  // namespace qvn::test
