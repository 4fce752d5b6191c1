// The publisher's own rules, and the publisher with a canned encoder against a scripted
// ingest on loopback: what goes out first, what waits, a lost ingest found again or given
// up after five tries, and stop.
#include <gmock/gmock.h>

#include <thread>

#include "audio/audio_engine.h"
#include "golive/canned_encoder.h"
#include "golive/go_live_format.h"
#include "golive/rtmp_publisher.h"
#include "golive/scripted_server.h"
#include "platform/pixel_convert.h"
#include "video/frame_hub.h"

// The sound server's client library is built without the race detector; the engine asks it
// for a server once, and its own locking is invisible to the detector.
extern "C" const char* __tsan_default_suppressions() {
  return "race:libpulse.so\nrace:libpulsecommon\n";
}

namespace qvn::test {
namespace {

using namespace std::chrono_literals;

TEST(PublisherRules, TimestampsStartAtTheFirstPictureAndRoundHalvesAway) {
  EXPECT_EQ(RTMPPublisher::videoMilliseconds(2.5, 2.5), 0u);
  EXPECT_EQ(RTMPPublisher::videoMilliseconds(2.5005, 2.5), 1u);
  EXPECT_EQ(RTMPPublisher::videoMilliseconds(2.4, 2.5), 0u);  // never before zero
  // Audio counts frames from the origin taken at start, less the first picture's time.
  EXPECT_EQ(RTMPPublisher::audioMilliseconds(1000 + 48000, 1000, 0.5), 500u);
  EXPECT_EQ(RTMPPublisher::audioMilliseconds(1000 + 24, 1000, 0), 1u);  // 0.5 ms
  EXPECT_EQ(RTMPPublisher::audioMilliseconds(1000, 1000, 0.25), 0u);    // older than the picture
}

TEST(PublisherRules, APictureThatWouldNotAdvanceGoesAndWhatDependsOnItWaitsForAKeyframe) {
  using Gate = RTMPPublisher::VideoGate;
  auto gate = [](std::optional<std::uint32_t> last, std::uint32_t ms, bool key, bool waiting,
                 bool backlogged = false) {
    const Gate g = RTMPPublisher::videoGate(last, ms, key, waiting, backlogged);
    return std::pair{g.send, g.waitForKeyframe};
  };
  EXPECT_EQ(gate(std::nullopt, 0, true, false), (std::pair{true, false}));
  EXPECT_EQ(gate(33, 33, false, false), (std::pair{false, false}));  // same millisecond
  EXPECT_EQ(gate(33, 20, false, false), (std::pair{false, false}));  // earlier
  EXPECT_EQ(gate(33, 33, true, false), (std::pair{false, true}));    // a lost keyframe
  EXPECT_EQ(gate(33, 66, false, true), (std::pair{false, true}));    // so this waits
  EXPECT_EQ(gate(33, 66, true, true), (std::pair{true, false}));     // until the next
  // A backlog costs inter frames, never a keyframe.
  EXPECT_EQ(gate(33, 66, false, false, true), (std::pair{false, true}));
  EXPECT_EQ(gate(33, 66, true, false, true), (std::pair{true, false}));
}

TEST(PublisherRules, SizeBitrateAndReconnectWaitsKeepToTheirLimits) {
  StreamConfig config;
  config.width = 1279;
  config.height = 721;
  EXPECT_EQ(GoLiveFormat::outputSize(config, {1920, 1080}, std::nullopt), (std::pair{1278, 720}));
  config.width = 3840;
  config.height = 2160;
  EXPECT_EQ(GoLiveFormat::outputSize(config, {1920, 1080}, std::nullopt), (std::pair{1920, 1080}));
  EXPECT_EQ(GoLiveFormat::outputSize(config, {1920, 1080}, std::pair{1280, 720}),
            (std::pair{1280, 720}));
  // Five reconnects with a doubling wait; the sixth loss is fatal.
  for (int attempt = 1; attempt <= 5; ++attempt)
    EXPECT_EQ(RTMPPublisher::reconnectDelay(attempt), double(1 << (attempt - 1)));
  EXPECT_EQ(RTMPPublisher::reconnectDelay(6), std::nullopt);
  // A chosen 720p stream is held to 4 Mb/s; the canvas as it is keeps what it was given.
  EXPECT_EQ(RTMPPublisher::bitrateFor(6'000'000, 720, true), 4'000'000);
  EXPECT_EQ(RTMPPublisher::bitrateFor(6'000'000, 720, false), 6'000'000);
  EXPECT_EQ(RTMPPublisher::bitrateFor(6'000'000, 1080, true), 6'000'000);
}

// A grey picture whose luma names it.
PixelBufferRef grey(std::uint8_t level) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, 64, 36);
  for (int y = 0; y < 36; ++y)
    for (int x = 0; x < 64; ++x) {
      std::uint8_t* p = picture->bgraAt(x, y);
      p[0] = p[1] = p[2] = level;
      p[3] = 255;
    }
  return picture;
}

class PublisherSession : public ::testing::Test {
 protected:
  PublisherSession() {
    frames = std::make_shared<FrameHub>();
    audio = AudioEngine::make();
    publisher = RTMPPublisher::make(
        {frames, audio,
         [] {
           return std::pair{64, 36};
         },
         [log = log](const H264Settings&, std::string&) -> std::unique_ptr<VideoEncoder> {
           return std::make_unique<CannedVideoEncoder>(log, 30);
         },
         [this](int attempt) {
           auto wait = RTMPPublisher::reconnectDelay(attempt);
           if (wait) *wait *= waitScale;
           return wait;
         }});
    publisher->onPublished = [this] { ++published; };
    publisher->onReconnecting = [this] { ++reconnecting; };
    publisher->onFatal = [this](const std::string&) { ++fatal; };
    StreamConfig config;
    config.width = 64;
    config.height = 36;
    EXPECT_TRUE(publisher->start("rtmp://127.0.0.1:" + std::to_string(peer.port()) + "/live", "key",
                                 0, config));
  }
  ~PublisherSession() override { publisher.reset(); }

  // The ingest's side of one connection, up to an accepted publish.
  void acceptPublish(Server& server) {
    ASSERT_TRUE(peer.accept());
    server.handshake();
    ASSERT_EQ(server.nextCommand(), "connect");
    server.command(result(1));
    ASSERT_EQ(server.nextCommand(), "createStream");
    server.command(result(2, 1));
    ASSERT_EQ(server.nextCommand(), "publish");
    const int before = published;
    server.command(status("NetStream.Publish.Start"), 5);
    // Pictures before the publisher hears of it would be let go, as they are on air.
    for (int i = 0; i < 500 && published == before; ++i) std::this_thread::sleep_for(10ms);
    ASSERT_EQ(published, before + 1);
  }
  // The next media message.
  RTMPMessage nextMedia(Server& server) {
    RTMPMessage m = server.next();
    while (m.type != 8 && m.type != 9 && !m.body.empty()) m = server.next();
    return m;
  }

  std::shared_ptr<CannedLog> log = std::make_shared<CannedLog>();
  ScriptedPeer peer;
  std::shared_ptr<FrameHub> frames;
  std::shared_ptr<AudioEngine> audio;
  std::shared_ptr<RTMPPublisher> publisher;
  std::atomic<int> published{0}, reconnecting{0}, fatal{0};
  std::atomic<double> waitScale{1.0};
};

TEST_F(PublisherSession, HeadersGoFirstAndSoundWaitsForThePicture) {
  Server server(peer);
  acceptPublish(server);
  // The sound bus runs from the start; nothing but its header may leave before a picture.
  RTMPMessage first = nextMedia(server);
  EXPECT_EQ(first.type, 8);
  EXPECT_EQ(first.body, (Bytes{0xAF, 0x00, 0x11, 0x90}));
  std::this_thread::sleep_for(300ms);
  frames->ingestMix(grey(120));
  // No sound before this: the picture's header is next, then its keyframe at time zero
  // among the sound that waited for it.
  RTMPMessage video = nextMedia(server);
  ASSERT_EQ(video.type, 9);
  EXPECT_EQ(Bytes(video.body.begin(), video.body.begin() + 2), (Bytes{0x17, 0x00}));
  int waited = 0;
  for (RTMPMessage m = nextMedia(server); !m.body.empty(); m = nextMedia(server)) {
    if (m.type == 8) {
      EXPECT_EQ(m.body[1], 0x01);
      ++waited;
      continue;
    }
    EXPECT_EQ(Bytes(m.body.begin(), m.body.begin() + 2), (Bytes{0x17, 0x01}));
    EXPECT_EQ(m.timestamp, 0u);
    break;
  }
  EXPECT_GT(waited, 5);  // 300 ms of sound, less the encoder's first packet
  EXPECT_EQ(published, 1);
}

TEST_F(PublisherSession, ALostIngestIsFoundAgainAndHearsTheHeadersFirst) {
  {
    Server server(peer);
    acceptPublish(server);
    frames->ingestMix(grey(100));
    for (RTMPMessage m = nextMedia(server); !m.body.empty() && (m.type != 9 || m.body[1] != 1);)
      m = nextMedia(server);
    peer.closeClient();  // the ingest goes
  }
  // A second after the loss, a new connection; its first picture message is the header,
  // and pictures go on as they come, without waiting for a keyframe.
  Server again(peer);
  acceptPublish(again);
  frames->ingestMix(grey(101));
  RTMPMessage m = nextMedia(again);
  while (m.type != 9 && !m.body.empty()) m = nextMedia(again);
  ASSERT_FALSE(m.body.empty());
  EXPECT_EQ(Bytes(m.body.begin(), m.body.begin() + 2), (Bytes{0x17, 0x00}));
  frames->ingestMix(grey(102));
  m = nextMedia(again);
  while (m.type != 9 && !m.body.empty()) m = nextMedia(again);
  ASSERT_FALSE(m.body.empty());
  EXPECT_EQ(m.body[0], 0x27);  // an inter frame
  auto sample = publisher->latestSample();
  // The second's sample counts the reconnect, and a stream on air again.
  for (int i = 0; i < 300 && (!sample || !sample->publishing); ++i) {
    std::this_thread::sleep_for(10ms);
    sample = publisher->latestSample();
  }
  ASSERT_TRUE(sample && sample->publishing);
  EXPECT_EQ(sample->reconnects, 1);
  EXPECT_GT(sample->sentBytes, 0);
}

TEST_F(PublisherSession, SixLossesInARowAreFatalOnceAfterFiveReconnectsThatWaitLongerEachTime) {
  waitScale = 0.05;  // the waits' shape, at a twentieth of their length
  {
    Server server(peer);
    acceptPublish(server);
    peer.closeClient();  // lost while on air
  }
  // Each reconnect is lost again before it publishes, so the count never starts over.
  for (int attempt = 1; attempt <= RTMPPublisher::kMostReconnects; ++attempt) {
    const auto lost = std::chrono::steady_clock::now();
    ASSERT_TRUE(peer.accept(20000)) << "reconnect " << attempt;
    EXPECT_GE(std::chrono::duration<double>(std::chrono::steady_clock::now() - lost).count(),
              *RTMPPublisher::reconnectDelay(attempt) * waitScale);
    EXPECT_EQ(reconnecting, attempt);
    EXPECT_EQ(fatal, 0);
    peer.closeClient();
  }
  for (int i = 0; i < 500 && fatal == 0; ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(fatal, 1);
  EXPECT_FALSE(peer.accept(1000));  // nothing opens after the sixth loss
  EXPECT_EQ(fatal, 1);
  EXPECT_EQ(reconnecting, RTMPPublisher::kMostReconnects);
}

TEST_F(PublisherSession, StopDuringTheWaitForAReconnectOpensNothing) {
  {
    Server server(peer);
    acceptPublish(server);
    nextMedia(server);
    peer.closeClient();
  }
  std::this_thread::sleep_for(200ms);  // the loss is noticed; the retry is a second away
  publisher->stop();
  EXPECT_FALSE(peer.accept(2000));
}

TEST_F(PublisherSession, ACloggedIngestCostsInterFramesAndAKeyframeResumesThePicture) {
  Server server(peer);
  acceptPublish(server);
  log->packetBytes = 700'000;
  // The ingest reads nothing: the queue passes 2 MiB and inter frames are let go.
  auto sample = publisher->latestSample();
  for (int i = 0; i < 100 && !(sample && sample->networkDrops > 0); ++i) {
    frames->ingestMix(grey(std::uint8_t(50 + i)));
    std::this_thread::sleep_for(40ms);
    sample = publisher->latestSample();
  }
  ASSERT_TRUE(sample && sample->networkDrops > 0);
  // The ingest catches up; once the backlog is gone a keyframe is asked for at once.
  log->packetBytes = 200;
  bool forced = false;
  for (int i = 0; i < 200 && !forced; ++i) {
    peer.readAvailable(20);
    frames->ingestMix(grey(std::uint8_t(i)));
    std::this_thread::sleep_for(20ms);
    std::lock_guard hold(log->lock);
    forced = std::ranges::find(log->forced, true) != log->forced.end();
  }
  EXPECT_TRUE(forced);
}

// The luma the encoder sees of a grey picture.
int markOf(std::uint8_t level) {
  auto i420 = PixelBuffer::make(PixelFormat::i420, 64, 36);
  bgraToI420(*grey(level), *i420);
  return i420->data(0)[0];
}

TEST_F(PublisherSession, OnlyTheNewestPictureWaitsAndTheBitrateHasAFloor) {
  Server server(peer);
  acceptPublish(server);
  publisher->setLiveBitrate(100'000);
  {
    std::unique_lock held(log->gate);  // the encoder waits on its first picture
    for (std::uint8_t level : {10, 20, 30, 40}) {
      frames->ingestMix(grey(level));
      std::this_thread::sleep_for(20ms);
    }
  }
  for (int i = 0; i < 200; ++i) {
    {
      std::lock_guard hold(log->lock);
      if (!log->pictures.empty() && log->pictures.back() == markOf(40)) break;
    }
    std::this_thread::sleep_for(10ms);
  }
  std::lock_guard hold(log->lock);
  // The first, which was already with the encoder, and the newest: those in between went.
  EXPECT_THAT(log->pictures, ::testing::ElementsAre(markOf(10), markOf(40)));
  EXPECT_THAT(log->bitrates, ::testing::ElementsAre(250'000));
}

}  // namespace
}  // namespace qvn::test
