// Two simulated phones against the studio on loopback: the real signaling server, receiver
// sessions, frame hub and mix engine under the real studio model. Both pair, their pictures
// arrive at the rate they are sent, the first goes to Program by itself, and when one phone
// vanishes its slot empties and Program moves to the phone that is left. Then the shipped
// binary alone, as a user starts it: the PIN it prints pairs a phone that takes Program.
#include <gmock/gmock.h>

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <regex>
#include <thread>

#include "audio/audio_engine.h"
#include "phones/tcp_signaling_server.h"
#include "phones/webrtc_receiver_session.h"
#include "platform/files.h"
#include "studio/recording_hubs.h"
#include "testing/child_process.h"
#include "video/mix_engine.h"

namespace qvn::test {
namespace {

using namespace std::chrono_literals;

constexpr int kFps = 30;

// Counts the pictures stored in one slot, and notes when the first came.
struct SlotCounter {
  std::atomic<int> frames{0};
  std::atomic<double> firstAt{0};
  std::shared_ptr<PixelBufferView> view;
  std::shared_ptr<FrameWatcher> watcher;

  void watch(FrameHub& hub, int slot) {
    view = PixelBufferView::make([this](const PixelBufferRef&) {
      if (frames++ == 0) firstAt = monotonicTime();
    });
    watcher = std::make_shared<FrameWatcher>(FrameWatcher{view});
    hub.watch(slot, watcher);
  }
};

class PhonesEndToEnd : public StudioFixture {
 protected:
  PhonesEndToEnd() : work(makeTempDir("phones")) {
    frames = std::make_shared<FrameHub>();
    mix = MixEngine::make(frames);
    audio = AudioEngine::make();
    server = TCPSignalingServer::make(
        WebRTCReceiverSession::factory(PhoneSinks{
            .frames = frames,
            .noteIncoming = [engine = mix](int slot) { engine->noteIncoming(slot); },
            .sound = [engine = audio](int slot, const PCMView& pcm) { engine->ingest(slot, pcm); },
            .localAddress = "127.0.0.1",
        }),
        "127.0.0.1", 0);
    store->set("qvn.phones.enabled", true);
    StudioContext c = context();
    c.hubs.signaling = server;
    c.hubs.mix = mix;
    c.hubs.frames = frames;
    c.hubs.audio = audio;
    model = std::make_unique<CameraModel>(c);
    model->start();
  }
  ~PhonesEndToEnd() override {
    phones.clear();
    model.reset();
    server.reset();
    audio->addBusConsumer("stream", nullptr);
    mix->queue().sync([] {});
    std::filesystem::remove_all(work);
  }

  void addPhone(const std::string& name, const std::vector<std::string>& extra = {}) {
    const auto log = work / (name + ".log");
    std::vector<std::string> argv{QVN_PHONE_SIM,
                                  "--studio",
                                  "127.0.0.1:" + std::to_string(server->port()),
                                  "--name",
                                  name,
                                  "--size",
                                  "640x360",
                                  "--fps",
                                  std::to_string(kFps),
                                  "--loop",
                                  "--local-addr",
                                  "127.0.0.1",
                                  "--for",
                                  "60"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    phones.push_back(std::make_unique<ChildProcess>(argv, log, log));
  }
  // Runs the main queue until `done` holds (bounded, for liveness only).
  bool runUntil(const std::function<bool()>& done, double seconds = 20) {
    for (auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
         std::chrono::steady_clock::now() < until;) {
      if (done()) return true;
      main.drainWaiting(0.02);
    }
    return done();
  }
  // The stream bus's left channel, into `heard`.
  void listenToStream() {
    audio->addBusConsumer("stream", [this](const std::vector<float>& block, std::int64_t) {
      std::lock_guard hold(heardLock);
      heard.insert(heard.end(), block.begin(), block.begin() + long(block.size() / 2));
    });
  }
  std::string phoneLog(const std::string& name) {
    return readFile(work / (name + ".log")).value_or("");
  }

  std::filesystem::path work;
  std::shared_ptr<FrameHub> frames;
  std::shared_ptr<MixEngine> mix;
  std::shared_ptr<AudioEngine> audio;
  std::shared_ptr<TCPSignalingServer> server;
  std::vector<std::unique_ptr<ChildProcess>> phones;
  std::mutex heardLock;
  std::vector<float> heard;
};

TEST_F(PhonesEndToEnd, TwoPhonesPairStreamAndHandOverProgramWhenOneGoes) {
  SlotCounter first, second;
  first.watch(*frames, 1);
  second.watch(*frames, 2);

  addPhone("North");
  ASSERT_TRUE(runUntil([&] { return model->slots()[0].live; })) << phoneLog("North");
  const double paired = monotonicTime();
  ASSERT_TRUE(runUntil([&] { return first.frames > 0; })) << phoneLog("North");
  const double firstFrame = first.firstAt - paired;
  std::printf("first picture %.0f ms after pairing\n", firstFrame * 1000);
  EXPECT_LT(firstFrame, 3.0);
  // The first phone with a picture went to Program by itself.
  ASSERT_TRUE(runUntil([&] { return model->programSlot() == 1; }));
  EXPECT_EQ(model->slots()[0].title, "North");
  EXPECT_EQ(model->slots()[0].resolution, "SD");
  EXPECT_EQ(model->slots()[0].receivedWidth, 640);

  // Its tone is on air: the stream bus carries it at the level it was sent (-20 dBFS, 440 Hz),
  // less the 3 dB each side that the equal-power pan takes at the centre.
  listenToStream();
  runUntil([] { return false; }, 1.5);
  {
    std::lock_guard hold(heardLock);
    ASSERT_GT(heard.size(), 48000u);
    const std::vector<float> lastSecond(heard.end() - 48000, heard.end());
    float peak = 0;
    // The pitch from the typical spacing of rising crossings, which a late block of sound
    // on a loaded machine doesn't change.
    std::vector<double> periods;
    size_t lastRise = 0;
    for (size_t i = 1; i < lastSecond.size(); ++i) {
      peak = std::max(peak, std::fabs(lastSecond[i]));
      if (lastSecond[i - 1] >= 0 || lastSecond[i] < 0) continue;
      if (lastRise) periods.push_back(double(i - lastRise));
      lastRise = i;
    }
    EXPECT_NEAR(peak, 0.1f * std::sqrt(0.5f), 0.01f);
    ASSERT_GT(periods.size(), 100u);
    std::nth_element(periods.begin(), periods.begin() + long(periods.size() / 2), periods.end());
    EXPECT_NEAR(48000 / periods[periods.size() / 2], 440, 5);
  }

  // The second is held upright and starts small, as phones do, then climbs to its full size.
  addPhone("South", {"--portrait", "--climb"});
  ASSERT_TRUE(runUntil([&] { return model->slots()[1].live; })) << phoneLog("South");
  const double secondPaired = monotonicTime();
  ASSERT_TRUE(runUntil([&] { return second.frames > 0; })) << phoneLog("South");
  EXPECT_LT(second.firstAt - secondPaired, 3.0);
  EXPECT_EQ(model->slots()[1].title, "South");
  EXPECT_EQ(model->programSlot(), 1);
  EXPECT_EQ(frames->size(2), (FrameSize{180, 320}));
  ASSERT_TRUE(runUntil([&] { return frames->size(2) == FrameSize{360, 640}; }));
  const int afterClimb = second.frames;
  ASSERT_TRUE(runUntil([&] { return model->slots()[1].receivedHeight == 640; }));
  ASSERT_TRUE(runUntil([&] { return second.frames > afterClimb + kFps / 2; }));

  // Both phones' pictures keep coming at the rate they are sent.
  const int firstBefore = first.frames;
  const int secondBefore = second.frames;
  const double from = monotonicTime();
  runUntil([] { return false; }, 3.0);
  const double span = monotonicTime() - from;
  EXPECT_NEAR((first.frames - firstBefore) / span, kFps, kFps * 0.1) << "North";
  EXPECT_NEAR((second.frames - secondBefore) / span, kFps, kFps * 0.1) << "South";

  // The phone on Program vanishes: its slot empties and Program moves to the other one.
  phones[0]->stop(SIGKILL, 1);
  ASSERT_TRUE(runUntil([&] { return !model->slots()[0].live; }));
  EXPECT_FALSE(frames->hasFrame(1));
  ASSERT_TRUE(runUntil([&] { return model->programSlot() == 2; }));
  EXPECT_TRUE(model->slots()[1].live);
}

// What `pattern` (its first group, when it has one) first matches in what `studio` writes to
// `out`, waiting while it runs: at most a minute, for liveness on a busy machine.
std::optional<std::string> awaitLine(ChildProcess& studio, const std::filesystem::path& out,
                                     const std::regex& pattern) {
  for (auto until = std::chrono::steady_clock::now() + 60s;;) {
    const bool running = studio.running();
    const std::string text = readFile(out).value_or("");
    if (std::smatch found; std::regex_search(text, found, pattern))
      return found[found.size() > 1 ? 1 : 0].str();
    if (!running || std::chrono::steady_clock::now() > until) return std::nullopt;
    std::this_thread::sleep_for(100ms);
  }
}

TEST(PhonesHeadless, ThePrintedPinPairsAPhoneWhoseFirstPictureTakesProgram) {
  const auto work = makeTempDir("phones-headless");
  const std::string port = std::to_string(freeLoopbackPorts(1)[0]);
  const auto out = work / "studio.out";
  const auto phoneLog = work / "phone.log";
  ChildProcess studio({QVN_STUDIO, "--headless", "--data-root", (work / "data").string(),
                       "--api-base", "http://127.0.0.1:9", "--phones", "--phone-port", port,
                       "--phone-local-addr", "127.0.0.1", "--for", "15"},
                      out, work / "studio.err");
  auto logs = [&] { return readFile(out).value_or("") + readFile(phoneLog).value_or(""); };
  const auto pin =
      awaitLine(studio, out, std::regex("Ready on [^\\n]*:" + port + "  PIN ([0-9]{4})"));
  ASSERT_TRUE(pin) << logs();
  EXPECT_TRUE(awaitLine(studio, out, std::regex("Signaling ready: " + port))) << logs();
  ChildProcess phone({QVN_PHONE_SIM, "--studio", "127.0.0.1:" + port, "--pin", *pin, "--local-addr",
                      "127.0.0.1", "--loop", "--size", "1280x720", "--for", "10"},
                     phoneLog, phoneLog);
  EXPECT_TRUE(awaitLine(studio, out, std::regex("Cam 1 reserved for Sim Phone"))) << logs();
  EXPECT_TRUE(awaitLine(studio, out, std::regex("program ← input 1 \\(first picture\\)")))
      << logs();
  // It ends by itself, and cleanly.
  const auto status = studio.wait(60);
  ASSERT_TRUE(status) << "the studio outlived --for";
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << logs();
  phone.stop(SIGTERM, 5);
  std::filesystem::remove_all(work);
}

}  // namespace
}  // namespace qvn::test
