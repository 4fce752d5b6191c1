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

}  // namespace
}  // namespace qvn
