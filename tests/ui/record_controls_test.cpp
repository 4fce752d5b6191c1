// The header's record controls on Qt's offscreen platform, over a model with recording hubs:
// the button starts and stops the recorder and shows the running time and size, and the
// menu's folder and format choices reach the model and the settings store.
#include <gmock/gmock.h>

#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <filesystem>

#include "studio/recording_hubs.h"
#include "ui/main_window.h"
#include "ui/offscreen_app.h"
#include "ui/record_controls.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// Lets layouts settle.
void settle(int milliseconds = 200) {
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < milliseconds) QApplication::processEvents(QEventLoop::AllEvents, 20);
}

std::optional<RecordOptions> storedOptions(const Defaults& store) {
  const auto bytes = store.bytes("qvn.recordOptions");
  if (!bytes) return std::nullopt;
  return RecordOptions::fromJSON(std::string(bytes->begin(), bytes->end()));
}

class RecordControlsUI : public StudioFixture {
 protected:
  RecordControlsUI() { offscreenApplication(); }
  ~RecordControlsUI() override { window.reset(); }

  // A started model with one live input, so there is something to record, and the window.
  ui::RecordControls& open() {
    CameraModel& m = start();
    CameraSlot row = CameraSlot::empty(1);
    row.live = true;
    row.kind = "usb";
    row.title = "Stage Left";
    row.status = "Live";
    m.attachLocal(row);
    main.drain();
    window = std::make_unique<ui::MainWindow>(m, *hubs.frames, *store);
    window->open();
    return window->recordControls();
  }

  std::unique_ptr<ui::MainWindow> window;
};

TEST_F(RecordControlsUI, TheButtonRecordsShowsTimeAndSizeAndStops) {
  ui::RecordControls& controls = open();
  hubs.recorder->file = "/tmp/x/Show.mp4";
  EXPECT_EQ(controls.text(), "Record");
  // In the header, left of Go Live.
  const QPoint record = controls.mapTo(window.get(), QPoint(controls.width(), 0));
  const QPoint goLive = window->goLiveButton().mapTo(window.get(), QPoint(0, 0));
  EXPECT_LE(record.x(), goLive.x());

  trace.calls.clear();
  QTest::mouseClick(&controls.button(), Qt::LeftButton);
  EXPECT_THAT(trace.calls, Contains(StartsWith("recorder.start 0 ")));
  EXPECT_TRUE(model->recording());
  EXPECT_THAT(controls.text().toStdString(), StartsWith("Stop"));

  model->recordElapsed = 65;
  model->recordFileSize = 12'400'000;
  const std::string running = controls.text().toStdString();
  EXPECT_THAT(running, HasSubstr("01:05"));
  EXPECT_THAT(running, HasSubstr("12.4 MB"));
  // A running recording keeps its format.
  ASSERT_NE(controls.action("MOV"), nullptr);
  EXPECT_FALSE(controls.action("MOV")->isEnabled());
  controls.action("MOV")->trigger();
  EXPECT_EQ(model->recordOptions().container, "mp4");

  const fs::path folder = QVN_SCREENSHOT_DIR;
  fs::create_directories(folder);
  settle();
  EXPECT_TRUE(window->grab().save(QString::fromStdString((folder / "recording.png").string())));

  trace.calls.clear();
  QTest::mouseClick(&controls.button(), Qt::LeftButton);
  EXPECT_THAT(trace.calls, Contains("recorder.stop"));
  // The recorder says when the file is closed; only then is the button Record again.
  hubs.recorder->onState(false, fs::path("/tmp/x/Show.mp4"));
  main.drain();
  EXPECT_FALSE(model->recording());
  EXPECT_EQ(controls.text(), "Record");
  EXPECT_TRUE(controls.action("MOV")->isEnabled());
}

TEST_F(RecordControlsUI, FormatChoicesChangeTheOptionsAndAreStored) {
  ui::RecordControls& controls = open();
  ASSERT_NE(controls.action("MP4"), nullptr);
  EXPECT_TRUE(controls.action("MP4")->isChecked());
  EXPECT_TRUE(controls.action("H.264")->isChecked());

  controls.action("MOV")->trigger();
  controls.action("HEVC")->trigger();
  EXPECT_EQ(model->recordOptions().container, "mov");
  EXPECT_EQ(model->recordOptions().codec, "hevc");
  EXPECT_TRUE(controls.action("MOV")->isChecked());
  EXPECT_FALSE(controls.action("MP4")->isChecked());
  EXPECT_EQ(storedOptions(*store), model->recordOptions());

  // A change made elsewhere shows in the menu.
  model->recordOptions.modify([](RecordOptions& o) { o.container = "mp4"; });
  EXPECT_TRUE(controls.action("MP4")->isChecked());
}

TEST_F(RecordControlsUI, AChosenFolderIsWhereRecordingsGoFromThenOn) {
  ui::RecordControls& controls = open();
  const fs::path before = model->recordFolder();
  std::optional<fs::path> askedAt;
  const fs::path shows = root / "Shows ünd Talks";
  controls.askForFolder = [&](const fs::path& start) -> std::optional<fs::path> {
    askedAt = start;
    return shows;
  };
  ASSERT_NE(controls.action("Choose folder…"), nullptr);
  controls.action("Choose folder…")->trigger();
  EXPECT_EQ(askedAt, before);
  const std::string path = shows.string();
  EXPECT_EQ(model->recordOptions().folderBookmark,
            std::vector<std::uint8_t>(path.begin(), path.end()));
  EXPECT_EQ(model->recordFolder(), shows);
  EXPECT_EQ(storedOptions(*store), model->recordOptions());

  // The menu names the folder once it opens.
  Q_EMIT controls.menu().aboutToShow();
  bool named = false;
  for (QAction* item : controls.menu().actions())
    if (item->toolTip().toStdString() == path) named = !item->isEnabled();
  EXPECT_TRUE(named);

  // A cancelled dialog leaves the choice alone.
  controls.askForFolder = [](const fs::path&) { return std::optional<fs::path>(); };
  controls.action("Choose folder…")->trigger();
  EXPECT_EQ(model->recordFolder(), shows);

  // The next start reads it back.
  window.reset();
  CameraModel& again = start();
  EXPECT_EQ(again.recordFolder(), shows);
}

TEST(RecordControlsText, TimeAndSizeReadAsTheOperatorExpects) {
  EXPECT_EQ(ui::RecordControls::elapsedText(0), "00:00");
  EXPECT_EQ(ui::RecordControls::elapsedText(65.7), "01:05");
  EXPECT_EQ(ui::RecordControls::elapsedText(3725), "01:02:05");
  EXPECT_EQ(ui::RecordControls::sizeText(999), "999 bytes");
  EXPECT_EQ(ui::RecordControls::sizeText(12'400'000), "12.4 MB");
  EXPECT_EQ(ui::RecordControls::sizeText(3'210'000'000), "3.2 GB");
}

}  // namespace
}  // namespace qvn::test
