// The studio window on Qt's offscreen platform, over a model with recording hubs: the T-bar,
// cards, keys and the rail drive the model as the operator expects, and screenshots of the
// whole window in both styles are written for a person to look at.
#include <gmock/gmock.h>

#include <QApplication>
#include <QCloseEvent>
#include <QElapsedTimer>
#include <QImage>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPushButton>
#include <QTest>
#include <cstring>
#include <filesystem>

#include "studio/recording_hubs.h"
#include "studio/studio_panel.h"
#include "ui/floating_panel.h"
#include "ui/main_window.h"
#include "ui/monitor_view.h"
#include "ui/offscreen_app.h"
#include "ui/panel_rail.h"
#include "ui/picture_widget.h"
#include "ui/source_card.h"
#include "ui/sources_strip.h"
#include "ui/t_bar.h"
#include "ui/transport_column.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;

// Runs Qt's loop until `done` or a generous bound (liveness only).
template <class F>
bool spinUntil(F done) {
  QElapsedTimer clock;
  clock.start();
  while (!done() && clock.elapsed() < 5000) {
    QApplication::processEvents(QEventLoop::AllEvents, 20);
    QTest::qWait(5);
  }
  return done();
}

// Lets queued pictures arrive and layouts settle.
void settle(int milliseconds = 300) {
  QElapsedTimer clock;
  clock.start();
  while (clock.elapsed() < milliseconds) QApplication::processEvents(QEventLoop::AllEvents, 20);
}

// A synthetic camera picture: colour bars under a name, as a person would recognise it.
PixelBufferRef synthetic(const QString& name, QColor tint, int width = 1920, int height = 1080) {
  QImage image(width, height, QImage::Format_RGB32);
  QPainter painter(&image);
  const QColor bars[] = {Qt::white,   Qt::yellow, Qt::cyan, Qt::green,
                         Qt::magenta, Qt::red,    Qt::blue};
  for (int i = 0; i < 7; ++i)
    painter.fillRect(QRect(i * width / 7, 0, width / 7 + 1, height * 2 / 3), bars[i].darker(115));
  painter.fillRect(QRect(0, height * 2 / 3, width, height / 3), tint);
  painter.setPen(Qt::white);
  QFont font = painter.font();
  font.setPixelSize(height / 8);
  font.setBold(true);
  painter.setFont(font);
  painter.drawText(QRect(0, height * 2 / 3, width, height / 3), Qt::AlignCenter, name);
  painter.end();
  auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y)
    std::memcpy(buffer->bgraAt(0, y), image.constScanLine(y), size_t(width) * 4);
  return buffer;
}

class StudioWindowUI : public StudioFixture {
 protected:
  StudioWindowUI() { offscreenApplication(); }
  ~StudioWindowUI() override { window.reset(); }

  // A started model with two live inputs, and the window on it.
  ui::MainWindow& open() {
    CameraModel& m = start();
    for (int slot : {1, 2}) {
      CameraSlot row = CameraSlot::empty(slot);
      row.live = true;
      row.kind = "usb";
      row.title = slot == 1 ? "Stage Left" : "Lectern";
      row.status = "Live";
      row.resolution = "1920×1080";
      m.attachLocal(row);
      hubs.frames->withFrame.insert(slot);
    }
    main.drain();
    window = std::make_unique<ui::MainWindow>(m, *hubs.frames, *store);
    window->open();
    return *window;
  }
  void feedPictures() {
    hubs.frames->store(1, synthetic("Stage Left", QColor(30, 60, 120)));
    hubs.frames->store(2, synthetic("Lectern", QColor(120, 50, 40)));
    hubs.frames->ingestMix(synthetic("Stage Left", QColor(30, 60, 120)));
    hubs.frames->store(-1, synthetic("Lectern", QColor(120, 50, 40)));
  }

  std::unique_ptr<ui::MainWindow> window;
};

TEST_F(StudioWindowUI, TheTBarMovesTheMixAndTakesFromHalfWay) {
  ui::MainWindow& w = open();
  model->setPreview(2);
  ui::TBar& bar = w.transport().tBar();
  trace.calls.clear();
  // From its resting end at the bottom, a third of the way up, then let go: nothing is taken.
  QTest::mousePress(&bar, Qt::LeftButton, {}, QPoint(bar.width() / 2, int(bar.handleY(0))));
  QTest::mouseMove(&bar, QPoint(bar.width() / 2, int(bar.handleY(0.3))));
  QTest::mouseRelease(&bar, Qt::LeftButton, {}, QPoint(bar.width() / 2, int(bar.handleY(0.3))));
  EXPECT_THAT(trace.calls, Contains(::testing::StartsWith("mix.setManual 0.3")));
  EXPECT_THAT(trace.calls, Contains("mix.endManual false true"));
  main.drain();
  EXPECT_FALSE(model->tBarAtTop());

  // All the way: taken, and the bar now rests at the top.
  trace.calls.clear();
  QTest::mousePress(&bar, Qt::LeftButton, {}, QPoint(bar.width() / 2, int(bar.handleY(0))));
  QTest::mouseRelease(&bar, Qt::LeftButton, {}, QPoint(bar.width() / 2, int(bar.handleY(1))));
  main.drain();
  EXPECT_THAT(trace.calls, Contains("mix.endManual true true"));
  EXPECT_TRUE(model->tBarAtTop());
  EXPECT_LT(bar.handleY(0), bar.handleY(1));
}

TEST_F(StudioWindowUI, CardsAndKeysPickInputsAsTheHelpSays) {
  ui::MainWindow& w = open();
  ui::SourceCard* card = w.strip().card(2);
  ASSERT_NE(card, nullptr);
  // Studio style: a click is Preview, a double-click Program.
  QTest::mouseClick(card, Qt::LeftButton);
  EXPECT_EQ(model->previewSlot(), 2);
  trace.calls.clear();
  QTest::mouseDClick(card, Qt::LeftButton);
  EXPECT_THAT(trace.calls, Contains("mix.switchTo 2 fade"));

  // Keys 1–9 are inputs by number; a digit typed into a field stays in the field.
  QTest::keyClick(&w, Qt::Key_1);
  EXPECT_EQ(model->previewSlot(), 1);
  // Ctrl with a panel's digit opens that panel.
  QTest::keyClick(&w, Qt::Key_2, Qt::ControlModifier);
  EXPECT_EQ(model->panel(), StudioPanel::pip);

  // Single style: a click selects only; the key takes.
  model->chooseStudioMode(false);
  trace.calls.clear();
  QTest::mouseClick(w.strip().card(1), Qt::LeftButton);
  EXPECT_EQ(model->focusedSlot(), 1);
  EXPECT_THAT(trace.calls, ::testing::Not(Contains(::testing::StartsWith("mix.switchTo"))));
  QTest::keyClick(&w, Qt::Key_2);
  EXPECT_THAT(trace.calls, Contains(::testing::StartsWith("mix.switchTo 2")));
}

TEST_F(StudioWindowUI, APanelLeavesTheRailForItsWindowAndComesBackWhenItCloses) {
  ui::MainWindow& w = open();
  ui::PanelRail& rail = w.rail();
  QTest::mouseClick(rail.button(StudioPanel::audio), Qt::LeftButton);
  EXPECT_EQ(rail.shownPanel(), StudioPanel::audio);
  model->panelDetach.setDetached(StudioPanel::audio, true);
  ui::FloatingPanel* floating = rail.floating(StudioPanel::audio);
  ASSERT_NE(floating, nullptr);
  EXPECT_EQ(floating->windowTitle(), "Audio");
  EXPECT_EQ(rail.shownPanel(), StudioPanel::inspector);  // the rail falls back
  // Its key now brings the window forward; the rail stays as it is.
  QTest::mouseClick(rail.button(StudioPanel::audio), Qt::LeftButton);
  EXPECT_EQ(model->panel(), StudioPanel::audio);
  EXPECT_TRUE(floating->isVisible());
  floating->setGeometry(40, 50, 320, 400);
  EXPECT_EQ(store->text("qvn.panel.window.audio"), "{{40, 50}, {320, 400}}");

  floating->close();
  EXPECT_FALSE(model->panelDetach.isDetached(StudioPanel::audio));
  EXPECT_EQ(rail.floating(StudioPanel::audio), nullptr);
  EXPECT_EQ(rail.shownPanel(), StudioPanel::audio);
}

TEST_F(StudioWindowUI, MonitorsShowTheNewestPictureAndScreenshotsAreWritten) {
  ui::MainWindow& w = open();
  model->setPreview(2);
  model->programSlot = 1;  // as the mix reports once it has switched
  feedPictures();
  ASSERT_TRUE(spinUntil([&] {
    return w.program().picture().picturesDrawn() > 0 && w.preview().picture().picturesDrawn() > 0 &&
           w.strip().card(2)->picture().picturesDrawn() > 0;
  }));
  // The picture is drawn from the buffer itself: what Program shows is the mix's picture.
  const QImage shot = w.program().picture().grab().toImage();
  const double fittedHeight = std::min<double>(shot.height(), shot.width() * 9.0 / 16);
  const QColor tint =
      shot.pixelColor(shot.width() / 2, int(shot.height() / 2 + fittedHeight * 0.4));
  EXPECT_NEAR(tint.blue(), 120, 20);  // Stage Left's blue band

  const fs::path folder = QVN_SCREENSHOT_DIR;
  fs::create_directories(folder);
  for (bool studio : {true, false}) {
    model->chooseStudioMode(studio);
    for (auto [width, height] : {std::pair{1180, 720}, std::pair{1920, 1080}}) {
      w.resize(width, height);
      feedPictures();
      settle();
      const std::string file = std::string(studio ? "studio" : "single") + "-" +
                               std::to_string(width) + "x" + std::to_string(height) + ".png";
      EXPECT_TRUE(w.grab().save(QString::fromStdString((folder / file).string())));
    }
  }
}

}  // namespace
}  // namespace qvn::test
