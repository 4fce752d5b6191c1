#include "cloud/cloud_transport.h"

#include <algorithm>
#include <cstdlib>

#include "cloud/cloud_wire.h"
#include "platform/crypto.h"
#include "platform/defaults.h"
#include "platform/http.h"
#include "platform/secure_store.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr double kTimeoutSeconds = 60;
// A token this close to its end is refreshed now rather than used.
constexpr double kRefreshMargin = 120;

double secondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

CloudTransport::CloudTransport(Services services) : services_(std::move(services)) {}

CloudTransport::~CloudTransport() {
  *alive_ = false;
  proactive_.cancel();
}

CloudError CloudTransport::errorOf(int status, const nlohmann::json& json,
                                   const std::string& retryAfter) {
  CloudError e;
  e.code = status;
  e.json = json;
  auto text = [&](const char* key) -> std::string {
    auto it = json.find(key);
    return it != json.end() && it->is_string() ? it->get<std::string>() : std::string();
  };
  e.qvnerror = text("error");
  e.qvncode = text("code");
  e.text = !text("message").empty() ? text("message")
           : !e.qvnerror.empty()    ? e.qvnerror
                                    : "Request failed (" + std::to_string(status) + ")";
  const auto first = retryAfter.find_first_not_of(" \t");
  if (first != std::string::npos) {
    char* end = nullptr;
    const long seconds = std::strtol(retryAfter.c_str() + first, &end, 10);
    const bool whole = end && std::string(end).find_first_not_of(" \t") == std::string::npos;
    if (whole && end != retryAfter.c_str() + first) e.retryAfter = int(seconds);
  }
  return e;
}

void CloudTransport::request(const std::string& method, const std::string& path,
                             std::optional<nlohmann::json> body, bool auth, Done done,
                             bool isRetry) {
  HttpRequest r;
  r.method = method;
  r.url = services_.apiBase + path;
  r.timeoutSeconds = kTimeoutSeconds;
  r.headers.emplace_back("Accept", "application/json");
  if (auth)
    if (auto token = accessToken()) r.headers.emplace_back("Authorization", "Bearer " + *token);
  if (body) {
    r.headers.emplace_back("Content-Type", "application/json");
    try {
      r.body = body->dump();
    } catch (const nlohmann::json::exception& e) {
      services_.main.async([alive = alive_, done = std::move(done), why = std::string(e.what())] {
        if (*alive) done({0, nlohmann::json::object(), CloudError::transport(why)});
      });
      return;
    }
  }
  services_.http->send(
      std::move(r), [this, alive = alive_, method, path, body = std::move(body), auth, isRetry,
                     done = std::move(done)](HttpResponse reply) mutable {
        if (!*alive) return;
        if (!reply.arrived()) {
          done({0, nlohmann::json::object(), CloudError::transport(reply.error)});
          return;
        }
        auto json = nlohmann::json::parse(reply.body, nullptr, false);
        if (!json.is_object()) json = nlohmann::json::object();
        if (reply.status == 401 && auth && !isRetry && refreshToken()) {
          refreshSingleFlight([this, method, path, body = std::move(body),
                               done = std::move(done)](std::optional<CloudError> failed) mutable {
            if (!failed) {
              request(method, path, std::move(body), true, std::move(done), true);
              return;
            }
            if (isRefreshRevoked(*failed)) {
              if (onSessionRevoked) onSessionRevoked();
            } else if (onAuthUnavailable) {
              onAuthUnavailable();
            }
            done({failed->code, failed->json, *failed});
          });
          return;
        }
        if (reply.status >= 100 && reply.status <= 399) {
          done({reply.status, std::move(json), std::nullopt});
          return;
        }
        done({reply.status, json, errorOf(reply.status, json, reply.header("retry-after"))});
      });
}

void CloudTransport::probe(const std::string& url,
                           std::function<void(std::optional<std::string>)> done) {
  HttpRequest r;
  r.url = url;
  r.timeoutSeconds = 12;
  services_.http->send(std::move(r), [alive = alive_, done = std::move(done)](HttpResponse reply) {
    if (!*alive) return;
    if (!reply.arrived() || reply.status < 300 || (reply.status >= 300 && reply.status <= 399)) {
      done(std::nullopt);
      return;
    }
    const auto json = nlohmann::json::parse(reply.body, nullptr, false);
    if (json.is_object() && json.contains("message") && json["message"].is_string() &&
        !json["message"].get<std::string>().empty()) {
      done(json["message"].get<std::string>());
      return;
    }
    done("Continue with Google is not available yet. Use email.");
  });
}

void CloudTransport::refreshSingleFlight(RefreshDone done) {
  refreshWaiters_.push_back(std::move(done));
  if (refreshing_) return;
  refreshing_ = true;
  performRefresh([this](std::optional<CloudError> error) { refreshFinished(std::move(error)); });
}

void CloudTransport::refreshFinished(std::optional<CloudError> error) {
  refreshing_ = false;
  for (auto& waiter : std::exchange(refreshWaiters_, {})) waiter(error);
}

void CloudTransport::performRefresh(RefreshDone done) {
  const auto refresh = refreshToken();
  if (!refresh) {
    CloudError e;
    e.code = 401;
    e.text = "invalid_refresh_token";
    done(e);
    return;
  }
  prepareIdentity();
  request("POST", "/v1/auth/refresh",
          nlohmann::json{{"refresh_token", *refresh}, {"device_id", deviceID()}}, false,
          [this, done = std::move(done)](CloudResult result) {
            if (result.error) {
              done(result.error);
              return;
            }
            storeTokens(result.json);
            if (onRefreshed) onRefreshed();
            scheduleProactiveRefresh();
            done(std::nullopt);
          });
}

void CloudTransport::scheduleProactiveRefresh() {
  proactive_.cancel();
  const auto token = accessToken();
  const auto expiry = token ? QvnCloud::jwtExpiry(*token) : std::nullopt;
  if (!expiry) return;
  const double delay = std::max(*expiry - secondsSince1970() - kRefreshMargin, 1.0);
  proactive_ = DelayedWork::schedule(services_.main, delay, [this] { refreshProactively(); });
}

void CloudTransport::cancelProactiveRefresh() {
  proactive_.cancel();
}

void CloudTransport::refreshProactively() {
  if (!refreshToken()) return;
  const auto token = accessToken();
  const auto expiry = token ? QvnCloud::jwtExpiry(*token) : std::nullopt;
  if (expiry && *expiry - secondsSince1970() > kRefreshMargin) {
    scheduleProactiveRefresh();
    return;
  }
  refreshSingleFlight([this](std::optional<CloudError> failed) {
    if (!failed) return;
    if (isRefreshRevoked(*failed)) {
      if (onSessionRevoked) onSessionRevoked();
    } else if (onProactiveRefreshFailed) {
      onProactiveRefreshFailed(*failed);
    }
  });
}

void CloudTransport::prepareIdentity() {
  auto& keychain = *services_.keychain;
  if (keychain.get("device")) return;
  const auto hardware =
      services_.hardwareIdentity ? services_.hardwareIdentity() : std::optional<std::string>();
  const std::string identity =
      hexText(sha256("zx7-hostid-k4|" + hardware.value_or(hexText(randomBytes(16)))));
  Defaults& settings = services_.settings;
  if (auto older = settings.text("qvn.computerId"); older && *older != identity) {
    // Tokens were issued to the old identity; a new sign-in follows.
    keychain.remove("access");
    keychain.remove("refresh");
  } else {
    for (const char* account : {"access", "refresh"})
      if (!keychain.get(account))
        if (auto kept = settings.text(std::string("qvn.") + account)) keychain.set(*kept, account);
  }
  for (const char* key : {"qvn.access", "qvn.refresh", "qvn.computerId"}) settings.remove(key);
  keychain.set(identity, "device");
}

std::string CloudTransport::deviceID() {
  return services_.keychain->get("device").value_or("unset");
}

std::optional<std::string> CloudTransport::accessToken() {
  return services_.keychain->get("access");
}

std::optional<std::string> CloudTransport::refreshToken() {
  return services_.keychain->get("refresh");
}

void CloudTransport::storeTokens(const nlohmann::json& reply) {
  for (const auto& [key, account] :
       {std::pair{"access_token", "access"}, std::pair{"refresh_token", "refresh"}}) {
    auto it = reply.find(key);
    if (it == reply.end() || !it->is_string()) continue;
    services_.keychain->set(it->get<std::string>(), account);  // empty removes
  }
}

void CloudTransport::clearTokens() {
  services_.keychain->remove("access");
  services_.keychain->remove("refresh");
  services_.settings.remove("qvn.access");
  services_.settings.remove("qvn.refresh");
}

}  // namespace qvn
