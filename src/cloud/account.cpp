// The account's life with the server: start, confirmation, loss of reach and of the
// sign-in itself, sign-out, events and support.
#include "cloud/account.h"

#include <algorithm>

#include "platform/defaults.h"
#include "platform/path_monitor.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

// The user last confirmed, for a start with tokens but no server in reach.
constexpr const char* kLastUserKey = "qvn.cloud.lastUser";

nlohmann::json userJson(const QvnCloud::User& u) {
  nlohmann::json j{{"email", u.email},
                   {"display_name", u.name},
                   {"username", u.username},
                   {"role", u.role},
                   {"status", u.status}};
  if (u.avatarURL) j["avatar_url"] = *u.avatarURL;
  return j;
}

}  // namespace

CloudAccount::CloudAccount(Services services)
    : services_(std::move(services)),
      transport_(services_.transport),
      pendingDeletes_(services_.transport.settings) {
  transport_.onSessionRevoked = [this] { noteSessionRevoked(); };
  transport_.onAuthUnavailable = [this] { noteAuthUnavailable(); };
  // Every new access token passes here, by a refresh or by a sign-in (applyAuth).
  transport_.onRefreshed = [this] {
    clearAuthUnavailable();
    guard_.takeToken(transport_.accessToken());
  };
  transport_.onProactiveRefreshFailed = [this](const CloudError& e) {
    noteAuthUnavailable();
    QvnLog::line("auth proactive refresh failed: " + e.text);
    scheduleAuthRetry();
  };
}

CloudAccount::~CloudAccount() {
  *alive_ = false;
  pollTask_.cancel();
  authBackoff_.cancel();
}

bool CloudAccount::signedIn() {
  return transport_.accessToken() && user().has_value();
}

void CloudAccount::restore() {
  transport_.prepareIdentity();
  // Online is known from the start, for a user who signs in later.
  if (!pathMonitor_) {
    MainQueue& main = transport_.main();
    pathMonitor_ = std::make_unique<PathMonitor>([this, &main, alive = alive_](bool up) {
      main.async([this, alive, up] {
        if (!*alive) return;
        const bool cameBack = up && !online();
        online = up;
        // Deletes that waited for the network go now.
        if (cameBack) flushPendingDeletes();
      });
    });
    online = PathMonitor::hasDefaultRouteNow();
  }
  if (!transport_.accessToken()) return;
  if (auto text = services_.transport.settings.text(kLastUserKey)) {
    const auto j = nlohmann::json::parse(*text, nullptr, false);
    if (j.is_object()) user = QvnCloud::parseUser(j, "");
  }
  transport_.scheduleProactiveRefresh();
  loadMe();
}

void CloudAccount::loadMe() {
  transport_.request("GET", "/v1/auth/me", std::nullopt, true, [this](CloudResult r) {
    if (r.error) {
      if (isRefreshRevoked(*r.error)) {
        noteSessionRevoked();
        return;
      }
      noteAuthUnavailable();
      QvnLog::line("auth restore unavailable: " + r.error->text);
      scheduleAuthRetry();
      return;
    }
    user = QvnCloud::parseUser(r.json, email_);
    rememberUser();
    clearAuthUnavailable();
    loadDestinations();
    logEvent("app_open");
    flushPendingDeletes();
  });
}

void CloudAccount::rememberUser() {
  if (user()) services_.transport.settings.set(kLastUserKey, userJson(*user()).dump());
}

void CloudAccount::noteAuthUnavailable() {
  authStatusUnavailable = true;
}

void CloudAccount::clearAuthUnavailable() {
  authStatusUnavailable = false;
  authBackoff_.cancel();
  authBackoffStep_ = 0;
}

void CloudAccount::scheduleAuthRetry() {
  authBackoff_.cancel();
  const double delay = std::min(5.0 * (1 << authBackoffStep_), 60.0);
  authBackoffStep_ = std::min(authBackoffStep_ + 1, 4);
  authBackoff_ = DelayedWork::schedule(transport_.main(), delay, [this] {
    if (transport_.accessToken())
      loadMe();
    else
      transport_.refreshProactively();
  });
}

void CloudAccount::noteSessionRevoked() {
  if (signingOut_) return;
  authBackoff_.cancel();
  transport_.cancelProactiveRefresh();
  if (!isStreamRunning(livePhase())) {
    logout();
    return;
  }
  // The stream's connection doesn't depend on the tokens: it runs on, and the sign-in
  // appears when the operator ends it.
  statusTimer_.cancel();
  clearCredentials();
  signedOutWhileLive = true;
  destinationStatusUnavailable = true;
  authStatusUnavailable = false;
  error = std::nullopt;
  QvnLog::line("auth revoked while live — publisher left running");
}

void CloudAccount::clearCredentials() {
  transport_.clearTokens();
  services_.transport.settings.remove(kLastUserKey);
  user = std::nullopt;
  destinations = std::vector<QvnCloud::Destination>{};
}

void CloudAccount::logout() {
  if (signingOut_) return;
  const bool hadToken = transport_.accessToken().has_value();
  if (!hadToken && !user()) return;
  if (isStreamRunning(livePhase())) {
    endLive([this, alive = alive_] {
      if (*alive) logout();
    });
    return;
  }
  signingOut_ = true;
  transport_.cancelProactiveRefresh();
  authBackoff_.cancel();
  authStatusUnavailable = false;
  auto finish = [this, alive = alive_] {
    if (!*alive) return;
    clearCredentials();
    signedOutWhileLive = false;
    signingOut_ = false;
  };
  if (!hadToken) {
    finish();
    return;
  }
  transport_.request("POST", "/v1/auth/logout",
                     nlohmann::json{{"device_id", transport_.deviceID()}}, true,
                     [finish](CloudResult) { finish(); });
}

void CloudAccount::logEvent(const std::string& type) {
  transport_.request("POST", "/v1/events",
                     nlohmann::json{{"event_type", type},
                                    {"platform", "linux"},
                                    {"app_version", services_.appVersion},
                                    {"device_model", services_.deviceName}},
                     true, [](CloudResult) {});
}

void CloudAccount::sendSupport(const std::string& subject, const std::string& message) {
  transport_.request(
      "POST", "/v1/support",
      nlohmann::json{
          {"subject", "Studio: " + subject},
          {"message", "Product: Quorvane Studio for Linux\nVersion: " + services_.appVersion +
                          "\nComputer: " + services_.deviceName + "\n\n" + message}},
      true, [](CloudResult) {});
}

nlohmann::json CloudAccount::deviceFields() {
  return {{"device_id", transport_.deviceID()},
          {"device_name", services_.deviceName},
          {"platform", "linux"}};
}

}  // namespace qvn
