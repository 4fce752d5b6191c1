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
  };
  static constexpr const char* kCallbackScheme = "quorvanestudio";

  explicit CloudAccount(Services services);
  ~CloudAccount() override;

  // ---- QvnCloudAccount
  void restore() override;
  LivePhase livePhase() const override { return LivePhase::idle; }
  bool publishing() const override { return false; }
  void setPermissionMessage(std::optional<std::string>) override {}
  void endLiveBlocking(double) override {}

  // ---- Observable state
  Observable<std::optional<QvnCloud::User>> user;
  Observable<std::optional<std::string>> error;
  Observable<bool> online{false};
  Observable<bool> authStatusUnavailable{false};
  Observable<bool> signedOutWhileLive{false};
  Observable<QvnMagicPhase> magicPhase{QvnMagicPhase::email};
  Observable<std::optional<QvnMagicAccount>> magicAccount;
  Observable<std::string> typedEmail;  // the address field as typed
  Observable<std::string> signupName;
  Observable<std::string> oneTimeCode;
  Observable<int> resendSeconds{0};
  Observable<int> authRetrySeconds{0};
  Observable<bool> magicBusy{false};
  Observable<bool> oauthBusy{false};
  Observable<std::vector<QvnCloud::Destination>> destinations;

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
  void loadDestinations();
  // At once here, then on the server; put back with a line in `error` if it refuses.
  void toggle(const std::string& destinationID, bool enabled);
  // Deleted now, or queued in "qvn.pendingSessionDeletes" for a later start when it can't
  // be, so no session stays open on the server.
  void deleteLiveSession(const std::string& id);
  // The queued deletes, in order, until one fails.
  void flushPendingDeletes();

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
  std::vector<std::string> pendingDeletes();
  void setPendingDeletes(const std::vector<std::string>& ids);
  void flushFrom(std::vector<std::string> ids);

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
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace qvn
