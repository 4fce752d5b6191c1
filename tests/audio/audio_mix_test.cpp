// The real-time mix, driven block by block: what each bus carries, how sources keep time,
// and what the limiter and the ramps do.
#include "audio/audio_mix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

// Counts the allocations of the thread that asks, to show the render path makes none.
namespace {
thread_local long gAllocations = 0;
}
void* operator new(std::size_t size) {
  ++gAllocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}

namespace qvn {
namespace {

constexpr int kBlock = 1024;

// A mix with a stream and a record listener, fed and rendered a block at a time.
struct Mixer {
  std::unique_ptr<AudioMix> mix = std::make_unique<AudioMix>();
  std::vector<float> monitorL = std::vector<float>(kBlock), monitorR = std::vector<float>(kBlock);
  std::vector<std::vector<float>> stream, record;
  std::vector<std::int64_t> streamAt;

  // Frames of a constant level on both channels.
  void feed(int slotId, float level, int frames) {
    std::vector<float> samples(2 * size_t(frames), level);
    mix->write(AudioMix::indexOf(slotId), samples.data(), frames);
  }
  // One block rendered and drained.
  void block() {
    mix->render(kBlock, monitorL.data(), monitorR.data());
    mix->drain({[this](const std::vector<float>& b, std::int64_t at) {
                 stream.push_back(b);
                 streamAt.push_back(at);
               }},
               {[this](const std::vector<float>& b, std::int64_t) { record.push_back(b); }});
  }
  float lastStream(int frame = kBlock - 1) const { return stream.back()[size_t(frame)]; }
};

TEST(AudioMix, WithNothingActiveEveryBusIsSilentAndTimeRunsOn) {
  Mixer m;
  for (int i = 0; i < 3; ++i) m.block();
  ASSERT_EQ(m.stream.size(), 3u);
  EXPECT_EQ(m.streamAt, (std::vector<std::int64_t>{0, 1024, 2048}));
  for (const auto& b : m.stream)
    for (float v : b) ASSERT_EQ(v, 0.0f);
  EXPECT_EQ(m.mix->streamFrames(), 3 * kBlock);
  EXPECT_EQ(m.monitorL[0], 0.0f);
}

TEST(AudioMix, OnlyTheInputOnAirAndWhatRidesWithItReachStreamAndRecord) {
  Mixer m;
  m.mix->setProgramSlot(1);
  m.mix->setAccompany(AudioMix::indexOf(101), 1 << 0);  // external 1 rides with slot 1
  m.mix->setGain(0, 1.0f);
  for (int i = 0; i < 6; ++i) {
    m.feed(1, 0.2f, kBlock);
    m.feed(2, 0.1f, kBlock);
    m.feed(101, 0.05f, kBlock);
    m.block();
  }
  const float centre = 0.70710677f;
  EXPECT_NEAR(m.lastStream(), (0.2f + 0.05f) * centre, 1e-3);
  EXPECT_NEAR(m.record.back()[kBlock - 1], (0.2f + 0.05f) * centre, 1e-3);
  EXPECT_NEAR(m.monitorL.back(), (0.2f + 0.05f) * centre, 1e-3);  // slot 2 is off air

  m.mix->setProgramSlot(2);
  for (int i = 0; i < 2; ++i) {
    m.feed(1, 0.2f, kBlock), m.feed(2, 0.1f, kBlock), m.feed(101, 0.05f, kBlock);
    m.block();
  }
  EXPECT_NEAR(m.lastStream(), 0.1f * centre, 1e-3);  // the external stays with slot 1

  m.mix->setSolo(AudioMix::indexOf(101), true);  // solo: the monitor only
  for (int i = 0; i < 2; ++i) {
    m.feed(1, 0.2f, kBlock), m.feed(2, 0.1f, kBlock), m.feed(101, 0.05f, kBlock);
    m.block();
  }
  EXPECT_NEAR(m.monitorL.back(), 0.05f * centre, 1e-3);
  EXPECT_NEAR(m.lastStream(), 0.1f * centre, 1e-3);
  m.mix->setMuted(AudioMix::indexOf(101), true);  // a muted solo doesn't count
  m.feed(1, 0.2f, kBlock), m.feed(2, 0.1f, kBlock), m.feed(101, 0.05f, kBlock);
  m.block();
  EXPECT_NEAR(m.monitorL.back(), 0.1f * centre, 1e-3);
}

TEST(AudioMix, MutingIsInstantAndUnmutingRampsFromSilence) {
  Mixer m;
  m.mix->setProgramSlot(3);
  for (int i = 0; i < 4; ++i) m.feed(3, 0.5f, kBlock), m.block();
  EXPECT_NEAR(m.lastStream(), 0.5f * 0.70710677f, 1e-3);
  m.mix->setMuted(2, true);
  m.feed(3, 0.5f, kBlock), m.block();
  EXPECT_EQ(m.stream.back()[0], 0.0f);
  m.mix->setMuted(2, false);
  m.feed(3, 0.5f, kBlock), m.block();
  const float full = 0.5f * 0.70710677f;
  EXPECT_LT(m.stream.back()[0], full * 0.01f);
  EXPECT_NEAR(m.stream.back()[480], full * (1 - std::exp(-1.0f)), full * 0.03f);  // ~10 ms
  EXPECT_NEAR(m.lastStream(), full, full * 0.15f);
}

TEST(AudioMix, TheLimiterBendsLoudSignalsBelowFullScale) {
  Mixer m;
  m.mix->setProgramSlot(1);
  m.mix->setGain(0, 10.0f);  // held at +12 dB
  m.mix->setPan(0, -1.0f);   // hard left
  for (int i = 0; i < 6; ++i) m.feed(1, 0.9f, kBlock), m.block();
  const float out = m.lastStream();
  EXPECT_GT(out, 0.95f);
  EXPECT_LT(out, 1.0f);
  EXPECT_NEAR(m.stream.back()[kBlock + kBlock - 1], 0.0f, 1e-4);  // the right has faded out
}

// The ratio a source settles at when its ring holds `fill` frames on average.
double settledRatio(double fillShare) {
  AudioMix mix;
  mix.setProgramSlot(1);
  const int target = AudioMix::kInitialTargetFill;
  std::vector<float> frames(2 * 16384, 0.1f);
  mix.write(0, frames.data(), int(target * fillShare));
  std::vector<float> l(480), r(480);
  double carry = 0;
  for (int i = 0; i < 3000; ++i) {
    mix.render(480, l.data(), r.data());
    // Top up to exactly what was taken, so the fill holds still.
    const auto f = mix.takeFigures(0);
    carry += f.ratio * 480;
    const int whole = int(carry);
    carry -= whole;
    mix.write(0, frames.data(), whole);
  }
  return mix.takeFigures(0).ratio;
}

TEST(AudioMix, DriftCorrectionFollowsTheFillAndIsHeldWithinThreeThousandths) {
  EXPECT_NEAR(settledRatio(1.0), 1.0, 0.0001);
  EXPECT_NEAR(settledRatio(1.1), 1.0002, 0.00005);
  EXPECT_NEAR(settledRatio(2.6), 1.003, 0.00005);
}

TEST(AudioMix, AnUnderrunSilencesTheSourceAndRaisesItsCushionForGood) {
  Mixer m;
  m.mix->setProgramSlot(1);
  m.feed(1, 0.3f, 1500);
  m.block();  // primed at 1440, then 1024 taken
  EXPECT_GT(m.lastStream(), 0.1f);
  m.block();  // 476 left: not enough
  EXPECT_EQ(m.lastStream(), 0.0f);
  auto figures = m.mix->takeFigures(0);
  EXPECT_EQ(figures.underruns, 1);
  EXPECT_EQ(figures.targetFill, 2160);
  m.feed(1, 0.3f, 2000);
  m.block();  // priming again, now to 2160
  EXPECT_EQ(m.lastStream(), 0.0f);
  m.feed(1, 0.3f, 8000);
  for (int i = 0; i < 3; ++i) m.block();
  EXPECT_EQ(m.mix->takeFigures(0).targetFill, 2160);  // never lowered
}

TEST(AudioMix, RenderingAllocatesNothing) {
  AudioMix mix;
  mix.setProgramSlot(1);
  std::vector<float> frames(2 * 4096, 0.25f), l(512), r(512);
  for (int i = 1; i <= 21; ++i) mix.write(i - 1, frames.data(), 4096);
  const long before = gAllocations;
  for (int i = 0; i < 100; ++i) {
    mix.render(512, l.data(), r.data());
    mix.renderProgram(512, l.data(), r.data());
    for (int s = 0; s < 21; ++s) mix.write(s, frames.data(), 512);
  }
  EXPECT_EQ(gAllocations, before);
}

TEST(AudioMix, AConsumerThatFallsAWholeRingBehindSkipsAheadAndIsCounted) {
  AudioMix mix;
  std::vector<float> l(4096), r(4096);
  for (int i = 0; i < 10; ++i) mix.render(4096, l.data(), r.data());  // 40960 frames
  std::vector<std::int64_t> at;
  mix.drain({[&](const std::vector<float>&, std::int64_t p) { at.push_back(p); }}, {});
  EXPECT_EQ(mix.busUnderruns(), 1);
  ASSERT_FALSE(at.empty());
  EXPECT_EQ(at.front(), 40960 - AudioMix::kBusFrames);
}

}  // namespace
}  // namespace qvn
