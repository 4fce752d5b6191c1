// The account against a scripted HTTP client on a virtual clock: how requests carry and
// renew the sign-in, how it is lost, and every way a sign-in can go.
#include "cloud/scripted_cloud.h"
#include "cloud/stream_wire.h"

namespace qvn::test {
namespace {

using nlohmann::json;
using ::testing::ElementsAre;

TEST(CloudWire, UsersTokensAndProofKeysReadAsTheServerWritesThem) {
  auto u =
      QvnCloud::parseUser(json{{"user", {{"full_name", "Ana"}, {"username", "ana"}}}}, "a@x.io");
  EXPECT_EQ(u.name, "Ana");
  EXPECT_EQ(u.email, "a@x.io");
  EXPECT_EQ(u.role, "user");
  u = QvnCloud::parseUser(json{{"username", "bo"}, {"profile_photo", "p.png"}, {"email", "b@x.io"}},
                          "");
  EXPECT_EQ(u.name, "bo");
  EXPECT_EQ(u.avatarURL, "p.png");
  EXPECT_EQ(u.email, "b@x.io");

  EXPECT_NEAR(
      *QvnCloud::jwtExpiry(tokenExpiringIn(100)),
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() +
          100,
      2);
  EXPECT_EQ(QvnCloud::jwtExpiry("not-a-token"), std::nullopt);
  EXPECT_EQ(QvnCloud::jwtExpiry("a.e30.c"), std::nullopt);  // {} has no exp

  // The example pair of the proof-key standard.
  EXPECT_EQ(QvnCloud::challenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
  EXPECT_EQ(QvnCloud::randomVerifier().size(), 43u);

  const auto e = CloudTransport::errorOf(429, json{{"error", "rate_limited"}}, " 10 ");
  EXPECT_EQ(e.retryAfter, 10);
  EXPECT_EQ(e.text, "rate_limited");
  EXPECT_EQ(CloudTransport::errorOf(500, json::object(), "soon").text, "Request failed (500)");
  EXPECT_EQ(*authMessage(CloudTransport::errorOf(429, {}, "10")).retrySeconds, 30);
  EXPECT_EQ(*authMessage(CloudTransport::errorOf(429, {}, "1000")).retrySeconds, 300);
  EXPECT_EQ(acceptedEmail(" Name@Example.COM \n"), "name@example.com");
  EXPECT_EQ(acceptedEmail("a@b"), std::nullopt);
  EXPECT_EQ(sixDigits("12 34 56"), "123456");
  EXPECT_EQ(sixDigits("12345"), std::nullopt);
}

TEST(StreamWire, EncoderSettingsAreReadStrictlyAndNeverGuessed) {
  using QvnCloud::parseResolution;
  EXPECT_EQ(parseResolution("1280×720"), (std::pair{1280, 720}));
  EXPECT_EQ(parseResolution(" 1280 * 720 "), (std::pair{1280, 720}));
  EXPECT_EQ(parseResolution("1920 X 1080"), (std::pair{1920, 1080}));
  EXPECT_EQ(parseResolution("1080P"), (std::pair{1920, 1080}));
  EXPECT_EQ(parseResolution("4K"), (std::pair{3840, 2160}));
  for (const char* bad : {"1080", "900p", "1x720", "12x34x56", "x720", ""})
    EXPECT_EQ(parseResolution(bad), std::nullopt) << bad;

  const json good = {{"resolution", "720p"},
                     {"bitrate_kbps", 4500.0},
                     {"fps", " 30 "},
                     {"audio_bitrate_kbps", 128}};
  auto parse = [](const json& j) { return QvnCloud::parseStreamConfig(&j); };
  EXPECT_EQ(std::get<QvnCloud::StreamConfig>(parse(good)),
            (QvnCloud::StreamConfig{1280, 720, 30, 4'500'000, 128'000}));
  auto refused = [&](const char* key, json value) {
    json j = good;
    if (value.is_null())
      j.erase(key);
    else
      j[key] = value;
    return std::get<std::string>(parse(j));
  };
  EXPECT_EQ(std::get<std::string>(QvnCloud::parseStreamConfig(nullptr)),
            "The web engine did not return stream_config — cannot start Go Live without real "
            "encoder settings.");
  EXPECT_EQ(refused("resolution", nullptr),
            "stream_config is missing resolution — cannot guess an encode size.");
  EXPECT_EQ(refused("resolution", "1080"),
            "stream_config.resolution 1080 is not a size I can parse.");
  EXPECT_EQ(refused("bitrate_kbps", 0),
            "stream_config is missing bitrate_kbps — cannot guess a video bitrate.");
  for (json fps : {json(0), json(121), json(29.97)})
    EXPECT_EQ(refused("fps", fps),
              "stream_config is missing a usable fps — cannot guess a frame rate.");
  EXPECT_EQ(refused("audio_bitrate_kbps", nullptr),
            "stream_config is missing audio_bitrate_kbps — cannot guess an audio bitrate.");
}

TEST(StreamWire, DestinationsAndTheirSessionStatesTakeNamesFromWhatIsKnown) {
  const auto list = QvnCloud::parseDestinations(
      {{"data",
        {{{"id", "d1"}, {"platform", "YouTube"}, {"is_enabled", true}, {"has_key", true}},
         {{"platform", "twitch"}},
         {{"id", "d2"}, {"platform", "x"}, {"name", "Our X"}}}}});
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].name, "YouTube");
  EXPECT_TRUE(list[0].isEnabled && list[0].hasKey);
  EXPECT_FALSE(list[1].isEnabled || list[1].hasKey);
  const auto states = QvnCloud::parseSessionDestinations(
      {{"destinations",
        {{{"destination_id", "d2"}, {"status", "live"}}, {{"id", "d9"}, {"platform", "rtmp"}}}}},
      list);
  ASSERT_EQ(states.size(), 2u);
  EXPECT_EQ(states[0].name, "Our X");
  EXPECT_EQ(states[1].name, "Custom RTMP");
  EXPECT_EQ(states[1].status, "unknown");
}

TEST_F(CloudAccountTest, FiveRequestsMeetingA401ShareOneRefreshAndEachRetriesOnce) {
  signedIn();
  std::vector<int> statuses;
  for (int i = 0; i < 5; ++i)
    account->transport().request("GET", "/v1/destinations", std::nullopt, true,
                                 [&](CloudResult r) { statuses.push_back(r.status); });
  for (int i = 0; i < 5; ++i) http->reply("/v1/destinations", 401);
  EXPECT_EQ(http->count("/v1/auth/refresh"), 1);
  EXPECT_EQ(http->last("/v1/auth/refresh")->body()["refresh_token"], "r1");
  http->reply("/v1/auth/refresh", 200, {{"access_token", "a2"}});  // no new refresh token
  EXPECT_EQ(store->values["refresh"], "r1");
  EXPECT_EQ(http->count("/v1/destinations"), 5);
  EXPECT_THAT(
      http->last("/v1/destinations")->request.headers,
      ::testing::Contains(std::pair<std::string, std::string>("Authorization", "Bearer a2")));
  // The retries meet a 401 again: that goes to the callers, with no second refresh.
  for (int i = 0; i < 5; ++i) http->reply("/v1/destinations", 401);
  EXPECT_EQ(http->count("/v1/auth/refresh"), 0);
  EXPECT_THAT(statuses, ElementsAre(401, 401, 401, 401, 401));
}

TEST_F(CloudAccountTest, ARevokedRefreshSignsOutButAnUnreachableServerKeepsTheTokens) {
  signedIn();
  account->user = QvnCloud::User{"a@x.io"};
  account->transport().request("GET", "/v1/auth/me", std::nullopt, true, [](CloudResult) {});
  http->reply("/v1/auth/me", 401);
  http->fail("/v1/auth/refresh");
  EXPECT_TRUE(account->authStatusUnavailable());
  EXPECT_EQ(store->values.count("access"), 1u);

  account->transport().request("GET", "/v1/auth/me", std::nullopt, true, [](CloudResult) {});
  http->reply("/v1/auth/me", 401);
  http->reply("/v1/auth/refresh", 401, {{"error", "invalid_refresh_token"}});
  http->reply("/v1/auth/logout", 204);
  EXPECT_EQ(store->values.count("access"), 0u);
  EXPECT_EQ(store->values.count("refresh"), 0u);
  EXPECT_FALSE(account->user());
  EXPECT_FALSE(account->signedIn());
}

TEST_F(CloudAccountTest, ATokenNearItsEndIsRefreshedAheadAndEmptyTokensAreRemoved) {
  signedIn(tokenExpiringIn(60));
  account->transport().scheduleProactiveRefresh();
  main.advance(0.9);
  EXPECT_EQ(http->count("/v1/auth/refresh"), 0);
  main.advance(0.2);
  EXPECT_EQ(http->count("/v1/auth/refresh"), 1);
  http->reply("/v1/auth/refresh", 200, {{"access_token", ""}, {"refresh_token", "r2"}});
  EXPECT_EQ(store->values.count("access"), 0u);
  EXPECT_EQ(store->values["refresh"], "r2");
}

TEST_F(CloudAccountTest, StartingOfflineWithTokensKeepsTheLastUserAndRetriesWithBackOff) {
  settings->set("qvn.cloud.lastUser", json{{"email", "a@x.io"}, {"display_name", "Ana"}}.dump());
  signedIn(tokenExpiringIn(3600));
  account->restore();
  EXPECT_EQ(store->values["device"].size(), 64u);
  EXPECT_EQ(account->user()->name, "Ana");
  http->fail("/v1/auth/me");
  EXPECT_TRUE(account->authStatusUnavailable());
  EXPECT_TRUE(account->signedIn());  // the studio, not the sign-in screen
  for (double step : {5.0, 10.0, 20.0}) {
    main.advance(step - 0.1);
    EXPECT_EQ(http->count("/v1/auth/me"), 0) << step;
    main.advance(0.1);
    ASSERT_EQ(http->count("/v1/auth/me"), 1) << step;
    http->fail("/v1/auth/me");
  }
  main.advance(40);
  http->reply("/v1/auth/me", 200, {{"user", {{"email", "a@x.io"}, {"display_name", "Ana B"}}}});
  EXPECT_FALSE(account->authStatusUnavailable());
  EXPECT_EQ(account->user()->name, "Ana B");
}

TEST_F(CloudAccountTest, SignInByCodeNormalisesTheAddressAndTakesTheCodeAsSixDigits) {
  account->typedEmail = "a@b";
  account->startMagic(QvnMagicIntent::signIn);
  EXPECT_EQ(account->error(), "Enter a full email address, like you@example.com.");
  EXPECT_TRUE(http->sent.empty());

  account->typedEmail = " Name@Example.COM ";
  account->startMagic(QvnMagicIntent::signIn);
  const json start = http->last("/v1/auth/magic/start")->body();
  EXPECT_EQ(start["email"], "name@example.com");
  EXPECT_EQ(start["intent"], "signin");
  EXPECT_EQ(start["platform"], "linux");
  http->reply("/v1/auth/magic/start", 200, {{"request_id", "q1"}, {"account", "existing"}});
  EXPECT_EQ(account->magicPhase(), QvnMagicPhase::waiting);
  EXPECT_EQ(account->resendSeconds(), 30);

  account->oneTimeCode = "12345";
  account->submitMagicCode();
  EXPECT_EQ(account->error(), "Enter the 6-digit code from the email.");
  account->oneTimeCode = "65 43 21";
  account->submitMagicCode();
  const json code = http->last("/v1/auth/magic/code")->body();
  EXPECT_EQ(code["code"], "654321");
  EXPECT_EQ(QvnCloud::challenge(code["code_verifier"]), start["code_challenge"]);
  http->reply("/v1/auth/magic/code", 401, {{"error", "invalid_code"}});
  EXPECT_EQ(account->oneTimeCode(), "");
  EXPECT_EQ(account->magicPhase(), QvnMagicPhase::waiting);

  // The poll goes on meanwhile: pending keeps 3 s, a rate limit stretches it to 10 s.
  main.advance(3);
  http->reply("/v1/auth/magic/poll", 429);
  main.advance(9);
  EXPECT_EQ(http->count("/v1/auth/magic/poll"), 0);
  main.advance(1);
  http->reply("/v1/auth/magic/poll", 202, {{"status", "pending"}});
  main.advance(3);
  http->reply("/v1/auth/magic/poll", 200,
              {{"access_token", "a1"}, {"refresh_token", "r1"}, {"user", {{"name", "N"}}}});
  EXPECT_EQ(store->values["access"], "a1");
  EXPECT_EQ(account->user()->email, "name@example.com");
  EXPECT_EQ(http->count("/v1/auth/me"), 1);
  EXPECT_EQ(account->magicPhase(), QvnMagicPhase::email);
}

TEST_F(CloudAccountTest, AnUnknownAddressCreatesAnAccountAndAnOlderServerIsAskedPlainly) {
  account->typedEmail = "new@x.io";
  account->startMagic(QvnMagicIntent::signIn);
  http->reply("/v1/auth/magic/start", 404, {{"error", "no_account"}});
  EXPECT_EQ(account->magicPhase(), QvnMagicPhase::create);
  account->signupName = std::string(100, 'n');
  account->startMagic(QvnMagicIntent::signUp);
  json body = http->last("/v1/auth/magic/start")->body();
  EXPECT_EQ(body["intent"], "signup");
  EXPECT_EQ(body["full_name"].get<std::string>().size(), 80u);
  http->reply(
      "/v1/auth/magic/start", 400,
      {{"code", "FST_ERR_VALIDATION"}, {"message", "body must NOT have additional properties"}});
  body = http->last("/v1/auth/magic/start")->body();
  EXPECT_FALSE(body.contains("intent") || body.contains("full_name"));
  http->reply("/v1/auth/magic/start", 429, json::object(), {{"retry-after", "5"}});
  EXPECT_EQ(account->authRetrySeconds(), 30);
  account->startMagic(QvnMagicIntent::signUp);  // blocked while the count runs
  EXPECT_EQ(http->count("/v1/auth/magic/start"), 0);
  main.advance(30);
  EXPECT_EQ(account->error(), std::nullopt);
}

TEST_F(CloudAccountTest, AnExpiredCodeSendsANewOneAndAnExpiredPollGoesBackToTheAddress) {
  account->typedEmail = "a@x.io";
  account->startMagic(QvnMagicIntent::signIn);
  http->reply("/v1/auth/magic/start", 200, {{"request_id", "q1"}});
  account->oneTimeCode = "111111";
  account->submitMagicCode();
  http->reply("/v1/auth/magic/code", 410);
  EXPECT_EQ(http->count("/v1/auth/magic/start"), 1);
  http->reply("/v1/auth/magic/start", 200, {{"request_id", "q2"}});
  EXPECT_EQ(account->error(), "That code had expired, so we've sent a new one.");
  main.advance(3);
  EXPECT_EQ(http->last("/v1/auth/magic/poll")->body()["request_id"], "q2");
  http->reply("/v1/auth/magic/poll", 410);
  EXPECT_EQ(account->magicPhase(), QvnMagicPhase::email);
  EXPECT_EQ(account->error(), "That sign-in expired. Send a new code to continue.");
}

TEST_F(CloudAccountTest, ASessionDeleteOutlivesALostTokenOrNetworkAndAPassStopsAtAFailure) {
  auto queued = [&] {
    std::vector<std::string> ids;
    for (const auto& v : settings->list("qvn.pendingSessionDeletes").value_or(SettingsList{}))
      ids.push_back(*v.asText());
    return ids;
  };
  account->deleteLiveSession("s1");  // no token yet
  EXPECT_TRUE(http->sent.empty());
  signedIn();
  account->deleteLiveSession("s2");
  http->fail("/v1/streams/sessions/s2");  // the network is down
  account->deleteLiveSession("s3");
  http->reply("/v1/streams/sessions/s3", 404);  // gone already: nothing to retry
  account->deleteLiveSession("s1");
  http->reply("/v1/streams/sessions/s1", 500);
  EXPECT_THAT(queued(), ElementsAre("s1", "s2"));

  account->flushPendingDeletes();
  http->reply("/v1/streams/sessions/s1", 204);
  http->reply("/v1/streams/sessions/s2", 503);
  EXPECT_THAT(queued(), ElementsAre("s2"));
  EXPECT_TRUE(http->sent.empty());
}

TEST_F(CloudAccountTest, ADestinationTurnsAtOnceAndBackWhenTheServerRefuses) {
  signedIn();
  account->loadDestinations();
  http->reply("/v1/destinations", 200,
              {{"destinations", {{{"id", "d1"}, {"platform", "youtube"}, {"has_key", true}}}}});
  account->toggle("d1", true);
  EXPECT_TRUE(account->destinations()[0].isEnabled);
  EXPECT_EQ(http->last("/v1/destinations/d1")->body()["is_enabled"], true);
  http->reply("/v1/destinations/d1", 503);
  EXPECT_FALSE(account->destinations()[0].isEnabled);
  EXPECT_EQ(account->error(),
            "YouTube could not be turned on: Quorvane couldn't start the session (503). Try "
            "again in a moment.");
}

TEST_F(CloudAccountTest, AWebSignInOpensTheBrowserAndOnlyItsOwnCallbackCompletesIt) {
  account->startOAuth("google");
  const std::string url = http->sent.back().request.url;
  EXPECT_THAT(url,
              ::testing::StartsWith("http://127.0.0.1:9/v1/auth/oauth/google/start?device_id="));
  http->sent.back().done({302, {{"location", "https://accounts.example/"}}, "", ""});
  http->sent.pop_back();
  ASSERT_EQ(opened.size(), 1u);
  EXPECT_FALSE(account->oauthBusy());  // a browser closed without an answer blocks nothing

  account->handleAuthURL("https://elsewhere/cb?code=x");  // not ours: ignored
  account->handleAuthURL("quorvanestudio://auth/callback?code=c1&state=foreign");
  EXPECT_EQ(account->error(), "That sign-in did not match this window. Start again.");
  EXPECT_TRUE(http->sent.empty());

  const std::string state = url.substr(url.find("&state=") + 7);
  account->handleAuthURL("quorvanestudio://auth/callback?code=c1&state=" + state);
  const json exchange = http->last("/v1/auth/oauth/exchange")->body();
  EXPECT_EQ(exchange["code"], "c1");
  http->reply("/v1/auth/oauth/exchange", 200, {{"access_token", "a1"}, {"refresh_token", "r1"}});
  EXPECT_TRUE(account->user());
  EXPECT_FALSE(account->oauthBusy());
}

}  // namespace
}  // namespace qvn::test
