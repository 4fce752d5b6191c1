// A scripted HTTP client on a virtual clock, a secure store in memory, and an account on
// both, for the account's tests.
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <deque>
#include <map>

#include "cloud/account.h"
#include "platform/base64.h"
#include "platform/defaults.h"
#include "platform/http.h"
#include "platform/secure_store.h"

namespace qvn::test {

using nlohmann::json;

struct Sent {
  HttpRequest request;
  HttpClient::Completion done;
  json body() const { return request.body.empty() ? json() : json::parse(request.body); }
  std::string path() const { return request.url.substr(request.url.find("/v1")); }
};

// Holds every request until the test answers it.
class ScriptedHttp final : public HttpClient {
 public:
  explicit ScriptedHttp(ManualMainQueue& main) : main_(main) {}
  void send(HttpRequest request, Completion done) override {
    sent.push_back({std::move(request), std::move(done)});
  }
  // Answers the oldest request to `path`, on the main queue as the real client does.
  void reply(const std::string& path, int status, json body = json::object(),
             std::vector<std::pair<std::string, std::string>> headers = {},
             const std::string& method = "") {
    for (auto it = sent.begin(); it != sent.end(); ++it) {
      if (it->path() != path || (!method.empty() && it->request.method != method)) continue;
      HttpResponse r{status, std::move(headers), body.dump(), ""};
      main_.async([done = std::move(it->done), r] { done(r); });
      sent.erase(it);
      main_.drain();
      return;
    }
    ADD_FAILURE() << "nothing sent to " << path;
  }
  void replyToDelete(const std::string& path, int status) { reply(path, status, {}, {}, "DELETE"); }
  void fail(const std::string& path) {
    for (auto it = sent.begin(); it != sent.end(); ++it)
      if (it->path() == path) {
        main_.async([done = std::move(it->done)] { done({0, {}, "", "could not connect"}); });
        sent.erase(it);
        main_.drain();
        return;
      }
  }
  long count(const std::string& path) const {
    return std::count_if(sent.begin(), sent.end(), [&](auto& s) { return s.path() == path; });
  }
  const Sent* last(const std::string& path) const {
    for (auto it = sent.rbegin(); it != sent.rend(); ++it)
      if (it->path() == path) return &*it;
    return nullptr;
  }
  std::deque<Sent> sent;

 private:
  ManualMainQueue& main_;
};

class MemoryStore final : public SecureStore {
 public:
  std::optional<std::string> get(const std::string& account) override {
    auto it = values.find(account);
    return it == values.end() ? std::nullopt : std::optional(it->second);
  }
  void set(const std::string& value, const std::string& account) override {
    if (value.empty())
      values.erase(account);
    else
      values[account] = value;
  }
  void remove(const std::string& account) override { values.erase(account); }
  std::map<std::string, std::string> values;
};

// A JWT whose payload holds `exp` seconds from now; the signature is never read here.
inline std::string tokenExpiringIn(double seconds) {
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  const std::string payload = json{{"exp", now + seconds}}.dump();
  std::string b64 = base64Encode({payload.begin(), payload.end()});
  for (char& c : b64) c = c == '+' ? '-' : c == '/' ? '_' : c;
  while (!b64.empty() && b64.back() == '=') b64.pop_back();
  return "eyJhbGciOiJIUzI1NiJ9." + b64 + ".sig";
}

class CloudAccountTest : public ::testing::Test {
 protected:
  CloudAccountTest() {
    char pattern[] = "/tmp/qvn-cloud-XXXXXX";
    dir = ::mkdtemp(pattern);
    settings = std::make_unique<Defaults>(dir / "settings.json");
    account = std::make_unique<CloudAccount>(CloudAccount::Services{
        {main, http, store, *settings, "http://127.0.0.1:9", [] { return "machine-1"; }},
        [this](const std::string& url) {
          opened.push_back(url);
          return true;
        },
        "Test Computer",
        "1.0",
        [this] { ++publisherStops; },
        [] { return 7L; }});
  }
  ~CloudAccountTest() override {
    account.reset();
    settings.reset();
    std::filesystem::remove_all(dir);
  }
  void signedIn(const std::string& access = "a1") {
    store->values["access"] = access;
    store->values["refresh"] = "r1";
  }

  std::filesystem::path dir;
  ManualMainQueue main;
  std::shared_ptr<ScriptedHttp> http = std::make_shared<ScriptedHttp>(main);
  std::shared_ptr<MemoryStore> store = std::make_shared<MemoryStore>();
  std::unique_ptr<Defaults> settings;
  std::unique_ptr<CloudAccount> account;
  std::vector<std::string> opened;
  int publisherStops = 0;
};

}  // namespace qvn::test
