// Program and Preview as the operator drives them, on the real mix engine: solid colours in
// the frame hub stand in for inputs, and both the main queue and the media clock are the
// test's. After each step, the model's state and the colours on Program and Preview agree.
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "app/headless_show.h"
#include "studio/recording_hubs.h"
#include "video/mix_engine.h"
#include "video/test_pictures.h"

// The standby lettering goes through pango and fontconfig, built without sanitizers: their
// own locking is invisible to the race detector, and fontconfig keeps its caches for good.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libfontconfig.so\n";
}
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\n";
}

namespace qvn::test {
namespace {

using namespace std::chrono_literals;

std::atomic<double> gNow{500.0};
double testClock() {
  return gNow.load();
}

class StudioSwitching : public StudioFixture {
 protected:
  StudioSwitching() { setMediaTimeSource(testClock); }
  ~StudioSwitching() override {
    model.reset();
    // Nothing of the engine may run past the test: wait out what is queued, then let go.
    mix->queue().sync([] {});
    mix.reset();
    setMediaTimeSource(nullptr);
  }

  // The studio started on the real engine, with the inputs in `colours` live and showing.
  CameraModel& startWith(const std::map<int, Px>& colours, const std::set<int>& alsoLive = {}) {
    StudioContext c = context();
    c.hubs.mix = mix;
    c.hubs.frames = frames;
    model = std::make_unique<CameraModel>(c);
    model->start();
    std::set<int> live = alsoLive;
    for (auto [slot, colour] : colours) {
      frames->store(slot, solid(160, 90, colour));
      live.insert(slot);
    }
    model->slotsDidChange(phoneRows(live));
    settle();
    return *model;
  }
  // The engine's answers reach the model, and what the model asks in return is done.
  void settle() {
    for (int i = 0; i < 3; ++i) {
      mix->queue().sync([] {});
      main.drain();
    }
  }
  Px busColour(int slot) {
    Px p;
    mix->queue().sync([&] {
      if (auto b = frames->buffer(slot)) p = pixelAt(*b, b->width() / 2, b->height() / 2);
    });
    return p;
  }
  // Preview is drawn at the engine's next tick: wait for it (bounded, for liveness only).
  testing::AssertionResult previewShows(Px want) {
    Px got;
    for (auto until = std::chrono::steady_clock::now() + 5s;
         std::chrono::steady_clock::now() < until; std::this_thread::sleep_for(5ms))
      if (near(got = busColour(FrameHub::kPreviewSlot), want)) return testing::AssertionSuccess();
    return near(got, want);
  }
  Px program() { return busColour(0); }
  // Waits (bounded, for liveness only) until two more Program pictures went out, so the
  // newest began after this call.
  void nextTicks() {
    for (int n = 0; n < 2; ++n) {
      const PixelBufferRef before = frames->buffer(0);
      for (auto until = std::chrono::steady_clock::now() + 5s;
           frames->buffer(0) == before && std::chrono::steady_clock::now() < until;)
        std::this_thread::sleep_for(2ms);
    }
  }

  std::shared_ptr<FrameHub> frames = std::make_shared<FrameHub>();
  std::shared_ptr<MixEngine> mix = MixEngine::make(frames);
  // Preview is drawn for a screen that shows it, as the window's monitor does.
  std::shared_ptr<PixelBufferView> previewScreen = PixelBufferView::make([](const auto&) {});
  std::shared_ptr<FrameWatcher> previewWatcher = [this] {
    auto watcher = std::make_shared<FrameWatcher>(FrameWatcher{previewScreen});
    frames->watch(FrameHub::kPreviewSlot, watcher);
    return watcher;
  }();
};

TEST_F(StudioSwitching, StudioStyleBuildsOnPreviewAndTakesIt) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}});
  EXPECT_EQ(m.previewSlot(), 1);  // the empty Preview is filled, Program stays empty
  EXPECT_EQ(m.programSlot(), 0);
  EXPECT_TRUE(previewShows(kRed));

  m.takePreview(MixTransition::fade);  // from an empty Program: a cut, Preview stays
  settle();
  EXPECT_EQ(m.programSlot(), 1);
  EXPECT_EQ(m.previewSlot(), 1);
  EXPECT_TRUE(near(program(), kRed));
  EXPECT_TRUE(m.tBarAtTop());

  m.selectCamera(2);
  EXPECT_EQ(m.previewSlot(), 2);
  EXPECT_EQ(m.programSlot(), 1);
  m.setDissolveSeconds(60);  // held to 5 s
  EXPECT_EQ(m.dissolveSeconds(), 5.0);
  m.takePreview(MixTransition::fade);
  EXPECT_TRUE(m.dissolving());
  EXPECT_EQ(m.focusedSlot(), 2);
  settle();
  EXPECT_EQ(m.programSlot(), 2);
  EXPECT_EQ(m.previewSlot(), 1);  // the old Program, swapped in
  gNow = gNow + 2.5;
  nextTicks();
  EXPECT_TRUE(near(busColour(0), {128, 0, 128}));
  gNow = gNow + 2.5;
  nextTicks();  // a tick ends the fade
  settle();
  EXPECT_FALSE(m.dissolving());
  EXPECT_TRUE(near(program(), kBlue));
  EXPECT_FALSE(m.tBarAtTop());
  EXPECT_THAT(logFileText(), testing::HasSubstr("preview ← input 2"));

  m.afterTakeSwap = false;  // Preview stays on the input just taken
  m.selectCamera(1);
  m.takePreview(MixTransition::instant);
  settle();
  EXPECT_EQ(m.programSlot(), 1);
  EXPECT_EQ(m.previewSlot(), 1);
}

TEST_F(StudioSwitching, TheTBarTakesFromHalfWayAndFallsBackBelow) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}});
  m.takePreview(MixTransition::instant);
  m.selectCamera(2);
  settle();
  const bool restedAt = m.tBarAtTop();

  m.moveTBar(0.4999);
  nextTicks();
  EXPECT_TRUE(near(program(), kRed, 130));  // the mix on Program while held
  m.releaseTBar();
  settle();
  EXPECT_EQ(m.programSlot(), 1);
  EXPECT_EQ(m.tBarProgress(), 0.0);
  EXPECT_EQ(m.tBarAtTop(), restedAt);

  m.moveTBar(1.0);
  nextTicks();
  EXPECT_TRUE(near(program(), kBlue));  // the bar's picture only: nothing changed on air
  EXPECT_EQ(m.programSlot(), 1);
  m.moveTBar(0.5);
  m.releaseTBar();
  settle();
  EXPECT_EQ(m.programSlot(), 2);
  EXPECT_EQ(m.previewSlot(), 1);
  EXPECT_NE(m.tBarAtTop(), restedAt);
  EXPECT_EQ(m.focusedSlot(), 2);
  EXPECT_TRUE(hubs.overlays->isEnabled == m.overlaysOn());
  EXPECT_EQ(trace.count("overlays.didTake"), 2);

  m.chooseStudioMode(false);  // no Take in Single style: the bar doesn't move
  m.moveTBar(0.8);
  EXPECT_EQ(m.tBarProgress(), 0.0);
}

TEST_F(StudioSwitching, SingleStylePutsInputsStraightOnProgram) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}, {3, kGreen}});
  m.chooseStudioMode(false);
  m.selectCamera(3);
  settle();
  EXPECT_EQ(m.programSlot(), 3);
  EXPECT_EQ(m.previewSlot(), 3);  // Preview follows Program
  EXPECT_TRUE(near(program(), kGreen));
  EXPECT_FALSE(m.canTake());
  EXPECT_EQ(store->boolean("qvn.studioMode"), false);

  m.perform(CycleKey{true});  // the hero steps through the live inputs, round the end
  settle();
  EXPECT_EQ(m.programSlot(), 1);
  m.perform(CycleKey{false});
  settle();
  EXPECT_EQ(m.programSlot(), 3);
  EXPECT_TRUE(m.perform(InputKey{2}));
  settle();
  EXPECT_EQ(m.programSlot(), 2);
  m.take(9, MixTransition::instant);  // not live: nothing at all
  EXPECT_FALSE(m.perform(CommandKey{QvnKeyCommand::none}));
  EXPECT_FALSE(m.perform(SceneKey{5}));
  settle();
  EXPECT_EQ(m.programSlot(), 2);
}

TEST_F(StudioSwitching, AShowWithoutAnOperatorGoesRoundTheInputsWithTheNextOneInset) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}, {3, kGreen}});
  HeadlessShow show(m, main, 4, true);
  std::vector<int> onAir, insets;
  for (int i = 0; i < 4; ++i) {
    main.advance(4);
    settle();
    onAir.push_back(m.programSlot());
    insets.push_back(m.pipSlot());
  }
  EXPECT_THAT(onAir, ::testing::ElementsAre(1, 2, 3, 1));
  EXPECT_THAT(insets, ::testing::ElementsAre(2, 3, 1, 2));
  EXPECT_TRUE(m.pipEnabled());

  m.slotsDidChange(phoneRows({1}));  // one input left: nothing to go to
  settle();
  main.advance(4);
  settle();
  EXPECT_EQ(m.programSlot(), 1);
}

TEST_F(StudioSwitching, RefusalsSayWhy) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}}, {3});  // 3 is live without a picture
  m.takePreview(MixTransition::instant);
  settle();
  m.setPreview(3);
  EXPECT_FALSE(m.canTake());
  m.perform(CommandKey{QvnKeyCommand::take});
  EXPECT_EQ(m.toast(), "Input 3 has no picture yet");
  EXPECT_EQ(m.programSlot(), 1);

  m.perform(CommandKey{QvnKeyCommand::swap});
  EXPECT_EQ(m.toast(), "Turn on picture-in-picture with a second input first");
  m.setPiP(true, 2);
  EXPECT_TRUE(m.canSwapPiP());
  m.slotsDidChange(phoneRows({1, 3}));  // the inset's input goes away
  settle();
  EXPECT_FALSE(m.canSwapPiP());
  m.swapPiP();
  EXPECT_EQ(m.toast(), "PiP input is no longer live");
}

TEST_F(StudioSwitching, TheInsetSwapsAndWhatIsOnAirSurvivesLeavingStudioStyle) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}});
  m.takePreview(MixTransition::instant);
  m.setPiP(true, 2, PiPCorner::bottomRight);
  EXPECT_DOUBLE_EQ(m.pipLayout().x, 0.84);
  EXPECT_DOUBLE_EQ(m.pipLayout().y, 0.79);
  m.setPiP(std::nullopt, std::nullopt, PiPCorner::topLeft);  // keeps its size
  EXPECT_DOUBLE_EQ(m.pipLayout().x, 0.16);
  EXPECT_DOUBLE_EQ(m.pipLayout().y, 0.21);
  m.takePreview(MixTransition::instant);  // the inset goes on air with the take
  settle();
  nextTicks();
  ASSERT_TRUE(m.programPiP());
  EXPECT_TRUE(m.programPiP()->on);
  EXPECT_TRUE(near(busColour(0), kRed));
  Px inset;
  mix->queue().sync([&] { inset = pixelAt(*frames->buffer(0), 300, 230); });
  EXPECT_TRUE(near(inset, kBlue));

  m.setPiP(false);  // only Preview's inset changes while Preview is edited
  settle();
  EXPECT_EQ(m.editTargetName(), "Preview");
  m.chooseStudioMode(false);  // the on-air inset returns; the Preview edit is dropped
  EXPECT_TRUE(m.pipEnabled());
  EXPECT_FALSE(m.programPiP());
  EXPECT_EQ(m.editBus(), MixControl::Bus::both);

  m.mixTransition = MixTransition::instant;
  m.swapPiP();  // the inset's input goes full frame, the full frame into the inset
  settle();
  nextTicks();
  EXPECT_TRUE(near(program(), kBlue));
  EXPECT_EQ(m.toast(), "Swapped Program and PiP");
  EXPECT_EQ(m.programSlot(), 2);
  EXPECT_EQ(m.pipSlot(), 1);
  mix->queue().sync([&] { inset = pixelAt(*frames->buffer(0), 300, 230); });
  EXPECT_TRUE(near(inset, kRed));
}

TEST_F(StudioSwitching, EditingProgramTradesTheInsetsAndATakeEndsIt) {
  CameraModel& m = startWith({{1, kRed}, {2, kBlue}});
  m.setPiP(true, 2);
  m.takePreview(MixTransition::instant);  // on air: inset of 2
  m.setPiP(false);                        // Preview: no inset
  m.setEditProgram(true);
  EXPECT_TRUE(m.pipEnabled());  // the edited inset is now Program's
  EXPECT_EQ(m.editBus(), MixControl::Bus::program);
  EXPECT_FALSE(m.programPiP()->on);  // Preview's waits aside
  EXPECT_THAT(logFileText(), testing::HasSubstr("editing Program"));
  m.takePreview(MixTransition::instant);  // a take edits Preview again
  EXPECT_FALSE(m.editProgram());
  EXPECT_THAT(logFileText(), testing::HasSubstr("editing Preview"));
}

}  // namespace
}  // namespace qvn::test
