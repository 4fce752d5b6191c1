// A stream session on the account: what is accepted from the cloud, the phases and the
// clock, status polling while the cloud doesn't answer, the embed link, and the end, also
// at quit and at a sign-out.
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <mutex>
#include <thread>

#include "cloud/scripted_cloud.h"

namespace qvn::test {
namespace {

namespace asio = boost::asio;
namespace bhttp = boost::beast::http;
using tcp = asio::ip::tcp;

// A cloud on a loopback port that answers every request 200 and keeps the Authorization
// each carried: what the blocking delete at quit really sends.
class BearerWitness {
 public:
  BearerWitness() {
    accept();
    thread_ = std::thread([this] { io_.run(); });
  }
  ~BearerWitness() {
    io_.stop();
    thread_.join();
  }
  std::string apiBase() const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
  }
  std::vector<std::string> seen() const {
    std::lock_guard hold(lock_);
    return seen_;
  }

 private:
  struct Exchange {
    explicit Exchange(tcp::socket s) : socket(std::move(s)) {}
    tcp::socket socket;
    boost::beast::flat_buffer buffer;
    bhttp::request<bhttp::string_body> request;
    bhttp::response<bhttp::string_body> reply{bhttp::status::ok, 11, "{}"};
  };
  void accept() {
    acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
      if (ec) return;
      auto x = std::make_shared<Exchange>(std::move(socket));
      bhttp::async_read(
          x->socket, x->buffer, x->request, [this, x](boost::system::error_code failed, size_t) {
            if (failed) return;
            {
              std::lock_guard hold(lock_);
              seen_.emplace_back(x->request[bhttp::field::authorization]);
            }
            x->reply.keep_alive(false);
            x->reply.prepare_payload();
            bhttp::async_write(x->socket, x->reply, [x](boost::system::error_code, size_t) {});
          });
      accept();
    });
  }

  asio::io_context io_;
  tcp::acceptor acceptor_{io_, {asio::ip::address_v4::loopback(), 0}};
  mutable std::mutex lock_;
  std::vector<std::string> seen_;
  std::thread thread_;
};

class LiveSessionTest : public CloudAccountTest {
 protected:
  void withDestinations() {
    signedIn();
    account->destinations =
        std::vector<QvnCloud::Destination>{{"d1", "youtube", "My channel", true, true, ""},
                                           {"d2", "custom", "Backup", true, false, ""},
                                           {"d3", "twitch", "Twitch", false, true, ""}};
  }
  static json config() {
    return {
        {"resolution", "720p"}, {"fps", "30"}, {"bitrate_kbps", 4500}, {"audio_bitrate_kbps", 128}};
  }
  // Starts a session and answers it with `reply`; what startLive gave back.
  std::optional<QvnCloud::Session> open(const json& reply) {
    std::optional<std::optional<QvnCloud::Session>> got;
    account->startLive([&](std::optional<QvnCloud::Session> s) { got = s; });
    if (auto* sent = http->last("/v1/streams/sessions")) asked = sent->body();
    http->reply("/v1/streams/sessions", 201, reply);
    EXPECT_TRUE(got.has_value());
    return got.value_or(std::nullopt);
  }
  std::optional<QvnCloud::Session> openGood() {
    withDestinations();
    return open({{"session",
                  {{"id", "s1"},
                   {"ingest_url", "rtmp://i/live"},
                   {"stream_key", "k1"},
                   {"stream_config", config()}}}});
  }
  // A new account on the cloud at `apiBase`, for the blocking delete, which doesn't go
  // through the scripted client.
  void onCloudAt(const std::string& apiBase) {
    account.reset();
    http->sent.clear();
    account = std::make_unique<CloudAccount>(
        CloudAccount::Services{{main, http, store, *settings, apiBase, [] { return "machine-1"; }},
                               [](const std::string&) { return true; },
                               "Test Computer",
                               "1.0",
                               [this] { ++publisherStops; },
                               [] { return 7L; }});
  }
  json asked;  // the last session request's body
  std::vector<std::string> queued() {
    std::vector<std::string> ids;
    for (const auto& v : settings->list("qvn.pendingSessionDeletes").value_or(SettingsList{}))
      ids.push_back(*v.asText());
    return ids;
  }
};

TEST_F(LiveSessionTest, OnlyASessionWithEverythingItNeedsOpensAndARefusedOneIsDeleted) {
  withDestinations();
  // Without its settings the session is refused, and deleted so it can't linger.
  EXPECT_FALSE(
      open({{"session", {{"id", "s0"}, {"ingest_url", "rtmp://i/live"}, {"stream_key", "k"}}}}));
  EXPECT_EQ(asked["destination_ids"], json{"d1"});
  EXPECT_EQ(asked["needs_rotation"], false);
  EXPECT_EQ(account->error(),
            "The web engine did not return stream_config — cannot start Go Live without real "
            "encoder settings.");
  EXPECT_EQ(http->count("/v1/streams/sessions/s0"), 1);
  EXPECT_EQ(account->livePhase(), LivePhase::idle);
  EXPECT_FALSE(open({{"id", "s9"}, {"stream_key", "k"}}));
  EXPECT_EQ(account->error(), "The web engine did not return an ingest URL.");
  EXPECT_EQ(http->count("/v1/streams/sessions/s9"), 1);

  // Settings found only beside the session object are good too.
  auto s = open({{"session", {{"id", "s1"}, {"ingest_url", "rtmp://i/live"}, {"stream_key", "k1"}}},
                 {"stream_config", config()}});
  ASSERT_TRUE(s);
  EXPECT_EQ(s->streamConfig, (QvnCloud::StreamConfig{1280, 720, 30, 4'500'000, 128'000}));
  EXPECT_EQ(account->livePhase(), LivePhase::connecting);
  EXPECT_EQ(account->liveClock(), "00:00");
  EXPECT_EQ(http->count("/v1/streams/sessions/s1"), 1);  // the first status, at once

  // Nothing eligible: the words name what is missing and nothing is sent.
  account->destinations.modify([](auto& list) { list.erase(list.begin()); });
  account->startLive([](auto) {});
  EXPECT_EQ(account->error(),
            "Custom RTMP isn't connected. Connect it at 127.0.0.1:9, then try again.");
}

TEST_F(LiveSessionTest, TheClockRunsThroughReconnectsAndTheSummaryKeepsAFailure) {
  ASSERT_TRUE(openGood());
  account->markLive();
  EXPECT_TRUE(account->publishing());
  main.advance(65);
  EXPECT_EQ(account->liveClock(), "01:05");
  account->noteReconnecting();
  EXPECT_EQ(account->livePhase(), LivePhase::connecting);
  EXPECT_FALSE(account->publishing());
  main.advance(3600);
  account->markLive();  // back: the clock was never reset
  main.advance(1);
  EXPECT_EQ(account->liveClock(), "1:01:06");

  account->failLive("ingest lost");
  EXPECT_EQ(account->livePhase(), LivePhase::error);
  account->endLive([] {});
  EXPECT_EQ(account->livePhase(), LivePhase::stopping);
  EXPECT_EQ(publisherStops, 1);
  http->replyToDelete("/v1/streams/sessions/s1", 200);
  EXPECT_EQ(account->livePhase(), LivePhase::error);
  EXPECT_EQ(account->lastLiveSummary(), (LiveSummary{3666, 1, "ingest lost"}));
  EXPECT_FALSE(account->liveSession());

  // A plain stop ends without a failure.
  ASSERT_TRUE(openGood());
  account->endLive([] {});
  http->replyToDelete("/v1/streams/sessions/s1", 204);
  EXPECT_EQ(account->livePhase(), LivePhase::ended);
  EXPECT_EQ(account->lastLiveSummary(), (LiveSummary{0, 1, std::nullopt}));
}

TEST_F(LiveSessionTest, StatusPollingWaitsLongerWhileTheCloudFailsAndComesBackToFiveSeconds) {
  ASSERT_TRUE(openGood());
  const std::string path = "/v1/streams/sessions/s1";
  http->reply(path, 200,
              {{"destinations",
                {{{"destination_id", "d1"}, {"status", "live"}},
                 {{"destination_id", "d3"}, {"status", "error"}, {"error_message", "refused"}}}}});
  ASSERT_EQ(account->sessionDestinations().size(), 2u);
  EXPECT_EQ(account->sessionDestinations()[0].name, "My channel");
  EXPECT_EQ(account->droppedVideoFrames(), 7);

  // Seconds from one failed poll to the next.
  auto nextPollAfterFailure = [&] {
    http->reply(path, 503);
    for (int waited = 1; waited <= 61; ++waited) {
      main.advance(1);
      if (http->count(path)) return waited;
    }
    return -1;
  };
  main.advance(5);
  EXPECT_EQ(nextPollAfterFailure(), 5);
  EXPECT_EQ(nextPollAfterFailure(), 10);
  EXPECT_EQ(nextPollAfterFailure(), 20);
  EXPECT_EQ(nextPollAfterFailure(), 40);
  EXPECT_EQ(nextPollAfterFailure(), 40);
  EXPECT_TRUE(account->destinationStatusUnavailable());
  http->reply(path, 200, {{"destinations", json::array()}});
  EXPECT_FALSE(account->destinationStatusUnavailable());
  EXPECT_EQ(account->statusBackoffStep(), 0);
  main.advance(5);
  EXPECT_EQ(http->count(path), 1);
}

TEST_F(LiveSessionTest, AQuitWhileLiveQueuesTheDeleteItCouldNotMakeInTime) {
  ASSERT_TRUE(openGood());
  // Nothing listens on this loopback port: the delete fails at once and is kept for later.
  account->endLiveBlocking(2.0);
  EXPECT_EQ(publisherStops, 1);
  EXPECT_EQ(queued(), std::vector<std::string>{"s1"});
}

TEST_F(LiveSessionTest, SignOutEndsAStreamFirstButARevocationLeavesItRunning) {
  ASSERT_TRUE(openGood());
  account->user = QvnCloud::User{"a@x.io"};
  account->markLive();
  account->transport().request("GET", "/v1/auth/me", std::nullopt, true, [](CloudResult) {});
  http->reply("/v1/auth/me", 401);
  http->reply("/v1/auth/refresh", 401, {{"error", "invalid_refresh_token"}});
  EXPECT_TRUE(account->signedOutWhileLive());
  EXPECT_EQ(account->livePhase(), LivePhase::live);
  EXPECT_EQ(publisherStops, 0);
  EXPECT_FALSE(account->hasAccessToken());

  // Signed in again and live: a sign-out stops the stream and deletes the session first.
  signedIn();
  account->user = QvnCloud::User{"a@x.io"};
  account->logout();
  EXPECT_EQ(publisherStops, 1);
  EXPECT_EQ(http->count("/v1/auth/logout"), 0);
  http->replyToDelete("/v1/streams/sessions/s1", 200);
  EXPECT_EQ(account->livePhase(), LivePhase::ended);
  EXPECT_EQ(http->count("/v1/auth/logout"), 1);
}

TEST_F(LiveSessionTest, TheDeleteAtQuitCarriesTheTokenOfTheLastRefreshOrSignIn) {
  BearerWitness cloud;
  // Refreshed while live.
  onCloudAt(cloud.apiBase());
  ASSERT_TRUE(openGood());
  account->transport().request("GET", "/v1/destinations", std::nullopt, true, [](CloudResult) {});
  http->reply("/v1/destinations", 401);
  http->reply("/v1/auth/refresh", 200, {{"access_token", "a2"}});
  account->endLiveBlocking(10);

  // Revoked while live, then signed in again by code before the quit.
  onCloudAt(cloud.apiBase());
  ASSERT_TRUE(openGood());
  account->markLive();
  account->transport().request("GET", "/v1/auth/me", std::nullopt, true, [](CloudResult) {});
  http->reply("/v1/auth/me", 401);
  http->reply("/v1/auth/refresh", 401, {{"error", "invalid_refresh_token"}});
  ASSERT_TRUE(account->signedOutWhileLive());
  account->typedEmail = "a@x.io";
  account->startMagic(QvnMagicIntent::signIn);
  http->reply("/v1/auth/magic/start", 200, {{"request_id", "q1"}});
  account->oneTimeCode = "123456";
  account->submitMagicCode();
  http->reply("/v1/auth/magic/code", 200, {{"access_token", "a3"}, {"refresh_token", "r3"}});
  account->endLiveBlocking(10);

  EXPECT_THAT(cloud.seen(), ::testing::ElementsAre("Bearer a2", "Bearer a3"));
}

TEST_F(LiveSessionTest, TheEmbedLinkSaysWhatTheCloudCanGive) {
  signedIn();
  using Kind = QvnCloud::EmbedLink::Kind;
  auto load = [&](int status, json reply) {
    account->loadEmbedLink();
    EXPECT_EQ(account->embedLink().kind, Kind::loading);
    http->reply("/v1/embed", status, reply);
    return account->embedLink();
  };
  EXPECT_EQ(load(200, {{"embed_url", "https://watch.test/e/1"}, {"studio_live", true}}),
            (QvnCloud::EmbedLink{Kind::ready, "https://watch.test/e/1", true, ""}));
  EXPECT_EQ(load(200, {{"embed_url", "http://plain.test/e/1"}}).kind, Kind::none);
  EXPECT_EQ(load(404, json::object()).kind, Kind::unavailable);
  EXPECT_EQ(load(500, json::object()).message, "Quorvane could not load your embed link (500).");
  account->createEmbedLink();
  http->fail("/v1/embed");
  EXPECT_EQ(account->embedLink().message, "Could not reach Quorvane. Check your connection.");
}

}  // namespace
}  // namespace qvn::test
