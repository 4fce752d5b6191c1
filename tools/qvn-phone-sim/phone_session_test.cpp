// The phone's side of the pairing talk against a scripted studio and a recording media.
#include "phone_session.h"

#include <gtest/gtest.h>

#include <vector>

namespace qvn {
namespace {

struct RecordingMedia final : PhoneMedia {
  int starts = 0;
  std::vector<std::string> answers;
  std::vector<std::pair<int, std::string>> candidates;
  std::vector<bool> mutes;
  std::vector<CameraLook> looks;
  void start() override { ++starts; }
  void setAnswer(const std::string& sdp) override { answers.push_back(sdp); }
  void addRemoteCandidate(int mline, const std::string& c) override {
    candidates.emplace_back(mline, c);
  }
  void setMuted(bool muted) override { mutes.push_back(muted); }
  void setLook(const CameraLook& look) override { looks.push_back(look); }
};

constexpr const char* kOffer =
    "v=0\r\nm=video 9 UDP/TLS/RTP/SAVPF 102\r\na=mid:video0\r\n"
    "m=audio 0 UDP/TLS/RTP/SAVPF 111\r\na=mid:audio1\r\n";
constexpr const char* kHost = "candidate:1 1 UDP 2015363327 127.0.0.1 40312 typ host";
constexpr const char* kRelay = "candidate:2 1 UDP 1 10.0.0.1 3478 typ relay raddr 0.0.0.0 rport 0";
constexpr const char* kReflexive = "candidate:3 1 UDP 9 1.2.3.4 5 typ srflx raddr 0.0.0.0 rport 0";

class PhoneSessionTest : public ::testing::Test {
 protected:
  PhoneSessionTest()
      : session({"Cam A", std::string("4321"), false}, media, queue,
                [this](const nlohmann::json& m) { sent.push_back(m); }) {
    session.onEnd = [this](int code, const std::string& why) { ended = {code, why}; };
  }

  void studio(const nlohmann::json& message) { session.received(message.dump()); }
  std::vector<nlohmann::json> sentOfType(const std::string& type) const {
    std::vector<nlohmann::json> found;
    for (const auto& m : sent)
      if (m["type"] == type) found.push_back(m);
    return found;
  }
  void pairAndOffer() {
    session.connected();
    studio(
        {{"type", "welcome"}, {"v", 1}, {"role", "publisher"}, {"session_id", "s"}, {"slot", 4}});
    studio({{"type", "peer-joined"}, {"role", "viewer"}});
    session.offerReady(kOffer);
  }

  ManualMainQueue queue;
  RecordingMedia media;
  std::vector<nlohmann::json> sent;
  std::optional<std::pair<int, std::string>> ended;
  PhoneSession session;
};

TEST_F(PhoneSessionTest, PairsThenOffersOnceAViewerJoins) {
  session.connected();
  EXPECT_EQ(sent.at(0),
            (nlohmann::json{
                {"type", "hello"}, {"role", "publisher"}, {"pin", "4321"}, {"name", "Cam A"}}));
  studio({{"type", "welcome"}, {"v", 1}, {"role", "publisher"}, {"session_id", "s"}, {"slot", 4}});
  EXPECT_EQ(session.slot(), 4);
  EXPECT_EQ(media.starts, 0);
  studio({{"type", "peer-joined"}, {"role", "viewer"}});
  studio({{"type", "peer-joined"}, {"role", "viewer"}});
  EXPECT_EQ(media.starts, 1);
  const auto caps = sentOfType("capabilities").at(0);
  EXPECT_EQ(caps["zoomMax"], 5.0);
  EXPECT_EQ(caps["hasFlip"], true);
  session.offerReady(kOffer);
  EXPECT_EQ(sentOfType("offer").at(0)["sdp"], kOffer);
  studio({{"type", "answer"}, {"v", 1}, {"sdp", "v=0 answer"}});
  EXPECT_EQ(media.answers, std::vector<std::string>{"v=0 answer"});
  EXPECT_FALSE(ended);
}

TEST_F(PhoneSessionTest, NoPinMeansNoPinField) {
  PhoneSession open({"Cam B", std::nullopt, false}, media, queue,
                    [this](const nlohmann::json& m) { sent.push_back(m); });
  open.connected();
  EXPECT_FALSE(sent.at(0).contains("pin"));
}

TEST_F(PhoneSessionTest, RefusalsEndWithTheStudiosReason) {
  session.connected();
  studio({{"type", "pair-fail"}, {"message", "Wrong pairing code"}});
  ASSERT_TRUE(ended);
  EXPECT_EQ(ended->first, 1);
  EXPECT_NE(ended->second.find("Wrong pairing code"), std::string::npos);
  ended.reset();
  studio({{"type", "error"}, {"message", "All camera slots are full"}});
  ASSERT_TRUE(ended);
  EXPECT_NE(ended->second.find("slots are full"), std::string::npos);
}

TEST_F(PhoneSessionTest, StudioCandidatesWaitForTheAnswerAndRelayedOnesAreDropped) {
  pairAndOffer();
  studio({{"type", "ice"}, {"v", 1}, {"candidate", {{"candidate", kHost}, {"sdpMLineIndex", 0}}}});
  studio({{"type", "ice"},
          {"v", 1},
          {"candidate", {{"candidate", kHost}, {"sdpMid", "audio1"}, {"sdpMLineIndex", nullptr}}}});
  studio({{"type", "ice"}, {"v", 1}, {"candidate", {{"candidate", kRelay}, {"sdpMLineIndex", 0}}}});
  EXPECT_TRUE(media.candidates.empty());
  studio({{"type", "answer"}, {"v", 1}, {"sdp", "v=0 answer"}});
  studio({{"type", "ice"},
          {"v", 1},
          {"candidate", {{"candidate", kReflexive}, {"sdpMLineIndex", 0}}}});
  studio({{"type", "ice"}, {"v", 1}, {"candidate", {{"candidate", kHost}, {"sdpMLineIndex", 0}}}});
  const std::vector<std::pair<int, std::string>> expected = {{0, kHost}, {1, kHost}, {0, kHost}};
  EXPECT_EQ(media.candidates, expected);
}

TEST_F(PhoneSessionTest, OwnCandidatesGoAfterTheOfferWithTheirMid) {
  session.connected();
  studio({{"type", "welcome"}, {"v", 1}, {"slot", 1}});
  studio({{"type", "peer-joined"}});
  session.localCandidate(0, kHost);
  session.localCandidate(0, kRelay);
  EXPECT_TRUE(sentOfType("ice").empty());
  session.offerReady(kOffer);
  session.localCandidate(1, kReflexive);
  const auto ice = sentOfType("ice");
  ASSERT_EQ(ice.size(), 1u);
  EXPECT_EQ(ice[0]["candidate"],
            (nlohmann::json{{"candidate", kHost}, {"sdpMid", "video0"}, {"sdpMLineIndex", 0}}));
  EXPECT_EQ(sent.back()["type"], "ice");  // after the offer, not before it
}

TEST_F(PhoneSessionTest, ControlsChangeTheCameraAndAreAcknowledged) {
  pairAndOffer();
  auto control = [this](nlohmann::json m) {
    m["type"] = "control";
    m["v"] = 1;
    studio(m);
  };
  control({{"action", "flip"}});
  control({{"action", "flip"}});
  control({{"action", "zoom"}, {"value", 9.5}});
  control({{"action", "focus"}, {"x", 0.25}, {"y", 0.75}, {"lock", true}});
  control({{"action", "mute"}, {"value", true}});
  control({{"action", "quality"}, {"value", "uhd"}});
  control({{"action", "zoom"}});      // no value: nothing to do
  control({{"action", "levitate"}});  // unknown
  const auto acks = sentOfType("control-ack");
  ASSERT_EQ(acks.size(), 6u);
  EXPECT_EQ(acks[0]["value"], true);  // now on the back camera
  EXPECT_EQ(acks[1]["value"], false);
  EXPECT_EQ(acks[2]["value"], 9.5);  // as received, though the zoom stops at 5
  EXPECT_EQ(acks[3]["x"], 0.25);
  EXPECT_EQ(acks[3]["lock"], true);
  EXPECT_EQ(acks[4]["value"], true);
  EXPECT_EQ(acks[5],
            (nlohmann::json{{"type", "control-ack"}, {"action", "quality"}, {"value", "uhd"}}));
  EXPECT_EQ(media.mutes, std::vector<bool>{true});
  ASSERT_EQ(media.looks.size(), 4u);
  EXPECT_FALSE(media.looks.back().back);
  EXPECT_EQ(media.looks.back().zoom, 5.0);
  EXPECT_EQ(media.looks.back().focus, (FocusPoint{0.25, 0.75, true}));
}

TEST_F(PhoneSessionTest, PingsBothWaysAndByeOnce) {
  pairAndOffer();
  studio({{"type", "ping"}});
  EXPECT_EQ(sent.back(), (nlohmann::json{{"type", "pong"}}));
  queue.advance(5.1);
  EXPECT_EQ(sentOfType("ping").size(), 1u);
  session.leave();
  session.leave();
  EXPECT_EQ(sentOfType("bye").size(), 1u);
  queue.advance(10);
  EXPECT_EQ(sentOfType("ping").size(), 1u);  // none after bye
}

TEST(UsableCandidate, HostOnly) {
  EXPECT_TRUE(usableCandidate(kHost));
  EXPECT_TRUE(usableCandidate("candidate:2 1 TCP 1015022591 127.0.0.1 9 typ host tcptype active"));
  EXPECT_FALSE(usableCandidate(kRelay));
  EXPECT_FALSE(usableCandidate(kReflexive));
  EXPECT_FALSE(usableCandidate(""));
}

}  // namespace
}  // namespace qvn
