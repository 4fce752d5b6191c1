// The engine's control side without a sound server: sources by id, any format in, the
// meters it publishes and the routing of external inputs it keeps in the settings.
#include "audio/audio_engine.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <vector>

#include "platform/defaults.h"

namespace qvn {
namespace {

// A 44.1 kHz mono 16-bit tone, as a capture card might deliver it.
std::vector<std::int16_t> monoTone(int frames, double hz, double start) {
  std::vector<std::int16_t> samples(static_cast<size_t>(frames));
  for (int i = 0; i < frames; ++i)
    samples[size_t(i)] = std::int16_t(16000 * std::sin(2 * 3.14159265 * hz * (start + i) / 44100));
  return samples;
}

TEST(AudioEngine, AnyFormatArrivesAsStereoAtTheMixRateAndIsMetered) {
  auto engine = AudioEngine::make();
  engine->setProgramSlot(4);
  std::vector<float> l(480), r(480);
  double at = 0;
  for (int block = 0; block < 40; ++block) {
    auto tone = monoTone(441, 441, at);
    at += 441;
    PCMView pcm;
    pcm.format = SampleFormat::int16;
    pcm.rate = 44100;
    pcm.channels = 1;
    pcm.frames = 441;
    pcm.planes[0] = tone.data();
    engine->ingest(4, pcm);
    if (block == 20) {  // the format changes mid-stream: the ring goes on without a gap
      std::vector<float> stereo(2 * 480, 0.25f);
      PCMView f;
      f.frames = 480;
      f.planes[0] = stereo.data();
      engine->ingest(4, f);
    }
    engine->mix().render(480, l.data(), r.data());
  }
  EXPECT_EQ(l, r);  // mono in: both channels alike
  const QvnAudioSnapshot snap = engine->publishNow();
  ASSERT_EQ(snap.sources.size(), 2u);  // slot 4, and the first external always
  EXPECT_EQ(snap.sources[0].id, 4);
  EXPECT_EQ(snap.sources[0].name, "Source 4");
  EXPECT_TRUE(snap.sources[0].connected);
  EXPECT_GT(snap.sources[0].meter[0], 0.8f);  // about -6 dB
  EXPECT_EQ(snap.sources[0].underruns, 0u);
  EXPECT_EQ(snap.sources[1].id, 101);
  EXPECT_EQ(snap.sources[1].name, "External Audio 1");
  EXPECT_FALSE(snap.sources[1].connected);
  EXPECT_GT(snap.streamMeter.peak[0], 0.8f);
  EXPECT_EQ(snap.sampleTime, 40 * 480);

  engine->setSourceActive(false, 4);
  EXPECT_EQ(engine->publishNow().sources.size(), 1u);
}

TEST(AudioEngine, MeterLevelsRunFromMinusSixtyDecibelsToFullScale) {
  EXPECT_EQ(meterLevel(0), 0.0f);
  EXPECT_EQ(meterLevel(0.0009f), 0.0f);  // below -60 dB
  EXPECT_NEAR(meterLevel(0.1f), 40.0f / 60, 1e-5);
  EXPECT_EQ(meterLevel(2.0f), 1.0f);
  EXPECT_EQ(decibels(0), -120.0f);
}

TEST(AudioEngine, ExternalInputsRideWithTheSlotsTheyAreTickedFor) {
  const auto file = std::filesystem::temp_directory_path() / "qvn-audio-routing.json";
  std::filesystem::remove(file);
  {
    Defaults settings(file);
    auto engine = AudioEngine::make();
    engine->attachSettings(settings);
    engine->setAccompany(true, 102, 3);
    engine->setAccompany(true, 102, 5);
    engine->setAccompany(true, 102, 17);  // no such slot
    EXPECT_TRUE(engine->accompanies(102, 3));
    EXPECT_FALSE(engine->accompanies(102, 4));
    engine->setAccompany(false, 102, 5);
    ASSERT_TRUE(settings.synchronize());
  }
  Defaults settings(file);
  auto engine = AudioEngine::make();
  engine->attachSettings(settings);
  EXPECT_TRUE(engine->accompanies(102, 3));
  EXPECT_FALSE(engine->accompanies(102, 5));
  engine->clearAccompany(102);
  EXPECT_FALSE(engine->accompanies(102, 3));
  std::filesystem::remove(file);
}

}  // namespace
}  // namespace qvn
