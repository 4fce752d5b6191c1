// The phones' side door on loopback: real TCP clients speak JSON lines to the server and
// read its answers; the studio's side is the server's callbacks, written down.
#include "phones/tcp_signaling_server.h"

#include "phones/phone_audio_tap.h"
#include "platform/net.h"
#include "platform/webrtc.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <regex>
#include <thread>

#include <nlohmann/json.hpp>

namespace qvn {
namespace {

using namespace std::chrono_literals;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// A phone's side of the wire: lines out, lines in.
class Phone {
 public:
  explicit Phone(std::uint16_t port) {
    fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = ::connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~Phone() { close(); }
  bool connected() const { return connected_; }
  void raw(const std::string& bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  void say(const nlohmann::json& message) { raw(message.dump() + "\n"); }
  // The next line from the server, parsed; null when none comes in time.
  nlohmann::json hear(int timeoutMs = 5000) {
    while (true) {
      if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
        const std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return nlohmann::json::parse(line);
      }
      pollfd p{fd_, POLLIN, 0};
      if (::poll(&p, 1, timeoutMs) <= 0) return nullptr;
      char chunk[4096];
      const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
      if (n <= 0) return nullptr;
      buffer_.append(chunk, size_t(n));
    }
  }
  void close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  std::string buffer_;
};

// A session that records what it was given and answers offers with a fixed SDP.
struct FakeAnswer : ReceiverSession {
  std::vector<nlohmann::json> candidates;
  bool closed = false;
  std::shared_ptr<PhoneAudioTap> tap;
  std::shared_ptr<PhoneAudioTap> audioTap() const override { return tap; }
  void handleOffer(const std::string& sdp,
                   std::function<void(std::optional<std::string>)> done) override {
    done(sdp.find("m=video") != std::string::npos
             ? std::optional<std::string>("v=0\r\nm=video 9 UDP/TLS/RTP/SAVPF 96\r\n")
             : std::nullopt);
  }
  void addICE(const nlohmann::json& c) override { candidates.push_back(c); }
  void close() override { closed = true; }
};

class Signaling : public ::testing::Test {
 protected:
  Signaling() {
    server = TCPSignalingServer::make(
        [this](int slot, const std::string&, const std::string&) -> std::shared_ptr<FakeAnswer> {
          if (failSessions) return nullptr;
          auto s = std::make_shared<FakeAnswer>();
          s->tap = std::make_shared<PhoneAudioTap>(slot, nullptr);
          std::lock_guard lock(mutex);
          sessions[slot] = s;
          return s;
        },
        "127.0.0.1", 0);
    server->onLog = [this](std::string line) { note([&] { logLines.push_back(line); }); };
    server->onDiagnostics = [this](const std::string& line) {
      note([&] { diagnostics.push_back(line); });
    };
    server->onSlotsChanged = [this](std::vector<CameraSlot> rows) {
      note([&] { slotReports.push_back(rows); });
    };
    server->onCaps = [this](int slot, const nlohmann::json& caps) {
      note([&] { capsSeen.emplace_back(slot, caps); });
    };
    server->onAudioTap = [this](int slot, std::shared_ptr<PhoneAudioTap> tap) {
      note([&] { taps[slot] = tap; });
    };
    server->isSlotLocallyOccupied = [this](int slot) { return localSlots.contains(slot); };
    server->openSlotLimit = [this] { return openSlots; };
    server->setPin("4321");
  }
  ~Signaling() override { server.reset(); }  // before what its callbacks write into
  template <class F>
  void note(F change) {
    std::lock_guard lock(mutex);
    change();
    changed.notify_all();
  }
  bool waitFor(const std::function<bool()>& done) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, 5s, done);
  }
  std::uint16_t start() {
    EXPECT_EQ(server->start(), std::nullopt);
    return server->port();
  }
  std::vector<std::string> logged() {
    server->queue().sync([] {});
    std::lock_guard lock(mutex);
    return logLines;
  }
  bool liveIn(int slot) {
    std::lock_guard lock(mutex);
    return !slotReports.empty() && slotReports.back()[size_t(slot - 1)].live;
  }
  // Twelve phones pair into slots 1 to 12; the thirteenth is told they are full and stays.
  void expectTwelvePairedAndTheThirteenthRefused() {
    const auto port = start();
    std::vector<std::unique_ptr<Phone>> paired;
    for (int n = 1; n <= 12; ++n) {
      paired.push_back(std::make_unique<Phone>(port));
      paired.back()->say({{"type", "hello"}, {"pin", "4321"}});
      EXPECT_EQ(paired.back()->hear()["slot"], n);
    }
    Phone thirteenth(port);
    thirteenth.say({{"type", "hello"}, {"pin", "4321"}});
    EXPECT_EQ(thirteenth.hear(),
              (nlohmann::json{{"type", "error"}, {"message", "All camera slots are full"}}));
    thirteenth.say({{"type", "ping"}});
    EXPECT_EQ(thirteenth.hear()["type"], "pong");
    // Every slot freed before the fixture goes: no drop is left to report into it.
    thirteenth.close();
    paired.clear();
    EXPECT_TRUE(waitFor([&] {
      return !slotReports.empty() &&
             std::ranges::none_of(slotReports.back(), [](const CameraSlot& r) { return r.live; });
    }));
  }

  std::shared_ptr<TCPSignalingServer> server;
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> logLines;
  std::vector<std::string> diagnostics;
  std::vector<std::vector<CameraSlot>> slotReports;
  std::vector<std::pair<int, nlohmann::json>> capsSeen;
  std::map<int, std::shared_ptr<FakeAnswer>> sessions;
  std::map<int, std::shared_ptr<PhoneAudioTap>> taps;  // the last one each slot was given
  std::set<int> localSlots;
  int openSlots = 12;
  std::atomic<bool> failSessions{false};
};

TEST_F(Signaling, APhonePairsGetsASlotAndTradesOfferAnswerAndCandidates) {
  Phone phone(start());
  ASSERT_TRUE(phone.connected());
  phone.say({{"type", "ice"}, {"candidate", "early"}});  // before hello: ignored
  phone.say({{"type", "ping"}});
  EXPECT_EQ(phone.hear(), (nlohmann::json{{"type", "pong"}}));

  localSlots = {1};  // a camera holds slot 1: the phone gets 2
  phone.say({{"type", "hello"}, {"pin", "4321"}, {"name", "Backstage"}});
  const auto welcome = phone.hear();
  EXPECT_EQ(welcome["type"], "welcome");
  EXPECT_EQ(welcome["v"], 1);
  EXPECT_EQ(welcome["slot"], 2);
  EXPECT_TRUE(std::regex_match(welcome["session_id"].get<std::string>(),
                               std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-"
                                          "[0-9A-F]{12}")));
  EXPECT_EQ(phone.hear(), (nlohmann::json{{"type", "peer-joined"}, {"role", "viewer"}}));
  phone.say({{"type", "hello"}, {"pin", "4321"}});  // asked again: the same answer
  EXPECT_EQ(phone.hear(), welcome);
  ASSERT_TRUE(waitFor([&] { return !slotReports.empty(); }));
  EXPECT_EQ(slotReports.size(), 1u);
  EXPECT_TRUE(liveIn(2));
  EXPECT_EQ(slotReports.back()[1].title, "Backstage");
  EXPECT_EQ(slotReports.back()[1].kind, "phone");

  // Two messages in one segment, and one split over three.
  phone.raw(R"({"type":"ice","candidate":{"candidate":"a","sdpMid":"0","sdpMLineIndex":0}})"
            "\n"
            R"({"type":"ice","candidate":"b","sdpMLineIndex":1})"
            "\n   \n");
  phone.raw(R"({"type":"offer","sdp":"v=0\r\n)");
  phone.raw(R"(m=video 9 UDP/TLS/RTP/SAVPF 96\r\na=rtpmap:96 H264/90000\r\n)");
  phone.raw("\"}\n");
  const auto answer = phone.hear();
  EXPECT_EQ(answer["type"], "answer");
  EXPECT_THAT(answer["sdp"].get<std::string>(), HasSubstr("m=video"));
  server->queue().sync([] {});
  ASSERT_EQ(sessions[2]->candidates.size(), 2u);
  EXPECT_EQ(sessions[2]->candidates[0]["candidate"], "a");
  EXPECT_EQ(sessions[2]->candidates[1]["candidate"], "b");  // the message itself
  EXPECT_THAT(logged(), Contains("Cam 2 offer m=video 9 UDP/TLS/RTP/SAVPF 96 (61 chars)"));
  EXPECT_THAT(logged(), Contains("Cam 2 offer codecs a=rtpmap:96 H264/90000"));

  phone.say({{"type", "capabilities"}, {"zoomMax", 5.0}});
  ASSERT_TRUE(waitFor([&] { return !capsSeen.empty(); }));
  EXPECT_EQ(capsSeen[0].first, 2);

  server->sendControl(2, {{"type", "control"}, {"v", 1}, {"action", "zoom"}, {"value", 2.5}});
  EXPECT_EQ(phone.hear()["action"], "zoom");
  EXPECT_THAT(logged(), Contains("control → cam 2 zoom value=2.5"));

  phone.say({{"type", "bye"}});
  ASSERT_TRUE(waitFor([&] { return !slotReports.back()[1].live; }));
  EXPECT_TRUE(sessions[2]->closed);
  EXPECT_THAT(logged(), Contains("Cam 2 disconnected"));
}

TEST_F(Signaling, RefusalsLeaveThePhoneConnectedToTryAgain) {
  const auto port = start();
  server->setAcceptNewDevices(false);
  Phone phone(port);
  phone.say({{"type", "hello"}, {"pin", "1111"}});
  EXPECT_EQ(phone.hear(),
            (nlohmann::json{{"type", "pair-fail"}, {"message", "Wrong pairing code"}}));
  phone.say({{"type", "hello"}, {"role", "viewer"}});
  EXPECT_EQ(phone.hear()["message"], "This computer is the receiver.");
  failSessions = true;
  phone.say({{"type", "hello"}, {"pin", "4321"}});
  EXPECT_EQ(phone.hear(), (nlohmann::json{{"type", "error"},
                                          {"message", "Could not start this camera session."}}));
  failSessions = false;
  phone.say({{"type", "hello"}});  // no code at all passes, and the slot was given back
  EXPECT_EQ(phone.hear()["slot"], 1);
  phone.hear();

  openSlots = 1;
  Phone second(port);
  second.say({{"type", "hello"}, {"pin", "4321"}});
  EXPECT_EQ(second.hear(),
            (nlohmann::json{{"type", "error"}, {"message", "All camera slots are full"}}));
  second.say({{"type", "ping"}});  // still connected
  EXPECT_EQ(second.hear()["type"], "pong");

  second.raw("not json at all\n");
  second.say({{"type", 7}});
  ASSERT_TRUE(waitFor([&] { return std::ranges::count(logLines, "WS ignored 10 chars") == 1; }));
  EXPECT_THAT(logged(), Contains("WS ignored 15 chars"));

  phone.close();  // a lost connection frees the slot
  ASSERT_TRUE(waitFor([&] { return !slotReports.empty() && !slotReports.back()[0].live; }));
}

TEST_F(Signaling, TwelveOpenSlotsTakeTwelvePhonesAndNoMore) {
  expectTwelvePairedAndTheThirteenthRefused();
}

TEST_F(Signaling, WithoutALimitFromTheStudioTwelveSlotsAreOpen) {
  server->openSlotLimit = nullptr;
  expectTwelvePairedAndTheThirteenthRefused();
}

TEST_F(Signaling, LinesThatAreNoMessageAndMessagesOutOfTurnChangeNothing) {
  const auto port = start();
  Phone paired(port);
  paired.say({{"type", "hello"}, {"pin", "4321"}});
  ASSERT_EQ(paired.hear()["slot"], 1);
  paired.hear();  // peer-joined
  ASSERT_TRUE(waitFor([&] { return slotReports.size() == 1; }));

  Phone stranger(port);
  // JSON that is not an object is no message, just as text that is not JSON.
  stranger.raw("[1]\n42\n\"x\"\nnot json\n");
  stranger.say({{"type", "offer"}, {"sdp", "v=0\r\nm=video 9 UDP/TLS/RTP/SAVPF 96\r\n"}});
  stranger.say({{"type", "ping"}});
  EXPECT_EQ(stranger.hear(), (nlohmann::json{{"type", "pong"}}));  // and nothing before it
  std::vector<std::string> ignored;
  for (const auto& line : logged())
    if (line.starts_with("WS ignored")) ignored.push_back(line);
  EXPECT_THAT(ignored, ElementsAre("WS ignored 3 chars", "WS ignored 2 chars", "WS ignored 3 chars",
                                   "WS ignored 8 chars"));

  stranger.say({{"type", "bye"}});  // closes that connection and nothing else
  EXPECT_TRUE(stranger.hear().is_null());
  paired.say({{"type", "ping"}});
  EXPECT_EQ(paired.hear()["type"], "pong");
  const auto lines = logged();
  EXPECT_THAT(lines, Not(Contains(HasSubstr("offer m=video"))));
  EXPECT_THAT(lines, Not(Contains(HasSubstr("disconnected"))));
  std::lock_guard lock(mutex);
  EXPECT_EQ(slotReports.size(), 1u);
  EXPECT_EQ(sessions.size(), 1u);
  EXPECT_TRUE(slotReports.back()[0].live);
}

// What a dropped session posts on its way out may run after the next phone took its slot:
// it must neither take that phone's sound away nor free the slot under it.
TEST_F(Signaling, AGoneSessionsLateJobsLeaveTheNextPhoneInItsSlotAlone) {
  const auto port = start();
  Phone first(port);
  first.say({{"type", "hello"}, {"pin", "4321"}});
  ASSERT_EQ(first.hear()["slot"], 1);
  ASSERT_TRUE(waitFor([&] { return taps[1] && taps[1] == sessions[1]->tap; }));
  std::shared_ptr<FakeAnswer> gone = sessions[1];
  first.say({{"type", "bye"}});
  ASSERT_TRUE(waitFor([&] { return !taps[1]; }));

  Phone next(port);
  next.say({{"type", "hello"}, {"pin", "4321"}});
  ASSERT_EQ(next.hear()["slot"], 1);
  ASSERT_TRUE(waitFor([&] { return sessions[1] != gone && taps[1] == sessions[1]->tap; }));
  std::shared_ptr<FakeAnswer> current = sessions[1];
  gone->onAudioTrack(nullptr);
  gone->onPeerGone();
  server->queue().sync([] {});
  {
    std::lock_guard lock(mutex);
    EXPECT_EQ(taps[1].get(), current->tap.get());
  }
  EXPECT_TRUE(liveIn(1));
  EXPECT_FALSE(current->closed);

  // The slot's own session still takes its tap away with its track, and brings it back.
  current->onAudioTrack(nullptr);
  ASSERT_TRUE(waitFor([&] { return !taps[1]; }));
  current->onAudioTrack(std::make_shared<RemoteAudioTrack>("audio"));
  ASSERT_TRUE(waitFor([&] { return taps[1] == current->tap; }));
  current->onPeerGone();
  ASSERT_TRUE(waitFor([&] { return !slotReports.back()[0].live; }));
  EXPECT_TRUE(current->closed);
  EXPECT_THAT(logged(), Contains("Cam 1 peer connection gone, freeing the slot"));
}

TEST_F(Signaling, TheListenerSaysItIsReadyNotesASilentPeerAndReportsAPortInUse) {
  const auto port = start();
  EXPECT_THAT(logged(), Contains("Signaling ready: " + std::to_string(port)));
  Phone quiet(port);
  quiet.raw("\xff\xfe");  // not text
  ASSERT_TRUE(waitFor([&] {
    for (const auto& line : logLines)
      if (line.starts_with("TCP open, no JSON line yet")) return true;
    return false;
  }));
  EXPECT_THAT(logged(), Contains("TCP open, no JSON line yet (2 bytes)"));

  // With no mDNS daemon here the announcement fails, and the server runs on all the same.
  ASSERT_TRUE(waitFor([&] { return diagnostics.size() >= 2; }));
  EXPECT_EQ(diagnostics[0], "[Bonjour] publishing Quorvane Studio ip=" + localIPv4Address() +
                                " port=" + std::to_string(port));
  EXPECT_THAT(diagnostics[1], HasSubstr("[Bonjour] publish failed"));

  auto other = TCPSignalingServer::make(nullptr, "127.0.0.1", port);
  std::vector<std::string> otherLog;
  other->onLog = [&](std::string line) { otherLog.push_back(line); };
  const auto error = other->start();
  ASSERT_TRUE(error);
  EXPECT_THAT(*error, HasSubstr("Can't listen for phones on port"));
  EXPECT_THAT(otherLog, Not(Contains(HasSubstr("Signaling ready"))));
}

// A connection's end is told once, however many times and from whichever side it is closed.
TEST(LineClientTest, ClosingTwiceOrFromBothEndsGivesOneClose) {
  SerialQueue timers("test.line-client");
  for (const bool peerFirst : {false, true}) {
    auto accepted = std::make_shared<std::promise<std::shared_ptr<NetConnection>>>();
    std::string error;
    auto listener = NetListener::listen(
        "127.0.0.1", 0, [accepted](std::shared_ptr<NetConnection> c) { accepted->set_value(c); },
        error);
    ASSERT_TRUE(listener) << error;
    Phone peer(listener->port());
    auto connection = accepted->get_future();
    ASSERT_EQ(connection.wait_for(5s), std::future_status::ready);
    auto client = LineClient::make(connection.get());
    std::atomic<int> closes{0};
    client->onClose = [&closes] { ++closes; };
    client->start(timers);
    if (peerFirst) {
      peer.close();
      for (int i = 0; i < 500 && closes == 0; ++i) std::this_thread::sleep_for(10ms);
      EXPECT_EQ(closes, 1);
    }
    client->close();
    client->close();
    EXPECT_EQ(closes, 1) << (peerFirst ? "peer first" : "closed twice");
    EXPECT_TRUE(client->closed());
    listener->stop();
  }
}

}  // namespace
}  // namespace qvn
