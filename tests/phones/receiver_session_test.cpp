// The receiver session's own rules, its audio tap, and a refused offer on the real stack.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdint>
#include <future>

#include "phones/phone_audio_tap.h"
#include "phones/webrtc_receiver_session.h"
#include "platform/dispatch.h"

namespace qvn {
namespace {

using ::testing::ElementsAre;
using ::testing::FloatNear;

TEST(ReceiverRules, LabelsFollowTheLongerSideOfTheFrameAsItArrived) {
  EXPECT_EQ(WebRTCReceiverSession::labelFor(1099, 600), "SD");
  EXPECT_EQ(WebRTCReceiverSession::labelFor(1100, 600), "HD");
  EXPECT_EQ(WebRTCReceiverSession::labelFor(1280, 720), "HD");
  EXPECT_EQ(WebRTCReceiverSession::labelFor(1600, 900), "FHD");
  EXPECT_EQ(WebRTCReceiverSession::labelFor(1080, 1920), "FHD");  // portrait
  EXPECT_EQ(WebRTCReceiverSession::labelFor(3840, 2160), "4K");
  EXPECT_EQ(WebRTCReceiverSession::labelFor(2160, 1000), "4K");
}

TEST(ReceiverRules, PicturesAreBoundByTheCanvasWithinHDAndUHD) {
  EXPECT_EQ(WebRTCReceiverSession::sizeBound(1280), 1920);
  EXPECT_EQ(WebRTCReceiverSession::sizeBound(1920), 1920);
  EXPECT_EQ(WebRTCReceiverSession::sizeBound(2560), 2560);
  EXPECT_EQ(WebRTCReceiverSession::sizeBound(3840), 3840);
  EXPECT_EQ(WebRTCReceiverSession::sizeBound(4096), 3840);
}

TEST(ReceiverRules, OnlyHostCandidatesPassAndTheWatchdogStopsAfterAMinute) {
  EXPECT_TRUE(WebRTCReceiverSession::isHostCandidate(
      "candidate:1 1 UDP 2015363327 127.0.0.1 40000 typ host"));
  EXPECT_FALSE(WebRTCReceiverSession::isHostCandidate(
      "candidate:2 1 UDP 1015363327 203.0.113.9 40000 typ srflx raddr 0.0.0.0 rport 0"));
  EXPECT_FALSE(WebRTCReceiverSession::isHostCandidate(
      "candidate:3 1 UDP 15363327 198.51.100.1 3478 typ relay raddr 0.0.0.0 rport 0"));
  EXPECT_THAT(WebRTCReceiverSession::watchdogMarks(), ElementsAre(4, 8, 12, 22, 32, 42, 52, 62));
}

PCMView interleaved(const float* samples, int frames, int channels) {
  PCMView pcm;
  pcm.channels = channels;
  pcm.frames = frames;
  pcm.planes[0] = samples;
  return pcm;
}

TEST(PhoneAudioTap, MetersReadSilenceAsZeroAndFullScaleAsOne) {
  const float silence[4] = {0, 0, 0, 0};
  EXPECT_THAT(PhoneAudioTap::peakMeter(interleaved(silence, 2, 2)), ElementsAre(0.0f, 0.0f));
  const float mixed[4] = {1.0f, -0.0316228f, -1.0f, 0.01f};  // left 0 dB, right -30 dB
  EXPECT_THAT(PhoneAudioTap::peakMeter(interleaved(mixed, 2, 2)),
              ElementsAre(1.0f, FloatNear(0.5f, 1e-3f)));
  const std::int16_t quiet[2] = {-32768, 33};  // full scale, and -60 dB
  PCMView ints = interleaved(nullptr, 2, 1);
  ints.format = SampleFormat::int16;
  ints.planes[0] = quiet;
  EXPECT_THAT(PhoneAudioTap::peakMeter(ints), ElementsAre(1.0f));
  EXPECT_THAT(PhoneAudioTap::peakMeter(interleaved(nullptr, 0, 0)), ElementsAre(0.0f));
}

std::atomic<double> fakeNow{0};
double fakeClock() {
  return fakeNow.load();
}

TEST(PhoneAudioTap, TheRecorderHearsFirstTheMixEveryBlockAndTheMeterTwentyTimesASecond) {
  setMediaTimeSource(fakeClock);
  std::vector<std::string> order;
  int mixed = 0;
  PhoneAudioTap tap(3, [&](int slot, const PCMView&) {
    EXPECT_EQ(slot, 3);
    ++mixed;
    order.push_back("mix");
  });
  int levels = 0;
  tap.onLevel = [&](const std::vector<float>&) { ++levels; };
  tap.setConsumer([&](const PCMView&) { order.push_back("recorder"); });
  const float block[960] = {};
  tap.render(interleaved(block, 480, 2));
  EXPECT_THAT(order, ElementsAre("recorder", "mix"));
  tap.setConsumer(nullptr);
  // 5 ms blocks for a second: 200 blocks, at most one level every 50 ms.
  for (int i = 1; i <= 200; ++i) {
    fakeNow = i * 0.005;
    tap.render(interleaved(block, 240, 2));
  }
  EXPECT_EQ(mixed, 201);
  EXPECT_EQ(tap.frameCount(), 201);
  EXPECT_GE(levels, 18);
  EXPECT_LE(levels, 20);
  setMediaTimeSource(nullptr);
}

TEST(ReceiverSession, AnOfferThatIsNoSessionDescriptionGetsNoAnswerAndSaysWhy) {
  auto session = WebRTCReceiverSession::make(4, "ID", "Phone", PhoneSinks{});
  ASSERT_TRUE(session) << "the WebRTC stack is not usable here";
  std::promise<std::string> said;
  session->onStatus = [&](const std::string& text) { said.set_value(text); };
  std::promise<std::optional<std::string>> answered;
  session->handleOffer("not an offer", [&](std::optional<std::string> answer) {
    answered.set_value(std::move(answer));
  });
  EXPECT_EQ(answered.get_future().get(), std::nullopt);
  EXPECT_THAT(said.get_future().get(), ::testing::StartsWith("Remote SDP: "));
  session->close();
  session->close();  // once is enough
}

// An offer as a phone's own WebRTC stack sends it: H.264 in both packetization modes beside
// VP8, the orientation tag beside the congestion-control extension, Opus with the same.
const char* const kPhoneOffer =
    "v=0\r\no=- 4611731400430051336 2 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\n"
    "a=group:BUNDLE 0 1\r\na=msid-semantic: WMS stream\r\n"
    "m=video 9 UDP/TLS/RTP/SAVPF 96 98 100\r\nc=IN IP4 0.0.0.0\r\na=rtcp:9 IN IP4 0.0.0.0\r\n"
    "a=ice-ufrag:Abcd\r\na=ice-pwd:abcdefghijklmnopqrstuvwx\r\na=ice-options:trickle\r\n"
    "a=fingerprint:sha-256 "
    "B0:50:0E:09:5D:A0:3D:B1:C9:2C:7E:0B:FF:1F:7D:A2:30:CE:13:07:3C:96:BA:79:0D:B3:7C:2A:D0:13:1E:"
    "E8"
    "\r\na=setup:actpass\r\na=mid:0\r\n"
    "a=extmap:3 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n"
    "a=extmap:13 urn:3gpp:video-orientation\r\na=sendonly\r\na=rtcp-mux\r\na=rtcp-rsize\r\n"
    "a=rtpmap:96 VP8/90000\r\na=rtcp-fb:96 transport-cc\r\n"
    "a=rtpmap:98 H264/90000\r\na=rtcp-fb:98 nack pli\r\na=rtcp-fb:98 transport-cc\r\n"
    "a=fmtp:98 level-asymmetry-allowed=1;packetization-mode=1;profile-level-id=640c1f\r\n"
    "a=rtpmap:100 H264/90000\r\n"
    "a=fmtp:100 level-asymmetry-allowed=1;packetization-mode=0;profile-level-id=42e01f\r\n"
    "a=ssrc:1001 cname:phone\r\n"
    "m=audio 9 UDP/TLS/RTP/SAVPF 111\r\nc=IN IP4 0.0.0.0\r\na=rtcp:9 IN IP4 0.0.0.0\r\n"
    "a=ice-ufrag:Abcd\r\na=ice-pwd:abcdefghijklmnopqrstuvwx\r\na=ice-options:trickle\r\n"
    "a=fingerprint:sha-256 "
    "B0:50:0E:09:5D:A0:3D:B1:C9:2C:7E:0B:FF:1F:7D:A2:30:CE:13:07:3C:96:BA:79:0D:B3:7C:2A:D0:13:1E:"
    "E8"
    "\r\na=setup:actpass\r\na=mid:1\r\n"
    "a=extmap:3 http://www.ietf.org/id/draft-holmer-rmcat-transport-wide-cc-extensions-01\r\n"
    "a=sendonly\r\na=rtcp-mux\r\na=rtpmap:111 opus/48000/2\r\na=rtcp-fb:111 transport-cc\r\n"
    "a=fmtp:111 minptime=10;useinbandfec=1\r\na=ssrc:1002 cname:phone\r\n";

TEST(ReceiverSession, AnswersAPhonesOfferReceiveOnlyWithItsH264AndOpusAndCongestionControl) {
  auto session = WebRTCReceiverSession::make(2, "ID", "Phone", PhoneSinks{});
  ASSERT_TRUE(session);
  std::promise<std::optional<std::string>> answered;
  session->handleOffer(kPhoneOffer, [&](std::optional<std::string> answer) {
    answered.set_value(std::move(answer));
  });
  const auto answer = answered.get_future().get();
  ASSERT_TRUE(answer);
  using ::testing::HasSubstr;
  using ::testing::Not;
  EXPECT_THAT(*answer, HasSubstr("m=video 9 UDP/TLS/RTP/SAVPF 98\r\n"));
  EXPECT_THAT(*answer, HasSubstr("m=audio 9 UDP/TLS/RTP/SAVPF 111\r\n"));
  EXPECT_THAT(*answer, HasSubstr("packetization-mode=1"));
  EXPECT_THAT(*answer, HasSubstr("profile-level-id=640c1f"));
  EXPECT_THAT(*answer, HasSubstr("a=extmap:3 http://www.ietf.org/id/"
                                 "draft-holmer-rmcat-transport-wide-cc-extensions-01"));
  EXPECT_THAT(*answer, Not(HasSubstr("video-orientation")));
  EXPECT_THAT(*answer, Not(HasSubstr("VP8")));
  EXPECT_THAT(*answer, HasSubstr("a=recvonly"));
  EXPECT_THAT(*answer, Not(HasSubstr("a=sendrecv")));
  EXPECT_THAT(*answer, HasSubstr("a=group:BUNDLE 0 1"));
  session->close();
}

}  // namespace
}  // namespace qvn
