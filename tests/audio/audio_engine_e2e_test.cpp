// The engine against a real sound server: a user-mode PulseAudio with a null sink, started
// and stopped here. A tone on Program plays to the sink, and the sink's monitor, recorded
// with parec, carries it at the right pitch and level without a recurring gap; the stream bus
// carries it too.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <signal.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "audio/audio_engine.h"
#include "platform/files.h"
#include "support/qvn_log.h"
#include "testing/child_process.h"

// The sound server's client library is built without the race detector; its own locking
// is invisible to it.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libpulse.so\nrace:libpulsecommon\n";
}

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
constexpr double kPi = 3.14159265358979;

class SoundServer {
 public:
  // One output, "qvn_null", whose device format is `sink`.
  explicit SoundServer(const std::string& sink = "format=float32le rate=48000 channels=2")
      : dir_(makeTempDir("pulse")) {
    std::ofstream(dir_ / "default.pa")
        << "load-module module-native-protocol-unix socket=" << (dir_ / "native").string()
        << " auth-anonymous=1\n"
        << "load-module module-null-sink sink_name=qvn_null " << sink << "\n"
        << "set-default-sink qvn_null\n";
    ::setenv("HOME", dir_.c_str(), 1);
    ::setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
    ::setenv("PULSE_SERVER", ("unix:" + (dir_ / "native").string()).c_str(), 1);
    const std::string pulseaudio = findProgram("pulseaudio");
    if (pulseaudio.empty()) throw std::runtime_error("pulseaudio is missing: run scripts/setup");
    server_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{pulseaudio, "-n", "--daemonize=no", "--exit-idle-time=-1",
                                 "--use-pid-file=no", "-F", (dir_ / "default.pa").string()},
        dir_ / "out.log", dir_ / "err.log");
    for (int i = 0; i < 500 && !fs::exists(dir_ / "native"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ~SoundServer() {
    server_.reset();  // ends exactly that process
    if (!::getenv("QVN_KEEP")) fs::remove_all(dir_);
  }
  const fs::path& dir() const { return dir_; }

 private:
  fs::path dir_;
  std::unique_ptr<ChildProcess> server_;
};

// Feeds a sine at real-time pace into a slot from its own thread, as a capture would.
class Tone {
 public:
  Tone(AudioEngine& engine, int slot, double hz, float amplitude)
      : thread_([&engine, slot, hz, amplitude, this] {
          std::vector<float> block(2 * 480);
          long long n = 0;
          auto next = std::chrono::steady_clock::now();
          while (!stop_) {
            for (int i = 0; i < 480; ++i, ++n)
              block[2 * size_t(i)] = block[2 * size_t(i) + 1] =
                  amplitude * float(std::sin(2 * kPi * hz * double(n) / 48000));
            PCMView pcm;
            pcm.frames = 480;
            pcm.planes[0] = block.data();
            engine.ingest(slot, pcm);
            next += std::chrono::milliseconds(10);
            std::this_thread::sleep_until(next);
          }
        }) {}
  ~Tone() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// Crossings per second / 2 is the pitch; the RMS of each 10 ms window shows level and gaps.
struct Analysis {
  double hz = 0, rms = 0;
  int quietWindows = 0;
};
Analysis analyse(const std::vector<float>& left, double expectedRms) {
  Analysis a;
  long crossings = 0;
  double sum = 0;
  for (size_t i = 1; i < left.size(); ++i) {
    if ((left[i - 1] < 0) != (left[i] < 0)) ++crossings;
    sum += double(left[i]) * left[i];
  }
  a.hz = crossings / 2.0 / (double(left.size()) / 48000);
  a.rms = std::sqrt(sum / double(left.size()));
  for (size_t start = 0; start + 480 <= left.size(); start += 480) {
    double w = 0;
    for (size_t i = start; i < start + 480; ++i) w += double(left[i]) * left[i];
    if (std::sqrt(w / 480) <= expectedRms * 0.8) ++a.quietWindows;
  }
  return a;
}

TEST(AudioEngineOnASoundServer, AToneOnProgramPlaysWithoutAGapAndReachesTheStreamBus) {
  SoundServer server;
  const AppPaths saved = appPaths();
  setAppPaths(AppPaths::underRoot(server.dir()));
  auto engine = AudioEngine::make();
  engine->setProgramSlot(1);
  std::mutex lock;
  std::vector<float> streamLeft;
  engine->addBusConsumer("publisher", [&](const std::vector<float>& block, std::int64_t) {
    std::lock_guard guard(lock);
    streamLeft.insert(streamLeft.end(), block.begin(), block.begin() + AudioMix::kConsumerBlock);
  });
  ASSERT_TRUE(engine->isRunning());
  Tone tone(*engine, 1, 1000, 0.5f);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // past priming

  const std::string parec = findProgram("parec");
  ASSERT_FALSE(parec.empty()) << "parec is missing: run scripts/setup";
  const double expected = 0.5 * 0.70710677 / std::sqrt(2.0);  // centre pan, sine RMS
  // What the server played, from its monitor source. A machine that stalls our threads (or
  // the tone's, or the server's) for a moment leaves one short hole, and a take with one
  // gets another, up to three; a gap of the engine's own recurs, in every take.
  auto recordTake = [&](int take) -> std::optional<Analysis> {
    const fs::path raw = server.dir() / ("rec" + std::to_string(take) + ".raw");
    const fs::path err = server.dir() / ("rec" + std::to_string(take) + ".err");
    {
      ChildProcess recorder({parec, "-d", "qvn_null.monitor", "--format=float32le", "--rate=48000",
                             "--channels=2", "--raw", "--latency-msec=20"},
                            raw, err);
      // The monitor source takes a moment to start delivering; a second and a half of
      // sound is plenty once it does.
      for (int i = 0; i < 500 && fs::file_size(raw) < 48000 * 8 * 3 / 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      recorder.stop(SIGINT, 5);
    }
    std::ifstream file(raw, std::ios::binary);
    const std::string recorded((std::istreambuf_iterator<char>(file)), {});
    std::vector<float> samples(recorded.size() / sizeof(float));
    std::memcpy(samples.data(), recorded.data(), samples.size() * sizeof(float));
    std::ifstream errors(err);
    const std::string why((std::istreambuf_iterator<char>(errors)), {});
    EXPECT_GT(samples.size(), 2u * 24000) << "parec recorded nothing: " << why;
    if (samples.size() <= 2u * 24000) return std::nullopt;
    std::vector<float> left;
    for (size_t i = 4800 * 2; i + 1 < samples.size(); i += 2) left.push_back(samples[i]);
    return analyse(left, expected);
  };
  std::optional<Analysis> played = recordTake(1);
  ASSERT_TRUE(played);
  for (int take = 2; take <= 3 && played->quietWindows > 0; ++take) {
    const std::optional<Analysis> again = recordTake(take);
    ASSERT_TRUE(again);
    if (again->quietWindows < played->quietWindows) played = again;
  }
  EXPECT_NEAR(played->hz, 1000, 10);
  EXPECT_NEAR(played->rms, expected, expected * 0.05);
  EXPECT_LE(played->quietWindows, 2);  // at most one stall's hole, never a recurring one

  std::vector<float> stream;
  {
    std::lock_guard guard(lock);
    stream = streamLeft;
  }
  ASSERT_GT(stream.size(), 48000u);
  const Analysis sent = analyse(std::vector<float>(stream.end() - 24000, stream.end()), expected);
  EXPECT_NEAR(sent.hz, 1000, 10);
  EXPECT_NEAR(sent.rms, expected, expected * 0.05);

  // A new output on the server is heard; ours plays on.
  const auto added =
      runProgram({findProgram("pactl"), "load-module", "module-null-sink", "sink_name=qvn_other"},
                 10, server.dir());
  ASSERT_TRUE(added.succeeded()) << added.describe();
  std::string log;
  for (int i = 0; i < 200 && log.find("configuration change") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    QvnLog::flush();
    log = readFile(appPaths().logFile()).value_or("");
  }
  EXPECT_NE(log.find("audio engine configuration change — still running"), std::string::npos);
  EXPECT_TRUE(engine->isRunning());
  engine->addBusConsumer("publisher", nullptr);
  setAppPaths(saved);
}

// The studio says what its monitor plays on: the device's own format on a server, the
// engine's own clock after a failed start without one.
TEST(AudioEngineOnASoundServer, TheHeadlessStudioLogsTheDeviceItRunsOn) {
  const fs::path work = makeTempDir("studio-audio");
  auto studioLog = [&](const std::string& name) {
    ChildProcess studio({QVN_STUDIO, "--headless", "--data-root", (work / name).string(),
                         "--api-base", "http://127.0.0.1:9", "--for", "3"},
                        work / (name + ".out"), work / (name + ".err"));
    EXPECT_TRUE(studio.wait(60)) << name << " did not end";
    return readFile(work / (name + ".out")).value_or("");
  };

  ::setenv("HOME", work.c_str(), 1);  // whatever caches it keeps stay in here
  ::setenv("PULSE_SERVER", ("unix:" + (work / "nothing-here").string()).c_str(), 1);
  const std::string alone = studioLog("alone");
  const size_t failed = alone.find("audio engine start failed: ");
  ASSERT_NE(failed, std::string::npos) << alone;
  EXPECT_NE(alone.find("audio engine running 48k stereo hw=48000Hz/2ch", failed), std::string::npos)
      << alone;

  {
    // A mono output: our stream is stereo whatever the device is. (Its rate tells nothing:
    // the server moves an idle output to 48 kHz for a 48 kHz stream.)
    SoundServer server("format=s16le rate=48000 channels=1");
    const std::string played = studioLog("played");
    EXPECT_EQ(played.find("audio engine start failed"), std::string::npos) << played;
    EXPECT_NE(played.find("audio engine running 48k stereo hw=48000Hz/1ch"), std::string::npos)
        << played;
  }
  if (!::getenv("QVN_KEEP")) fs::remove_all(work);
}

}  // namespace
}  // namespace qvn::test
