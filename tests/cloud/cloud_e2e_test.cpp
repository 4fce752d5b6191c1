// The account end to end against qvn-devcloud on loopback, over the real HTTP client and
// the 0600 file store: signing up and in by code and by the mail's link, the words for a
// wrong, expired and rate-limited code, a web sign-in whose answer comes back through the
// running studio, a token renewed after it ran out, a restart that stays signed in, and
// sign-out; and no token ever in the log.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "cloud/account.h"
#include "cloud/devcloud_process.h"
#include "platform/defaults.h"
#include "platform/files.h"
#include "platform/http.h"
#include "platform/secure_store.h"
#include "platform/single_instance.h"
#include "support/qvn_log.h"

namespace qvn::test {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
namespace fs = std::filesystem;

class CloudEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    work = makeTempDir("cloud-e2e");
    saved = appPaths();
    setAppPaths(AppPaths::underRoot(work / "studio"));
    settings = std::make_unique<Defaults>(appPaths().settingsFile());
    http = makeHttpClient(main);
  }
  void TearDown() override {
    account.reset();
    http.reset();
    settings.reset();
    cloud.reset();
    QvnLog::flush();
    setAppPaths(saved);
    fs::remove_all(work);
  }

  void startCloud(std::vector<std::string> extra = {}) {
    cloud = std::make_unique<DevCloudProcess>(work, std::move(extra));
    apiBase = cloud->apiBase();
    ASSERT_FALSE(apiBase.empty()) << readFile(work / "cloud.err").value_or("");
  }
  CloudAccount& open() {
    account.reset();
    account = std::make_unique<CloudAccount>(
        CloudAccount::Services{{main, http, makeFileSecureStore(secrets()), *settings, apiBase,
                                [] { return std::string("e2e-machine"); }},
                               [this](const std::string& url) {
                                 browserQueue.push_back(url);
                                 return true;
                               },
                               "E2E Computer",
                               "0.1.0"});
    return *account;
  }
  fs::path secrets() const { return appPaths().dataDir / "secrets.json"; }

  // Runs the main queue until `done`, with a bound for liveness only.
  template <class F>
  bool until(F done) {
    for (auto deadline = std::chrono::steady_clock::now() + 15s;
         !done() && std::chrono::steady_clock::now() < deadline;)
      main.drainWaiting(0.02);
    return done();
  }
  HttpResponse call(const std::string& method, const std::string& path, json body = nullptr) {
    HttpRequest r;
    r.method = method;
    r.url = path.rfind("http", 0) == 0 ? path : apiBase + path;
    if (!body.is_null()) {
      r.body = body.dump();
      r.headers.emplace_back("Content-Type", "application/json");
    }
    std::optional<HttpResponse> reply;
    http->send(r, [&](HttpResponse response) { reply = std::move(response); });
    until([&] { return reply.has_value(); });
    return reply.value_or(HttpResponse{});
  }
  json lastCode(const std::string& email) {
    return json::parse(call("GET", "/dev/last-code?email=" + email).body);
  }
  void signUpByCode(const std::string& email, const std::string& name) {
    CloudAccount& a = *account;
    a.typedEmail = email;
    a.startMagic(QvnMagicIntent::signIn);
    ASSERT_TRUE(until([&] { return a.magicPhase() == QvnMagicPhase::create; }));
    a.signupName = name;
    a.startMagic(QvnMagicIntent::signUp);
    ASSERT_TRUE(until([&] { return a.magicPhase() == QvnMagicPhase::waiting; }));
    a.oneTimeCode = lastCode(email)["code"];
    a.submitMagicCode();
    ASSERT_TRUE(until([&] { return a.signedIn() && a.user()->name == name; }));
  }

  fs::path work;
  AppPaths saved;
  ManualMainQueue main;
  std::unique_ptr<Defaults> settings;
  std::shared_ptr<HttpClient> http;
  std::unique_ptr<DevCloudProcess> cloud;
  std::string apiBase;
  std::unique_ptr<CloudAccount> account;
  std::vector<std::string> browserQueue;
};

TEST_F(CloudEndToEnd, SignUpAndInByCodeAndByLinkStaySignedInAcrossARestartAndSignOut) {
  startCloud();
  open();
  signUpByCode("ana@example.com", "Ana Lima");

  account->logout();
  ASSERT_TRUE(until([&] { return !account->signedIn(); }));

  // By the mail's link: the poll finishes it.
  account->typedEmail = "Ana@Example.com";
  account->startMagic(QvnMagicIntent::signIn);
  ASSERT_TRUE(until([&] { return account->magicPhase() == QvnMagicPhase::waiting; }));
  const json code = lastCode("ana@example.com");
  ASSERT_EQ(
      call("GET", "/v1/auth/magic/approve?request_id=" + code["request_id"].get<std::string>() +
                      "&code=" + code["code"].get<std::string>())
          .status,
      200);
  main.advance(3);
  ASSERT_TRUE(until([&] { return account->signedIn(); }));
  const auto tokens = json::parse(readFile(secrets()).value_or("{}"));
  struct stat info {};
  ASSERT_EQ(::stat(secrets().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  // A new start with the tokens it kept: signed in without a new sign-in.
  open().restore();
  EXPECT_TRUE(account->signedIn());
  ASSERT_TRUE(until([&] { return account->user() && account->user()->name == "Ana Lima"; }));
  EXPECT_FALSE(account->authStatusUnavailable());
  EXPECT_EQ(lastCode("ana@example.com"), code);

  account->logout();
  ASSERT_TRUE(until([&] { return !account->signedIn(); }));
  EXPECT_EQ(call("POST", "/v1/auth/refresh",
                 {{"refresh_token", tokens.value("refresh", "")}, {"device_id", "x"}})
                .status,
            401);
  QvnLog::flush();
  const std::string log = readFile(appPaths().logFile()).value_or("");
  for (const char* kind : {"access", "refresh"}) {
    ASSERT_TRUE(tokens.contains(kind)) << tokens.dump();
    EXPECT_EQ(log.find(tokens[kind].get<std::string>()), std::string::npos) << kind;
  }
}

TEST_F(CloudEndToEnd, WrongExpiredAndRateLimitedCodesEachSayWhatToDo) {
  startCloud({"--code-ttl", "2"});
  CloudAccount& a = open();
  signUpByCode("bo@example.com", "Bo");
  a.logout();
  ASSERT_TRUE(until([&] { return !a.signedIn(); }));

  a.startMagic(QvnMagicIntent::signIn);
  ASSERT_TRUE(until([&] { return a.magicPhase() == QvnMagicPhase::waiting; }));
  const std::string right = lastCode("bo@example.com")["code"];
  a.oneTimeCode = right == "000000" ? "111111" : "000000";
  a.submitMagicCode();
  ASSERT_TRUE(until([&] { return !a.magicBusy() && a.error(); }));
  EXPECT_EQ(a.error(), "That code isn't right. Check the latest email and try again.");

  std::this_thread::sleep_for(2500ms);
  a.oneTimeCode = right;
  a.submitMagicCode();
  ASSERT_TRUE(until([&] { return a.error() && a.resendSeconds() == 30 && !a.magicBusy(); }));
  EXPECT_EQ(a.error(), "That code had expired, so we've sent a new one.");
  EXPECT_NE(lastCode("bo@example.com")["code"], "");

  call("POST", "/dev/next-failure",
       {{"path", "/v1/auth/magic/start"}, {"status", 429}, {"retry_after", 10}});
  a.cancelMagic();
  a.startMagic(QvnMagicIntent::signIn);
  ASSERT_TRUE(until([&] { return a.error().has_value(); }));
  EXPECT_EQ(a.error(), "Too many attempts from this network. You can try again in a moment.");
  EXPECT_EQ(a.authRetrySeconds(), 30);
}

TEST_F(CloudEndToEnd, AWebSignInComesBackThroughTheRunningStudioAndItsTokenIsRenewed) {
  startCloud({"--access-ttl", "2"});
  CloudAccount& a = open();
  // As the app does: later starts hand their "quorvanestudio:" addresses to this one.
  std::string error;
  auto instance = SingleInstance::listen(
      work / "studio.sock",
      [this](const std::string& url) { main.async([this, url] { account->handleAuthURL(url); }); },
      error);
  ASSERT_TRUE(instance) << error;

  a.startOAuth("google");
  ASSERT_TRUE(until([&] { return !browserQueue.empty(); }));
  // The browser: the provider's page, the user's yes, and the answer for the studio.
  const HttpResponse start = call("GET", browserQueue.front());
  ASSERT_EQ(start.status, 302);
  const std::string page = start.header("location");
  const size_t from = page.find("flow=") + 5;
  const std::string flow = page.substr(from, page.find('&', from) - from);
  const HttpResponse yes =
      call("GET", "/dev/oauth/approve/confirm?flow=" + flow + "&email=web%40example.com");
  ASSERT_EQ(yes.status, 302);
  const std::string answer = yes.header("location");
  ASSERT_EQ(answer.rfind("quorvanestudio://", 0), 0u) << answer;
  ASSERT_TRUE(SingleInstance::sendToRunning(work / "studio.sock", answer));
  ASSERT_TRUE(until([&] { return a.signedIn(); }));
  EXPECT_EQ(a.user()->email, "web@example.com");
  EXPECT_FALSE(a.oauthBusy());

  // The access token runs out; the next call renews it on its own.
  const auto before = json::parse(readFile(secrets()).value_or("{}"));
  std::this_thread::sleep_for(2500ms);
  a.loadMe();
  ASSERT_TRUE(until([&] {
    const auto now = json::parse(readFile(secrets()).value_or("{}"), nullptr, false);
    return now.is_object() && now.value("refresh", "") != before.value("refresh", "");
  }));
  ASSERT_TRUE(until([&] { return a.user() && !a.authStatusUnavailable(); }));
  EXPECT_TRUE(a.signedIn());
}

}  // namespace
}  // namespace qvn::test
