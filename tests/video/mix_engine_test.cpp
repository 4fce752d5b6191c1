#include "video/mix_engine.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <future>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "test_pictures.h"
#include "video/mix_geometry.h"

// The standby lettering goes through pango and fontconfig, built without sanitizers: their own
// locking is invisible to the race detector, and fontconfig keeps its caches for good.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libfontconfig.so\n";
}
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

namespace qvn {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// ---- Geometry -------------------------------------------------------------------------------

const PixelRect kHD{0, 0, 1920, 1080};

TEST(MixGeometry, FillOnlyCutsPicturesThatAreNotPortrait) {
  EXPECT_TRUE(fillsFrame(1000, 1020, {}, std::nullopt, true));
  EXPECT_FALSE(fillsFrame(1000, 1021, {}, std::nullopt, true));
  EXPECT_FALSE(fillsFrame(500, 500, {}, std::nullopt, false));
  EXPECT_TRUE(fillsFrame(1000, 1021, {}, true, false));          // a hole always fills
  EXPECT_FALSE(fillsFrame(500, 500, {}, false, true));           // an override beats the setting
  EXPECT_TRUE(fillsFrame(500, 500, {1.2, 0, 0}, false, false));  // a crop in use fills
  EXPECT_TRUE(fillsFrame(1000, 2000, {1, 0, 0.001}, std::nullopt, false));

  auto square = fittedPlacement(500, 500, kHD, {}, true);
  ASSERT_TRUE(square);
  EXPECT_DOUBLE_EQ(square->scale, 1920 / 500.0);
}

TEST(MixGeometry, ZoomScalesTheFillScaleAndPanMovesByHalfTheOverflow) {
  const ImageCrop zoomed{1.2, 0, 0};
  auto z = fittedPlacement(1000, 1000, kHD, zoomed, fillsFrame(1000, 1000, zoomed, {}, false));
  ASSERT_TRUE(z);
  EXPECT_DOUBLE_EQ(z->scale, 1.2 * 1.92);

  // 1600×900 at zoom 2 is 3840×2160: 1920 over on x, 1080 on y.
  auto right = fittedPlacement(1600, 900, kHD, {2, 1, 0}, true);
  ASSERT_TRUE(right);
  EXPECT_DOUBLE_EQ(right->x, 0);  // the left edge meets the frame's left
  EXPECT_DOUBLE_EQ(right->y, -540);
  auto up = fittedPlacement(1600, 900, kHD, {2, 0, 1}, true);
  ASSERT_TRUE(up);
  EXPECT_DOUBLE_EQ(up->y, -1080);  // up, in y-down pixels: the bottom meets the frame's bottom
  auto offset = fittedPlacement(1600, 900, {100, 50, 1920, 1080}, {2, -1, -1}, true);
  ASSERT_TRUE(offset);
  EXPECT_DOUBLE_EQ(offset->x, 100 - 1920);
  EXPECT_DOUBLE_EQ(offset->y, 50);
}

TEST(MixGeometry, TinyPicturesAreNotPlacedAndPreviewIsCappedEven) {
  EXPECT_FALSE(fittedPlacement(1, 500, kHD, {}, false));
  EXPECT_FALSE(fittedPlacement(500, 1, kHD, {}, true));
  EXPECT_TRUE(fittedPlacement(2, 2, kHD, {}, false));

  EXPECT_EQ(previewSize(3840, 2160, false), (PixelSize{1920, 1080}));
  EXPECT_EQ(previewSize(3840, 2160, true), (PixelSize{3840, 2160}));
  EXPECT_EQ(previewSize(1920, 1200, false), (PixelSize{1728, 1080}));
  EXPECT_EQ(previewSize(3000, 1699, false), (PixelSize{1906, 1080}));  // 1907 made even
}

// ---- Engine -------------------------------------------------------------------------------

using Events = std::vector<std::string>;

std::atomic<double> gClock{100.0};
double frozenClock() {
  return gClock.load();
}

// Each tick reads the clock twice, before and after its work: tick i then lasts i % 90 + 1 ms.
std::atomic<int> gReads{0};
double steppedClock() {
  const int n = gReads++, tick = n / 2;
  return n % 2 == 0 ? tick : tick + (tick % 90 + 1) / 1000.0;
}

// An engine on a hub, with Program taps counted and bus callbacks written down as text.
class MixRig {
 public:
  MixRig() {
    hub->setProgramTaps(
        [this](int, const PixelBufferRef&) {
          std::lock_guard lock(mutex_);
          ++taps_;
          tapped_.notify_all();
        },
        nullptr);
    hub->watch(FrameHub::kPreviewSlot, previewWatcher_);
    mix = MixEngine::make(hub);
    SerialQueue* queue = &mix->queue();
    mix->onDissolve = [this, queue](bool on) { note(queue, on ? "dissolve on" : "dissolve off"); };
    mix->onBusChanged = [this, queue](int program, int preview) {
      note(queue, "bus " + std::to_string(program) + "," + std::to_string(preview));
    };
  }
  ~MixRig() {
    if (MixEngine::canvasWidth() != 1920 || MixEngine::canvasHeight() != 1080)
      mix->setCanvas(1920, 1080);  // the canvas size is process-wide
    // Hold the queue so no tick holds the engine, and let the last reference go here.
    std::promise<void> entered;
    std::weak_ptr<MixEngine> weak = mix;
    mix->queue().async([weak, &entered] {
      entered.set_value();
      while (!weak.expired()) std::this_thread::sleep_for(1ms);
    });
    entered.get_future().wait();
    EXPECT_EQ(mix.use_count(), 1);
    mix.reset();
  }

  // Waits (bounded, for liveness only) for `count` more Program pictures.
  bool waitTaps(int count = 1) {
    std::unique_lock lock(mutex_);
    const long target = taps_ + count;
    return tapped_.wait_for(lock, 10s, [&] { return taps_ >= target; });
  }
  void sync() {
    mix->queue().sync([] {});
  }
  // Runs `calls` while the mix queue is held, so the jobs they post queue up behind each other.
  template <class F>
  void whileHeld(F calls) {
    std::promise<void> release;
    mix->queue().async([open = release.get_future().share()] { open.wait(); });
    calls();
    release.set_value();
    sync();
  }
  // A Program picture from a tick that began after this call.
  bool fresh() {
    sync();
    return waitTaps(1);
  }
  // Reads on the mix queue, where the ring is drawn, so never during a render.
  Px pixel(int slot, double fx, double fy) {
    Px p;
    mix->queue().sync([&] {
      if (auto b = hub->buffer(slot)) {
        const std::uint8_t* q = b->bgraAt(int(fx * (b->width() - 1)), int(fy * (b->height() - 1)));
        p = {q[2], q[1], q[0]};
      }
    });
    return p;
  }
  PixelSize size(int slot) {
    auto b = hub->buffer(slot);
    return b ? PixelSize{b->width(), b->height()} : PixelSize{};
  }
  // Preview is drawn only while a screen shows it; the rig has one until told otherwise.
  void closePreviewScreen() { previewScreen_.reset(); }
  Events events() {
    std::lock_guard lock(mutex_);
    return events_;
  }
  bool callbacksOnMixQueue() {
    std::lock_guard lock(mutex_);
    return onQueue_;
  }

  std::shared_ptr<FrameHub> hub = std::make_shared<FrameHub>();
  std::shared_ptr<MixEngine> mix;

 private:
  void note(SerialQueue* queue, std::string event) {
    std::lock_guard lock(mutex_);
    onQueue_ = onQueue_ && queue->isCurrent();
    events_.push_back(std::move(event));
  }

  std::shared_ptr<PixelBufferView> previewScreen_ = PixelBufferView::make([](const auto&) {});
  std::shared_ptr<FrameWatcher> previewWatcher_ =
      std::make_shared<FrameWatcher>(FrameWatcher{previewScreen_});
  std::mutex mutex_;
  std::condition_variable tapped_;
  long taps_ = 0;
  Events events_;
  bool onQueue_ = true;
};

class MixEngineTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-mix-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    before_ = appPaths();
    setAppPaths(AppPaths::underRoot(root_));
  }
  void TearDown() override {
    setMediaTimeSource(nullptr);
    setAppPaths(before_);
    fs::remove_all(root_);
  }
  static std::string log() { return readFile(appPaths().logFile()).value_or(""); }

  fs::path root_;
  AppPaths before_;
};

TEST_F(MixEngineTest, WithoutInputsProgramRepeatsTheStandbyPictureAndPreviewIsSentOnce) {
  MixRig rig;
  rig.mix->setPreviewVisible(true);
  rig.mix->start();
  std::set<PixelBuffer*> seen;
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(rig.waitTaps());
    seen.insert(rig.hub->buffer(0).get());
  }
  EXPECT_EQ(seen.size(), 1u);
  EXPECT_TRUE(near(rig.pixel(0, 0, 0), kBackground, 0));
  int lettering = 0;
  rig.mix->queue().sync([&] {
    auto b = rig.hub->buffer(0);
    for (int y = 500; y < 580; ++y)
      for (int x = 760; x < 1160; ++x)
        if (const std::uint8_t* q = b->bgraAt(x, y); q[2] < 60 && q[1] > 150 && q[0] > 100)
          ++lettering;
  });
  EXPECT_GT(lettering, 100);

  // The blank Preview went out with the first tick and never again.
  EXPECT_TRUE(near(rig.pixel(-1, 0.5, 0.5), kBackground, 0));
  rig.hub->clear(-1);
  ASSERT_TRUE(rig.waitTaps(4));
  rig.sync();
  EXPECT_EQ(rig.hub->buffer(-1), nullptr);

  // With a source, Preview goes out again.
  rig.hub->store(1, solid(160, 90, kRed));
  rig.mix->switchTo(1, MixTransition::instant);
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(-1, 0.5, 0.5), kRed));

  // With no screen showing it, Preview is not drawn; Program goes on.
  rig.closePreviewScreen();
  rig.hub->clear(-1);
  ASSERT_TRUE(rig.waitTaps(3));
  rig.sync();
  EXPECT_EQ(rig.hub->buffer(-1), nullptr);
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));
}

TEST_F(MixEngineTest, ATickThatComesLateIsCounted) {
  MixRig rig;
  rig.mix->start();
  ASSERT_TRUE(rig.waitTaps(3));
  const long before = rig.mix->lateTicks();
  // The queue held for three ticks' time: the next tick comes a whole tick after its time.
  rig.mix->queue().sync([] { std::this_thread::sleep_for(100ms); });
  ASSERT_TRUE(rig.waitTaps(2));
  EXPECT_GE(rig.mix->lateTicks(), before + 1);
}

TEST_F(MixEngineTest, TheFirstInputGoesToProgramByItselfWithoutATransition) {
  MixRig rig;
  rig.mix->start();
  ASSERT_TRUE(rig.waitTaps());
  const PixelBufferRef standby = rig.hub->buffer(0);
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.whileHeld([&] {  // two inputs arriving together: only the first goes to Program
    rig.mix->noteIncoming(1);
    rig.mix->noteIncoming(2);
  });
  EXPECT_EQ(rig.mix->programSlotMirror(), 1);
  EXPECT_NE(rig.hub->buffer(0), standby);  // the cut lands at once, not at the next tick
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));
  rig.mix->noteIncoming(2);  // Program is taken: nothing
  rig.sync();
  EXPECT_EQ(rig.events(), (Events{"dissolve off", "bus 1,1"}));
  EXPECT_TRUE(rig.callbacksOnMixQueue());

  MixRig held;  // a held Preview stays empty
  held.mix->setHoldPreview(true);
  held.hub->store(3, solid(160, 90, kRed));
  held.mix->noteIncoming(3);
  held.sync();
  EXPECT_EQ(held.events(), (Events{"dissolve off", "bus 3,0"}));
}

TEST_F(MixEngineTest, InputsGoingAwayMoveTheBuses) {
  MixRig rig;
  rig.mix->start();
  ASSERT_TRUE(rig.waitTaps());
  const PixelBufferRef standby = rig.hub->buffer(0);
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.hub->store(3, solid(160, 90, kGreen));
  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->setPreview(2);
  rig.mix->clearIf(2, {1, 3});  // Preview's input: Preview follows Program
  rig.mix->clearIf(5, {1, 3});  // neither bus: nothing
  rig.sync();
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));
  rig.whileHeld([&] {  // Program's input, twice over: each cut is seen by the next removal
    rig.mix->clearIf(1, {2, 3});
    rig.mix->clearIf(2, {3});
  });
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kGreen));
  rig.mix->clearIf(3, {});  // the last one: standby again
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.hub->buffer(0), standby);
  EXPECT_EQ(rig.mix->programSlotMirror(), 0);
  EXPECT_EQ(rig.events(), (Events{"dissolve off", "bus 1,1", "bus 1,2", "bus 1,1", "dissolve off",
                                  "bus 2,2", "dissolve off", "bus 3,3", "bus 0,0"}));
}

TEST_F(MixEngineTest, TheCanvasSizesBothBusesAndASizeChangeRemakesTheRing) {
  MixRig rig;
  rig.mix->setCanvas(3840, 2160);  // before start: only stored
  rig.mix->setPreviewVisible(true);
  rig.mix->start();
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.size(0), (PixelSize{3840, 2160}));
  EXPECT_EQ(rig.size(-1), (PixelSize{1920, 1080}));
  const PixelBufferRef standby = rig.hub->buffer(0);
  rig.mix->setPreviewFullSize(true);
  rig.mix->setCanvas(3840, 2160);  // the same size: logged, nothing remade
  ASSERT_TRUE(rig.fresh());
  rig.sync();
  EXPECT_EQ(rig.size(-1), (PixelSize{3840, 2160}));
  EXPECT_EQ(rig.hub->buffer(0), standby);
  rig.mix->setCanvas(1920, 1080);
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.size(0), (PixelSize{1920, 1080}));
  EXPECT_NE(rig.hub->buffer(0), standby);
  const std::string text = log();
  const size_t before = text.find("mix canvas 3840×2160"),
               started = text.find("mix start 3840×2160");
  EXPECT_LT(before, started) << text;
  EXPECT_NE(text.find("mix canvas 3840×2160", before + 1), std::string::npos) << text;
  EXPECT_NE(text.find("mix canvas 1920×1080", started), std::string::npos) << text;
}

TEST_F(MixEngineTest, SourcesAreFittedWithBarsOrFilled) {
  MixRig rig;
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(90, 160, kBlue));
  rig.hub->store(3, solid(100, 100, kGreen));
  rig.mix->start();
  rig.mix->switchTo(1, MixTransition::instant);
  rig.sync();
  EXPECT_TRUE(near(rig.pixel(0, 0, 0), kRed));
  rig.mix->switchTo(2, MixTransition::instant);
  rig.sync();
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kBlue));
  EXPECT_TRUE(near(rig.pixel(0, 0, 0), kBackground, 0));
  rig.mix->setFill(true);  // a portrait source keeps its bars
  rig.mix->switchTo(2, MixTransition::instant);
  rig.sync();
  EXPECT_TRUE(near(rig.pixel(0, 0, 0.5), kBackground, 0));
  rig.mix->switchTo(3, MixTransition::instant);  // a square one fills
  rig.sync();
  EXPECT_TRUE(near(rig.pixel(0, 1, 1), kGreen));
}

TEST_F(MixEngineTest, AFadeBlendsOnTheMediaClockAndReportsItsEnd) {
  gClock = 100.0;
  setMediaTimeSource(frozenClock);
  MixRig rig;
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.mix->start();
  rig.mix->setTransitionDuration(1.0);
  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->switchTo(2, MixTransition::fade);
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));  // progress 0

  gClock = 100.5;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.1, 0.9), {128, 0, 128}));
  EXPECT_EQ(rig.events(), (Events{"dissolve off", "bus 1,1", "dissolve on", "bus 2,2"}));

  gClock = 101.0;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kBlue));
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.events(),
            (Events{"dissolve off", "bus 1,1", "dissolve on", "bus 2,2", "dissolve off"}));
}

TEST_F(MixEngineTest, ASlideBringsTheNewSourceInFromTheRight) {
  gClock = 200.0;
  setMediaTimeSource(frozenClock);
  MixRig rig;
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.mix->start();
  rig.mix->setTransitionDuration(0.01);  // clamped to 0.1
  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->switchTo(2, MixTransition::slide);
  rig.sync();
  gClock = 200.05;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.45, 0.1), kRed));
  EXPECT_TRUE(near(rig.pixel(0, 0.55, 0.9), kBlue));
}

TEST_F(MixEngineTest, TakingPreviewSwapsOnlyWhenAsked) {
  MixRig rig;
  rig.mix->setHoldPreview(true);
  rig.mix->start();
  rig.mix->takePreview(MixTransition::instant, true);  // no Preview source: nothing
  rig.mix->switchTo(0, MixTransition::instant);        // no slot: nothing
  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->setPreview(2);
  rig.mix->takePreview(MixTransition::instant, true);
  rig.mix->setPreview(3);
  rig.mix->takePreview(MixTransition::instant, false);
  rig.sync();
  EXPECT_EQ(rig.events(), (Events{"dissolve off", "bus 1,0", "bus 1,2", "dissolve off", "bus 2,1",
                                  "bus 2,3", "dissolve off", "bus 3,3"}));
  EXPECT_EQ(rig.mix->programSlotMirror(), 3);
}

TEST_F(MixEngineTest, TheTBarShowsTheWayToPreviewAndFinishesWhereItWasLetGo) {
  gClock = 300.0;
  setMediaTimeSource(frozenClock);
  MixRig rig;
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.mix->setHoldPreview(true);
  rig.mix->start();
  ASSERT_TRUE(rig.fresh());
  const PixelBufferRef standby = rig.hub->buffer(0);
  rig.mix->setPreview(2);
  rig.mix->setManual(0.5, MixTransition::fade);  // Program empty: the bar has no picture
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.hub->buffer(0), standby);

  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->setManual(1.4, MixTransition::instant);  // held at 1, as a fade
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kBlue));
  rig.mix->setManual(0.5, MixTransition::slide);
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.25, 0.5), kRed));
  EXPECT_TRUE(near(rig.pixel(0, 0.75, 0.5), kBlue));

  std::vector<bool> taken;
  auto note = [&taken](bool t) { taken.push_back(t); };
  rig.mix->setTransitionDuration(0.6);
  rig.mix->endManual(true, true, note);          // the other half of a slide, in 0.3 s
  rig.mix->setManual(0.2, MixTransition::fade);  // ignored while the change runs
  ASSERT_TRUE(rig.fresh());
  EXPECT_EQ(rig.mix->programSlotMirror(), 2);
  EXPECT_TRUE(near(rig.pixel(0, 0.25, 0.5), kRed));
  gClock = 300.29;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.005, 0.5), kRed));
  gClock = 300.3;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.02, 0.5), kBlue));

  rig.mix->endManual(true, false, note);       // never moved
  rig.mix->setManual(1, MixTransition::fade);  // all the way: a cut
  rig.mix->endManual(true, false, note);
  rig.mix->setManual(0.7, MixTransition::fade);
  rig.mix->endManual(false, false, note);  // let go without taking
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));
  EXPECT_EQ(taken, (std::vector<bool>{true, false, true, false}));
  EXPECT_EQ(rig.events(), (Events{"bus 0,2", "dissolve off", "bus 1,2", "dissolve on", "bus 2,1",
                                  "dissolve off", "dissolve off", "bus 1,1"}));
}

TEST_F(MixEngineTest, LayersGoToTheChosenBusAndATakeBringsPreviewsSettled) {
  gClock = 400.0;
  setMediaTimeSource(frozenClock);
  MixRig rig;
  rig.hub->store(1, solid(160, 90, kRed));
  rig.hub->store(2, solid(160, 90, kBlue));
  rig.mix->setHoldPreview(true);
  rig.mix->setPreviewVisible(true);
  rig.mix->start();
  rig.mix->switchTo(1, MixTransition::instant);
  rig.mix->setPreview(2);
  OverlayLayer bug;
  bug.id = "bug";
  bug.image = solid(200, 100, kGreen);
  bug.motionIn = QvnOverlayMotion::fade;
  bug.motionDuration = 1;
  rig.mix->setOverlayLayers(true, {bug}, MixEngine::Bus::preview);
  rig.sync();
  gClock = 400.5;
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kRed));
  EXPECT_TRUE(near(rig.pixel(-1, 0.5, 0.5), {0, 128, 128}));  // half way in on Preview

  rig.mix->takePreview(MixTransition::instant, true);  // arrives on Program at rest
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kGreen));
  EXPECT_TRUE(near(rig.pixel(0, 0.1, 0.1), kBlue));

  rig.mix->setOverlayPlacements(true, {{"bug", {0.1, 0.1}, 0, 1}}, MixEngine::Bus::both);
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.1, 0.1), kGreen));
  EXPECT_TRUE(near(rig.pixel(0, 0.5, 0.5), kBlue));

  rig.mix->setImageCrop(2, {4, 0, 0}, false);  // eased a tick at a time, not at once
  rig.mix->setOverlayLayers(false, {}, MixEngine::Bus::program);
  ASSERT_TRUE(rig.fresh());
  EXPECT_TRUE(near(rig.pixel(0, 0.1, 0.1), kBlue));
}

TEST_F(MixEngineTest, TickTimesAreSummedUpEveryNinetyTicks) {
  gReads = 0;
  setMediaTimeSource(steppedClock);
  MixRig rig;
  rig.mix->start();
  ASSERT_TRUE(rig.waitTaps(90));  // with Program empty, one standby picture a tick
  rig.sync();
  const std::string text = log();
  EXPECT_NE(text.find("mix tick 3s n=90 avg=45.50ms p50=46.00ms p95=86.00ms max=90.00ms"),
            std::string::npos)
      << text;
}

}  // namespace
}  // namespace qvn
