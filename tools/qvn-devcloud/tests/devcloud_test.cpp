// The devcloud over real HTTP on 127.0.0.1, run in this process on a thread of its own, with
// a clock the tests move on: both ways of e-mail sign-in, the web sign-in, token rotation and
// revocation, expiry, and the controls the studio's tests use.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <mutex>
#include <regex>
#include <thread>

#include "devcloud_server.h"
#include "devcloud_store.h"
#include "http_test_client.h"
#include "jwt.h"
#include "platform/crypto.h"

namespace qvn::devcloud::test {
namespace {

using json = nlohmann::json;

struct Pkce {
  std::string verifier;
  std::string challenge;
};

Pkce pkce() {
  Pkce p;
  p.verifier = base64url(randomBytes(32));
  p.challenge = base64url(sha256(p.verifier));
  return p;
}

struct Tokens {
  std::string access;
  std::string refresh;
};

class DevCloud : public ::testing::Test {
 protected:
  DevCloud() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvn-devcloud-XXXXXX");
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
    dir = pattern;
  }

  ~DevCloud() override {
    stop();
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }

  void start(DevCloudOptions options = {}) {
    options.database = (dir / "cloud.sqlite").string();
    ServerHooks hooks;
    hooks.clock = [this] { return clock.load(); };
    hooks.announce = [this](const std::string& line) {
      std::lock_guard lock(mutex);
      announced.push_back(line);
    };
    hooks.log = [this](const std::string& line) {
      std::lock_guard lock(mutex);
      logged.push_back(line);
    };
    server = std::make_unique<DevCloudServer>(options, hooks);
    client = std::make_unique<TestClient>(server->port());
    thread = std::thread([this] { server->run(); });
  }

  void stop() {
    if (!server) return;
    server->stop();
    thread.join();
    server.reset();
  }

  Reply startMagic(const std::string& email, const Pkce& p, const std::string& intent,
                   const std::string& device = "dev-1") {
    json body = {{"email", email},    {"device_id", device},           {"device_name", "Desk"},
                 {"platform", "mac"}, {"code_challenge", p.challenge}, {"intent", intent}};
    if (intent == "signup") body["full_name"] = "Ana Lima";
    return client->post("/v1/auth/magic/start", body);
  }

  std::string lastCode(const std::string& email) {
    return client->get("/dev/last-code?email=" + email).json().value("code", "");
  }

  Reply sendCode(const std::string& requestId, const std::string& code, const Pkce& p) {
    return client->post("/v1/auth/magic/code",
                        {{"request_id", requestId}, {"code", code}, {"code_verifier", p.verifier}});
  }

  Reply poll(const std::string& requestId, const Pkce& p) {
    return client->post("/v1/auth/magic/poll",
                        {{"request_id", requestId}, {"code_verifier", p.verifier}});
  }

  // A whole sign-up or sign-in by code.
  Tokens signIn(const std::string& email, const std::string& device = "dev-1") {
    const Pkce p = pkce();
    auto started = startMagic(email, p, "signup", device);
    EXPECT_EQ(started.status, 200u) << started.body;
    const auto reply = sendCode(started.json().value("request_id", ""), lastCode(email), p);
    EXPECT_EQ(reply.status, 200u) << reply.body;
    return {reply.json().value("access_token", ""), reply.json().value("refresh_token", "")};
  }

  Reply refresh(const std::string& token, const std::string& device = "dev-1") {
    return client->post("/v1/auth/refresh", {{"refresh_token", token}, {"device_id", device}});
  }

  std::vector<std::string> announcedLines() {
    std::lock_guard lock(mutex);
    return announced;
  }
  std::vector<std::string> loggedLines() {
    std::lock_guard lock(mutex);
    return logged;
  }

  std::filesystem::path dir;
  std::atomic<std::int64_t> clock{1'700'000'000};
  std::unique_ptr<DevCloudServer> server;
  std::unique_ptr<TestClient> client;
  std::thread thread;
  std::mutex mutex;
  std::vector<std::string> announced;
  std::vector<std::string> logged;
};

json payloadOf(const std::string& jwt) {
  const auto first = jwt.find('.');
  const auto bytes = base64urlDecode(jwt.substr(first + 1, jwt.rfind('.') - first - 1));
  return bytes ? json::parse(bytes->begin(), bytes->end()) : json();
}

TEST_F(DevCloud, SignUpThenSignInByCode) {
  start();
  const Pkce first = pkce();
  const auto unknown = startMagic(" Ana@Example.COM ", first, "signin");
  EXPECT_EQ(unknown.status, 404u);
  EXPECT_EQ(unknown.json()["error"], "no_account");
  EXPECT_FALSE(unknown.json().value("message", "").empty());

  // A newer studio may send keys this service doesn't know: they are no reason to refuse.
  json body = {{"email", " Ana@Example.COM "},
               {"device_id", "dev-1"},
               {"device_name", "Desk"},
               {"platform", "mac"},
               {"code_challenge", first.challenge},
               {"intent", "signup"},
               {"full_name", "Ana Lima"},
               {"locale", "pt-BR"}};
  const auto created = client->post("/v1/auth/magic/start", body);
  ASSERT_EQ(created.status, 200u) << created.body;
  EXPECT_EQ(created.json()["account"], "new");
  const std::string requestId = created.json()["request_id"];

  const auto last = client->get("/dev/last-code?email=ana%40example.com").json();
  EXPECT_EQ(last["request_id"], requestId);
  const std::string code = last["code"];
  EXPECT_TRUE(std::regex_match(code, std::regex("[0-9]{6}")));
  EXPECT_EQ(announcedLines().at(0), "code for ana@example.com: " + code);

  const auto signedUp = sendCode(requestId, code, first);
  ASSERT_EQ(signedUp.status, 200u) << signedUp.body;
  const json user = signedUp.json()["user"];
  EXPECT_EQ(user, json({{"email", "ana@example.com"},
                        {"display_name", "Ana Lima"},
                        {"username", "ana"},
                        {"role", "user"},
                        {"status", "active"}}));
  const std::string access = signedUp.json()["access_token"];
  const std::string refreshToken = signedUp.json()["refresh_token"];
  const json claims = payloadOf(access);
  EXPECT_EQ(claims["email"], "ana@example.com");
  EXPECT_EQ(claims["device_id"], "dev-1");
  EXPECT_EQ(claims["iat"], clock.load());
  EXPECT_EQ(claims["exp"].get<std::int64_t>() - claims["iat"].get<std::int64_t>(), 900);

  EXPECT_EQ(client->get("/v1/auth/me", access).json(), json({{"user", user}}));
  // A code opens one sign-in only.
  EXPECT_EQ(sendCode(requestId, code, first).status, 410u);

  // Sign-in of the account now there, and a second sign-up of it, keep its name.
  for (const char* intent : {"signin", "signup"}) {
    const Pkce again = pkce();
    const auto started = startMagic("ana@example.com", again, intent);
    ASSERT_EQ(started.status, 200u);
    EXPECT_EQ(started.json()["account"], "existing");
    const auto reply = sendCode(started.json()["request_id"], lastCode("ana@example.com"), again);
    ASSERT_EQ(reply.status, 200u);
    EXPECT_EQ(reply.json()["user"]["display_name"], "Ana Lima");
  }

  for (const char* address : {"a@b", "ana example.com@x.y", "@example.com"}) {
    const auto refused = startMagic(address, pkce(), "signup");
    EXPECT_EQ(refused.status, 400u) << address;
    EXPECT_EQ(refused.json()["error"], "invalid_email");
  }

  // The log names every request, but the code only on its own deliberate lines, and tokens
  // never.
  const auto log = loggedLines();
  EXPECT_NE(std::find(log.begin(), log.end(), "POST /v1/auth/magic/code 200"), log.end());
  for (const auto& line : log) {
    EXPECT_EQ(line.find(access), std::string::npos);
    EXPECT_EQ(line.find(refreshToken), std::string::npos);
    if (line.find(code) != std::string::npos) {
      EXPECT_TRUE(line.starts_with("code for ") || line.starts_with("link for ")) << line;
    }
  }
}

TEST_F(DevCloud, PollStaysPendingUntilTheMailLinkIsOpened) {
  start();
  const Pkce p = pkce();
  const std::string requestId = startMagic("bo@example.com", p, "signup").json()["request_id"];
  for (int i = 0; i < 2; ++i) {
    const auto pending = poll(requestId, p);
    EXPECT_EQ(pending.status, 202u);
    EXPECT_EQ(pending.json(), json({{"status", "pending"}}));
  }

  const auto lines = announcedLines();
  ASSERT_EQ(lines.size(), 2u);
  const std::string prefix = "link for bo@example.com: " + server->address();
  ASSERT_TRUE(lines[1].starts_with(prefix + "/v1/auth/magic/approve?")) << lines[1];
  const std::string target = lines[1].substr(prefix.size());
  EXPECT_EQ(queryParameter(target, "request_id"), requestId);

  // A link with another code approves nothing.
  std::string forged = target.substr(0, target.find("code=") + 5) + "000000";
  if (forged == target) forged.back() = '1';
  EXPECT_EQ(client->get(forged).status, 400u);
  EXPECT_EQ(poll(requestId, p).status, 202u);

  const auto page = client->get(target);
  EXPECT_EQ(page.status, 200u);
  EXPECT_TRUE(page.header("content-type").starts_with("text/html"));
  EXPECT_NE(page.body.find("Quorvane Studio can continue"), std::string::npos);

  const auto done = poll(requestId, p);
  ASSERT_EQ(done.status, 200u) << done.body;
  EXPECT_EQ(done.json()["user"]["email"], "bo@example.com");
  EXPECT_EQ(client->get("/v1/auth/me", done.json()["access_token"]).status, 200u);

  // Finished is finished, by either way; a request nobody made is gone as well.
  EXPECT_EQ(poll(requestId, p).status, 410u);
  EXPECT_EQ(sendCode(requestId, lastCode("bo@example.com"), p).status, 410u);
  const auto unknown = poll("no-such-request", p);
  EXPECT_EQ(unknown.status, 410u);
  EXPECT_EQ(unknown.json()["error"], "expired");
}

TEST_F(DevCloud, WrongCodesAreRefusedAndSpentOrExpiredRequestsAreGone) {
  start({.codeTtlSeconds = 1});
  const auto begin = [&](const Pkce& p) {
    return startMagic("cy@example.com", p, "signup").json()["request_id"].get<std::string>();
  };
  const auto wrongOf = [](const std::string& code) {
    return code == "123456" ? std::string("654321") : std::string("123456");
  };

  const Pkce a = pkce();
  const std::string first = begin(a);
  const std::string code = lastCode("cy@example.com");
  const auto wrong = sendCode(first, wrongOf(code), a);
  EXPECT_EQ(wrong.status, 401u);
  EXPECT_EQ(wrong.json()["error"], "invalid_code");
  EXPECT_EQ(sendCode(first, code, a).status, 200u);  // a slip of the finger costs nothing

  // Five wrong codes burn the request, so the right one no longer helps.
  const Pkce b = pkce();
  const std::string second = begin(b);
  const std::string secondCode = lastCode("cy@example.com");
  for (int i = 0; i < 5; ++i) EXPECT_EQ(sendCode(second, wrongOf(secondCode), b).status, 401u);
  EXPECT_EQ(sendCode(second, secondCode, b).status, 410u);

  const Pkce c = pkce();
  const std::string third = begin(c);
  const std::string thirdCode = lastCode("cy@example.com");
  const std::string link = announcedLines().back();
  clock += 1;
  const auto late = sendCode(third, thirdCode, c);
  EXPECT_EQ(late.status, 410u);
  EXPECT_EQ(late.json()["error"], "expired");
  EXPECT_EQ(poll(third, c).status, 410u);
  EXPECT_EQ(
      client->get(link.substr(link.find(server->address()) + server->address().size())).status,
      410u);
}

TEST_F(DevCloud, AVerifierThatIsNotTheStartersIsRefused) {
  start();
  const Pkce p = pkce(), other = pkce();
  const std::string requestId = startMagic("di@example.com", p, "signup").json()["request_id"];
  const std::string code = lastCode("di@example.com");
  const auto byCode = sendCode(requestId, code, other);
  EXPECT_EQ(byCode.status, 400u);
  EXPECT_EQ(byCode.json()["error"], "invalid_verifier");
  EXPECT_EQ(poll(requestId, other).status, 400u);
  // The verifier's own hash, sent as if it were the verifier, is no better.
  EXPECT_EQ(sendCode(requestId, code, {p.challenge, ""}).status, 400u);
  EXPECT_EQ(sendCode(requestId, code, p).status, 200u);

  auto noChallenge = startMagic("di@example.com", {"", ""}, "signin");
  EXPECT_EQ(noChallenge.status, 400u);
}

TEST_F(DevCloud, WebSignInFromStartToExchange) {
  start({.codeTtlSeconds = 60});
  const auto unknown = client->get("/v1/auth/oauth/myspace/start?code_challenge=x&state=y");
  EXPECT_EQ(unknown.status, 404u);
  EXPECT_EQ(unknown.json()["error"], "unknown_provider");
  EXPECT_FALSE(unknown.json().value("message", "").empty());
  EXPECT_EQ(client->get("/v1/auth/oauth/google/start?state=y").status, 400u);

  // Does what the browser does: start, the approval page, its link. Gives the callback URL.
  const auto approve = [&](const Pkce& p, const std::string& state, const std::string& email) {
    const auto started = client->get(
        "/v1/auth/oauth/google/start?device_id=dev-9&device_name=Desk&platform=mac"
        "&code_challenge=" +
        p.challenge + "&state=" + state);
    EXPECT_EQ(started.status, 302u);
    const std::string location = started.header("location");
    EXPECT_TRUE(location.starts_with(server->address() + "/dev/oauth/approve?")) << location;
    const auto page = client->get(location.substr(server->address().size()));
    EXPECT_EQ(page.status, 200u);
    const std::smatch found = [&] {
      std::smatch m;
      std::regex_search(page.body, m, std::regex(R"re(id="continue" href="([^"]+)")re"));
      return m;
    }();
    EXPECT_FALSE(found.empty()) << page.body;
    const std::string confirm = found.empty() ? "" : found[1].str();
    const auto callback = client->get(email.empty() ? confirm : confirm + "&email=" + email);
    EXPECT_EQ(callback.status, 302u) << callback.body;
    // The page can't be used a second time.
    EXPECT_EQ(client->get(location.substr(server->address().size())).status, 410u);
    EXPECT_EQ(client->get(confirm).status, 410u);
    return callback.header("location");
  };

  const Pkce p = pkce();
  // A state with characters that must travel escaped.
  const std::string callback = approve(p, "s%2Ft%20a%2Bte", "Eve%40Example.com");
  ASSERT_TRUE(callback.starts_with("quorvanestudio://auth/callback?")) << callback;
  EXPECT_EQ(queryParameter(callback, "state"), "s/t a+te");
  const auto code = queryParameter(callback, "code");
  ASSERT_TRUE(code && !code->empty());

  const json exchange = {{"code", *code},
                         {"code_verifier", pkce().verifier},
                         {"device_id", "dev-9"},
                         {"device_name", "Desk"},
                         {"platform", "mac"}};
  const auto mismatched = client->post("/v1/auth/oauth/exchange", exchange);
  EXPECT_EQ(mismatched.status, 400u);
  EXPECT_EQ(mismatched.json()["error"], "invalid_verifier");

  json good = exchange;
  good["code_verifier"] = p.verifier;
  const auto tokens = client->post("/v1/auth/oauth/exchange", good);
  ASSERT_EQ(tokens.status, 200u) << tokens.body;
  EXPECT_EQ(tokens.json()["user"]["email"], "eve@example.com");
  EXPECT_EQ(payloadOf(tokens.json()["access_token"])["device_id"], "dev-9");
  EXPECT_EQ(client->get("/v1/auth/me", tokens.json()["access_token"]).status, 200u);
  EXPECT_FALSE(tokens.json().value("refresh_token", "").empty());
  EXPECT_EQ(client->post("/v1/auth/oauth/exchange", good).status, 410u);  // used once

  // Without an address the page signs in its default one; a code left too long expires.
  const Pkce late = pkce();
  const auto lateCode = queryParameter(approve(late, "st", ""), "code");
  ASSERT_TRUE(lateCode);
  clock += 60;
  good["code"] = *lateCode;
  good["code_verifier"] = late.verifier;
  EXPECT_EQ(client->post("/v1/auth/oauth/exchange", good).status, 410u);
  good["code"] = "never-issued";
  EXPECT_EQ(client->post("/v1/auth/oauth/exchange", good).status, 410u);
}

TEST_F(DevCloud, RefreshRotatesAndRevocationsHold) {
  start();
  const Tokens first = signIn("fay@example.com");
  const auto rotated = refresh(first.refresh);
  ASSERT_EQ(rotated.status, 200u) << rotated.body;
  const Tokens second{rotated.json()["access_token"], rotated.json()["refresh_token"]};
  EXPECT_NE(second.refresh, first.refresh);
  const auto reused = refresh(first.refresh);
  EXPECT_EQ(reused.status, 401u);
  EXPECT_EQ(reused.json()["error"], "invalid_refresh_token");
  // Another computer can't use this one's token.
  EXPECT_EQ(refresh(second.refresh, "dev-2").status, 401u);
  const auto again = refresh(second.refresh);
  ASSERT_EQ(again.status, 200u);
  const Tokens third{again.json()["access_token"], again.json()["refresh_token"]};
  EXPECT_EQ(client->get("/v1/auth/me", third.access).status, 200u);

  // Signing out one computer ends its sign-in there, access token included, and only there.
  const Tokens other = signIn("fay@example.com", "dev-2");
  EXPECT_EQ(client->post("/v1/auth/logout", {{"device_id", "dev-1"}}, third.access).status, 204u);
  EXPECT_EQ(refresh(third.refresh).status, 401u);
  const auto afterLogout = client->get("/v1/auth/me", third.access);
  EXPECT_EQ(afterLogout.status, 401u);
  EXPECT_EQ(afterLogout.json()["error"], "invalid_token");
  EXPECT_EQ(client->get("/v1/auth/me", other.access).status, 200u);

  // The test control ends every sign-in of the account.
  const auto revoked = client->post("/dev/revoke", {{"email", "Fay@example.com"}});
  EXPECT_EQ(revoked.status, 200u);
  EXPECT_EQ(revoked.json()["revoked"], 1);
  EXPECT_EQ(refresh(other.refresh, "dev-2").json()["error"], "invalid_refresh_token");
  EXPECT_EQ(client->get("/v1/auth/me", other.access).status, 401u);
  EXPECT_EQ(client->post("/dev/revoke", {{"email", "nobody@example.com"}}).status, 404u);
  EXPECT_EQ(refresh("never-issued").status, 401u);
}

TEST_F(DevCloud, AccessTokensExpireAndForgeriesAreRefused) {
  start({.accessTtlSeconds = 1});
  const Tokens tokens = signIn("gus@example.com");
  EXPECT_EQ(client->get("/v1/auth/me", tokens.access).status, 200u);
  clock += 1;
  const auto expired = client->get("/v1/auth/me", tokens.access);
  EXPECT_EQ(expired.status, 401u);
  EXPECT_EQ(expired.json()["error"], "invalid_token");
  // The refresh token outlives it, and brings a good one.
  const auto renewed = refresh(tokens.refresh);
  ASSERT_EQ(renewed.status, 200u);
  const std::string fresh = renewed.json()["access_token"];
  EXPECT_EQ(client->get("/v1/auth/me", fresh).status, 200u);

  // Its payload with a later expiry, under the old signature.
  auto claims = payloadOf(fresh);
  claims["exp"] = clock.load() + 3600;
  const std::string body = claims.dump();
  const std::string stretched =
      fresh.substr(0, fresh.find('.') + 1) +
      base64url(std::span(reinterpret_cast<const std::uint8_t*>(body.data()), body.size())) +
      fresh.substr(fresh.rfind('.'));
  EXPECT_EQ(client->get("/v1/auth/me", stretched).status, 401u);
  // Signed by another database's secret.
  EXPECT_EQ(
      client->get("/v1/auth/me", signJwt(payloadOf(fresh), Store(":memory:").tokenSecret())).status,
      401u);
  EXPECT_EQ(client->get("/v1/auth/me").status, 401u);
  EXPECT_EQ(client->send("GET", "/v1/auth/me", "", "garbage").status, 401u);
  EXPECT_EQ(client->post("/v1/events", {{"event_type", "login"}}).status, 401u);
  EXPECT_EQ(client->post("/v1/events", {{"event_type", "login"}}, fresh).status, 200u);
}

TEST_F(DevCloud, NextFailureServesTheAskedFailureThenStepsAside) {
  start();
  const auto armed = client->post("/dev/next-failure", {{"path", "/v1/auth/magic/start"},
                                                        {"status", 429},
                                                        {"retry_after", 10},
                                                        {"error", "rate_limited"},
                                                        {"times", 1}});
  ASSERT_EQ(armed.status, 200u) << armed.body;
  const auto limited = startMagic("hal@example.com", pkce(), "signup");
  EXPECT_EQ(limited.status, 429u);
  EXPECT_EQ(limited.header("retry-after"), "10");
  EXPECT_EQ(limited.json()["error"], "rate_limited");
  EXPECT_FALSE(limited.json().value("message", "").empty());
  EXPECT_TRUE(announcedLines().empty());  // refused before any code was made
  EXPECT_EQ(startMagic("hal@example.com", pkce(), "signup").status, 200u);

  ASSERT_EQ(
      client->post("/dev/next-failure", {{"path", "/v1/auth/me"}, {"status", 503}, {"times", 2}})
          .status,
      200u);
  for (int i = 0; i < 2; ++i) {
    const auto busy = client->get("/v1/auth/me");
    EXPECT_EQ(busy.status, 503u);
    EXPECT_EQ(busy.header("retry-after"), "");
  }
  EXPECT_EQ(client->get("/v1/auth/me").status, 401u);

  for (const json& bad : {json{{"path", "/v1/auth/me"}, {"status", 200}},
                          json{{"path", "/dev/revoke"}, {"status", 500}}, json{{"status", 500}},
                          json{{"path", "/v1/auth/me"}, {"status", 500}, {"times", 0}}})
    EXPECT_EQ(client->post("/dev/next-failure", bad).status, 400u) << bad;
}

TEST_F(DevCloud, RefusesWhatItCannotReadInItsOwnShape) {
  start();
  const auto missing = client->get("/v1/nothing");
  EXPECT_EQ(missing.status, 404u);
  EXPECT_EQ(missing.json()["error"], "not_found");
  const auto wrongMethod = client->get("/v1/auth/refresh");
  EXPECT_EQ(wrongMethod.status, 405u);
  EXPECT_EQ(wrongMethod.header("allow"), "POST");
  const auto notJson = client->send("POST", "/v1/auth/magic/start", "{email:");
  EXPECT_EQ(notJson.status, 400u);
  EXPECT_EQ(notJson.json()["error"], "invalid_json");
  const auto wrongType = client->post("/v1/auth/magic/start", {{"email", 5}});
  EXPECT_EQ(wrongType.status, 400u);
  EXPECT_EQ(wrongType.json()["error"], "invalid_request");
  EXPECT_EQ(client->get("/dev/last-code?email=nobody@example.com").status, 404u);
}

TEST_F(DevCloud, KeepsAccountsTokensAndTheSecretAcrossRestarts) {
  start();
  const Tokens tokens = signIn("ida@example.com");
  EXPECT_EQ(
      client->post("/v1/events", {{"event_type", "login"}, {"platform", "macos"}}, tokens.access)
          .json(),
      json::object());
  EXPECT_EQ(
      client->post("/v1/support", {{"subject", "Studio: hi"}, {"message", "m"}}, tokens.access)
          .status,
      200u);
  stop();

  start();
  EXPECT_EQ(client->get("/v1/auth/me", tokens.access).json()["user"]["email"], "ida@example.com");
  EXPECT_EQ(refresh(tokens.refresh).status, 200u);
  EXPECT_EQ(startMagic("ida@example.com", pkce(), "signin").json()["account"], "existing");
  stop();

  Store store((dir / "cloud.sqlite").string());
  EXPECT_EQ(store.eventCount(), 1);
  EXPECT_EQ(store.supportMessageCount(), 1);
}

}  // namespace
}  // namespace qvn::devcloud::test
