// The studio's one cloud account, signed in or not: the user, the sign-in flows (a code by
// e-mail with a link as the second way to finish, or a web provider in the browser), the
// account's confirmation with the server and its loss, events and support. Built on the
// transport's requests and tokens. Main thread.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cloud/cloud_account.h"
#include "cloud/cloud_transport.h"
#include "cloud/cloud_wire.h"
#include "cloud/live_session_guard.h"
#include "cloud/pending_deletes.h"
#include "cloud/stream_wire.h"
#include "platform/dispatch.h"
#include "support/observable.h"

namespace qvn {

enum class QvnMagicPhase { email, create, waiting };
enum class QvnMagicAccount { existing, fresh };
enum class QvnMagicIntent { signIn, signUp };

class CloudAccount final : public QvnCloudAccount {
 public:
  struct Services {
    CloudTransport::Services transport;
    // Opens a web page in the user's browser, with the browser's own cookies.
    std::function<bool(const std::string& url)> openURL;
    std::string deviceName;
    std::string appVersion;
    // The publisher, as far as the account steers it: stopped when a stream ends, and its
    // frames lost on the network, reported with each session status.
    std::function<void()> stopPublisher = [] {};
    std::function<long()> publisherDrops = [] { return 0L; };
  };
  static constexpr const char* kCallbackScheme = "quorvanestudio";

  explicit CloudAccount(Services services);
  ~CloudAccount() override;

  // ---- QvnCloudAccount
  void restore() override;
  bool hasAccessToken() override { return transport_.accessToken().has_value(); }
  std::string dashboardHost() const override;
  std::string dashboardURL() const override;
  void setPermissionMessage(std::optional<std::string>) override {}

  // ---- Observable state (the live session's is the base's)
  Observable<std::optional<QvnCloud::User>> user;
  Observable<bool> authStatusUnavailable{false};
  Observable<QvnMagicPhase> magicPhase{QvnMagicPhase::email};
  Observable<std::optional<QvnMagicAccount>> magicAccount;
  Observable<std::string> typedEmail;  // the address field as typed
  Observable<std::string> signupName;
  Observable<std::string> oneTimeCode;
  Observable<int> resendSeconds{0};
  Observable<int> authRetrySeconds{0};
  Observable<bool> magicBusy{false};
  Observable<bool> oauthBusy{false};

  // The address last accepted, lower case.
  const std::string& email() const { return email_; }
  // The studio shows the sign-in screen while this is false.
  bool signedIn();

  // ---- Sign-in
  void startMagic(QvnMagicIntent intent);
  void submitMagicCode();
  void backToEmail();
  void cancelMagic();
  void startOAuth(const std::string& provider);
  // A "quorvanestudio:" URL handed to the studio; others are ignored.
  void handleAuthURL(const std::string& url);
  void consumeLaunchURLIfNeeded();
  void logout();

  // ---- Destinations and sessions
  void loadDestinations() override;
  // At once here, then on the server; put back with a line in `error` if it refuses.
  void toggle(const std::string& destinationID, bool enabled) override;
  void startLive(std::function<void(std::optional<QvnCloud::Session>)> done) override;
  void markLive() override;
  void noteReconnecting() override;
  void failLive(const std::string& message) override;
  void endLive(std::function<void()> done) override;
  void refreshSessionStatus();
  void loadEmbedLink() override;
  void createEmbedLink() override;
  void endLiveBlocking(double timeoutSeconds) override;
  // Deleted now, or queued in "qvn.pendingSessionDeletes" for a later start when it can't
  // be, so no session stays open on the server. `then` runs once the attempt is over.
  void deleteLiveSession(const std::string& id, std::function<void()> then = {});
  // The queued deletes, in order, until one fails.
  void flushPendingDeletes();
  const std::optional<QvnCloud::Session>& liveSession() const { return liveSession_; }
  int statusBackoffStep() const { return statusBackoffStep_; }

  // ---- Account
  void loadMe();
  void logEvent(const std::string& type);
  void sendSupport(const std::string& subject, const std::string& message);
  CloudTransport& transport() { return transport_; }

 private:
  void startMagicWith(nlohmann::json body, bool retried, const std::string& verifier);
  void magicStarted(const CloudResult& result, const nlohmann::json& body, bool retried,
                    const std::string& verifier);
  void startResendCountdown();
  void startAuthRetryCountdown(int seconds);
  void startPolling();
  void pollMagic();
  void completeOAuth(const std::string& url);
  std::optional<std::string> applyAuth(const nlohmann::json& reply);
  void finishSignIn();
  void failSignIn(const CloudError& error);
  void noteAuthUnavailable();
  void clearAuthUnavailable();
  void noteSessionRevoked();
  void scheduleAuthRetry();
  void clearCredentials();
  void rememberUser();
  nlohmann::json deviceFields();
  void flushFrom(std::vector<std::string> ids);
  std::optional<QvnCloud::Session> openSession(const nlohmann::json& reply);
  void setLivePhase(LivePhase phase);
  void startStatusTimer(double seconds);
  void tickClock();
  void embedReplied(const CloudResult& result);

  Services services_;
  CloudTransport transport_;
  std::string email_;
  std::optional<std::string> magicRequestId_, magicVerifier_;
  QvnMagicIntent magicIntent_ = QvnMagicIntent::signIn;
  std::optional<std::string> oauthVerifier_, oauthState_, pendingLaunchURL_;
  int pollDelay_ = 3;
  DelayedWork pollTask_;
  RepeatingTimer resendTimer_, authRetryTimer_;
  DelayedWork authBackoff_;
  int authBackoffStep_ = 0;
  bool signingOut_ = false;
  std::unique_ptr<class PathMonitor> pathMonitor_;
  PendingSessionDeletes pendingDeletes_;
  QvnLiveSessionGuard guard_;
  std::optional<QvnCloud::Session> liveSession_;
  std::optional<double> liveStarted_;  // on the main queue's clock
  RepeatingTimer clockTimer_, statusTimer_;
  int statusBackoffStep_ = 0;
  bool endingLive_ = false;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qvn
