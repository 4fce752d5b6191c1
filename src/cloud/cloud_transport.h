// How every call to the cloud API is made: the bearer token, one refresh shared by every
// caller that meets a 401 at the same time, the refresh ahead of the token's expiry, and
// this computer's identity. The tokens live in the secure store. Main thread; replies come
// back on the main queue, and none after the transport is gone.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cloud/cloud_error.h"
#include "platform/dispatch.h"

namespace qvn {

class Defaults;
class HttpClient;
class SecureStore;

class CloudTransport {
 public:
  using Done = std::function<void(CloudResult)>;
  using RefreshDone = std::function<void(std::optional<CloudError>)>;

  struct Services {
    MainQueue& main;
    std::shared_ptr<HttpClient> http;
    std::shared_ptr<SecureStore> keychain;
    Defaults& settings;
    std::string apiBase;  // "https://host" or, on this machine, "http://127.0.0.1:port"
    // The computer's own identity before hashing, none when it has none that can be read.
    std::function<std::optional<std::string>()> hardwareIdentity;
  };

  explicit CloudTransport(Services services);
  ~CloudTransport();

  // What a refresh that fails on a 401 means to the account.
  std::function<void()> onSessionRevoked;
  std::function<void()> onAuthUnavailable;
  // A refresh succeeded: the account is confirmed again.
  std::function<void()> onRefreshed;
  // The proactive refresh failed; `error` is for the log.
  std::function<void(const CloudError& error)> onProactiveRefreshFailed;

  void request(const std::string& method, const std::string& path,
               std::optional<nlohmann::json> body, bool auth, Done done, bool isRetry = false);
  void refreshSingleFlight(RefreshDone done);
  // Whether a web sign-in's first page is there: a redirect means yes (no text); an error
  // page gives its message or a plain refusal; a page or no answer at all, let the browser
  // try.
  void probe(const std::string& url, std::function<void(std::optional<std::string>)> done);
  void scheduleProactiveRefresh();
  void cancelProactiveRefresh();
  // With no refresh token, nothing; refreshes now unless the token has long to live.
  void refreshProactively();

  // The identity sent as device_id, made once and kept in the secure store.
  void prepareIdentity();
  std::string deviceID();
  std::optional<std::string> accessToken();
  std::optional<std::string> refreshToken();
  // Stores the tokens of a reply: a non-empty one replaces, an empty one removes, an absent
  // key leaves the stored token as it was.
  void storeTokens(const nlohmann::json& reply);
  // Both tokens out of the secure store, and out of the settings of older versions.
  void clearTokens();
  const std::string& apiBase() const { return services_.apiBase; }
  MainQueue& main() { return services_.main; }

  static CloudError errorOf(int status, const nlohmann::json& json, const std::string& retryAfter);

 private:
  void performRefresh(RefreshDone done);
  void refreshFinished(std::optional<CloudError> error);

  Services services_;
  std::vector<RefreshDone> refreshWaiters_;
  bool refreshing_ = false;
  DelayedWork proactive_;
  // Replies check it, so none arrives after the transport is gone.
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qvn
