// The engine's control side without a sound server: sources by id, any format in, the
// meters it publishes, the routing of external inputs it keeps in the settings, and how bus
// consumers start it.
#include "audio/audio_engine.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "platform/defaults.h"
#include "platform/files.h"
#include "support/qvn_log.h"

namespace qvn {
namespace {

constexpr double kPi = 3.14159265358979;

// One source's unread frames, without reading any: a render of no frames only looks.
int ringFill(AudioEngine& engine, int id) {
  engine.mix().render(0, nullptr, nullptr);
  return engine.mix().takeFigures(AudioMix::indexOf(id)).fill;
}

// A tone of `hz` from second `start` on, at any rate, channels alike.
struct Tone {
  std::vector<std::int16_t> s16;
  std::vector<float> f32;
};
Tone tone(int rate, int channels, int frames, double hz, double start) {
  Tone t;
  for (int i = 0; i < frames; ++i) {
    const double v = 0.5 * std::sin(2 * kPi * hz * (start + double(i) / rate));
    for (int c = 0; c < channels; ++c) {
      t.s16.push_back(std::int16_t(v * 32767));
      t.f32.push_back(float(v));
    }
  }
  return t;
}

PCMView view(SampleFormat format, int rate, int channels, int frames, const void* samples) {
  PCMView pcm;
  pcm.format = format;
  pcm.rate = rate;
  pcm.channels = channels;
  pcm.frames = frames;
  pcm.planes[0] = samples;
  return pcm;
}

// 44.1 kHz mono 16-bit, as a capture card might deliver it.
TEST(AudioEngine, MonoAt44kArrivesAsStereoAtTheMixRateAndIsMetered) {
  auto engine = AudioEngine::make();
  engine->setProgramSlot(4);
  double at = 0;
  auto feed = [&](int frames) {
    const Tone t = tone(44100, 1, frames, 441, at);
    at += double(frames) / 44100;
    engine->ingest(4, view(SampleFormat::int16, 44100, 1, frames, t.s16.data()));
  };
  for (int block = 0; block < 10; ++block) feed(441);
  // 4410 frames in make 4800 out, less the few the resampler holds until more comes.
  const int fill = ringFill(*engine, 4);
  EXPECT_LE(fill, 4800);
  EXPECT_GE(fill, 4800 - 32);

  std::vector<float> l(480), r(480);
  for (int block = 0; block < 40; ++block) {
    feed(441);
    engine->mix().render(480, l.data(), r.data());
  }
  EXPECT_EQ(l, r);
  const QvnAudioSnapshot snap = engine->publishNow();
  ASSERT_EQ(snap.sources.size(), 2u);  // slot 4, and the first external always
  EXPECT_EQ(snap.sources[0].id, 4);
  EXPECT_EQ(snap.sources[0].name, "Source 4");
  EXPECT_TRUE(snap.sources[0].connected);
  EXPECT_GT(snap.sources[0].meter[0], 0.8f);  // about -9 dB
  EXPECT_EQ(snap.sources[0].underruns, 0u);
  EXPECT_EQ(snap.sources[1].id, 101);
  EXPECT_EQ(snap.sources[1].name, "External Audio 1");
  EXPECT_FALSE(snap.sources[1].connected);
  EXPECT_GT(snap.streamMeter.peak[0], 0.8f);
  EXPECT_EQ(snap.sampleTime, 40 * 480);

  engine->setSourceActive(false, 4);
  EXPECT_EQ(engine->publishNow().sources.size(), 1u);
}

// 44.1 kHz mono, then 32 kHz stereo planar, then the mix's own format: each change lets
// out what the old resampler held, so the ring holds every frame at 48 kHz, and a tone
// running through all three keeps its pitch.
TEST(AudioEngine, AChangeOfFormatMidStreamLosesNothing) {
  auto engine = AudioEngine::make();
  engine->setProgramSlot(2);
  const Tone a = tone(44100, 1, 4410, 1000, 0.0);
  engine->ingest(2, view(SampleFormat::int16, 44100, 1, 4410, a.s16.data()));
  const Tone b = tone(32000, 1, 3200, 1000, 0.1);
  PCMView planar = view(SampleFormat::float32, 32000, 2, 3200, b.f32.data());
  planar.interleaved = false;
  planar.planes[1] = b.f32.data();
  engine->ingest(2, planar);
  const Tone c = tone(48000, 2, 480, 1000, 0.2);
  engine->ingest(2, view(SampleFormat::float32, 48000, 2, 480, c.f32.data()));

  const int fill = ringFill(*engine, 2);
  EXPECT_NEAR(fill, 4800 + 4800 + 480, 2);

  std::vector<float> left, l(480), r(480);
  for (int played = 0; played + 480 <= fill - 480; played += 480) {
    engine->mix().render(480, l.data(), r.data());
    left.insert(left.end(), l.begin(), l.end());
  }
  long crossings = 0;
  for (size_t i = 1; i < left.size(); ++i) crossings += (left[i - 1] < 0) != (left[i] < 0);
  // The drift correction may speed it up by 0.3 % at most.
  EXPECT_NEAR(crossings / 2.0 / (double(left.size()) / 48000), 1000, 5);
}

TEST(AudioEngine, MeterLevelsRunFromMinusSixtyDecibelsToFullScale) {
  EXPECT_EQ(meterLevel(0), 0.0f);
  EXPECT_EQ(meterLevel(0.0009f), 0.0f);  // below -60 dB
  EXPECT_NEAR(meterLevel(0.1f), 40.0f / 60, 1e-5);
  EXPECT_EQ(meterLevel(2.0f), 1.0f);
  EXPECT_EQ(decibels(0), -120.0f);
}

class Meters final : public QvnMeterBus {
 public:
  void push(int id, std::vector<float> levels) override { pushed.emplace_back(id, levels); }
  void pushMaster(std::vector<float> levels) override { master.push_back(levels); }
  void pushMix(std::vector<float>) override {}
  void clear(int) override {}
  std::vector<std::pair<int, std::vector<float>>> pushed;
  std::vector<std::vector<float>> master;
};

TEST(AudioEngine, PublishesFromATenthOfASecondOnFifteenTimesASecondToTheMeters) {
  ManualMainQueue main;
  auto engine = AudioEngine::make();
  auto meters = std::make_shared<Meters>();
  int snapshots = 0;
  engine->startPublishing(main, meters, [&](const QvnAudioSnapshot&) { ++snapshots; });
  engine->setProgramSlot(3);
  const Tone t = tone(48000, 2, 4800, 1000, 0);
  engine->ingest(3, view(SampleFormat::float32, 48000, 2, 4800, t.f32.data()));
  std::vector<float> l(480), r(480);
  for (int block = 0; block < 8; ++block) engine->mix().render(480, l.data(), r.data());

  main.advance(0.095);
  EXPECT_EQ(snapshots, 0);
  main.advance(0.01);
  ASSERT_EQ(snapshots, 1);
  ASSERT_EQ(meters->pushed.size(), 2u);  // slot 3 and the first external, in id order
  EXPECT_EQ(meters->pushed[0].first, 3);
  EXPECT_GT(meters->pushed[0].second.at(1), 0.8f);
  EXPECT_EQ(meters->pushed[1].first, 101);
  ASSERT_EQ(meters->master.size(), 1u);
  EXPECT_GT(meters->master[0].at(0), 0.8f);  // the stream bus carries the slot on air

  main.advance(1.0);  // ticks at 0.1 s + n/15 up to 1.105 s
  EXPECT_EQ(snapshots, 16);
  // A drain on the bus queue may hold the engine a moment past its owner's release; once it
  // is gone, its meters stop.
  const std::weak_ptr<AudioEngine> gone = engine;
  engine.reset();
  for (int i = 0; i < 5000 && !gone.expired(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_TRUE(gone.expired());
  main.advance(1.0);
  EXPECT_EQ(snapshots, 16);
}

// With no sound server it runs on its own clock and says so.
TEST(AudioEngine, ABusConsumerStartsTheEngineAndLeavingDoesNotStopIt) {
  const auto root = std::filesystem::temp_directory_path() / "qvn-audio-consumers";
  std::filesystem::remove_all(root);
  const AppPaths saved = appPaths();
  setAppPaths(AppPaths::underRoot(root));
  ::setenv("PULSE_SERVER", ("unix:" + (root / "no-server").string()).c_str(), 1);
  {
    auto engine = AudioEngine::make();
    EXPECT_FALSE(engine->isRunning());
    engine->addBusConsumer("publisher", [](const std::vector<float>&, std::int64_t) {});
    EXPECT_TRUE(engine->isRunning());
    engine->addBusConsumer("publisher", nullptr);
    EXPECT_TRUE(engine->isRunning());
  }
  QvnLog::flush();
  const std::string log = readFile(appPaths().logFile()).value_or("");
  const size_t failed = log.find("audio engine start failed: ");
  EXPECT_NE(failed, std::string::npos) << log;
  EXPECT_NE(log.find("audio engine running 48k stereo hw=48000Hz/2ch", failed), std::string::npos)
      << log;
  ::unsetenv("PULSE_SERVER");
  setAppPaths(saved);
  std::filesystem::remove_all(root);
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
