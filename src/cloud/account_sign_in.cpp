// Signing in: a code sent by e-mail (the mail's link finishes it too, by polling), or a web
// provider in the user's browser that hands back a "quorvanestudio:" URL. Both are proof-key
// flows: only the hash of a random verifier leaves before the end.
#include <algorithm>
#include <cctype>

#include "cloud/account.h"
#include "platform/defaults.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr int kResendSeconds = 30;
constexpr size_t kNameLimit = 80;

std::string percentEncoded(const std::string& text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out += char(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

// The value of one query item of a URL, percent-decoded; none when absent.
std::optional<std::string> queryItem(const std::string& url, const std::string& name) {
  const auto start = url.find('?');
  if (start == std::string::npos) return std::nullopt;
  std::string query =
      url.substr(start + 1, url.find('#') == std::string::npos ? std::string::npos
                                                               : url.find('#') - start - 1);
  size_t at = 0;
  while (at <= query.size()) {
    const size_t end = std::min(query.find('&', at), query.size());
    const std::string item = query.substr(at, end - at);
    const size_t eq = item.find('=');
    if (item.substr(0, eq) == name) {
      std::string raw = eq == std::string::npos ? "" : item.substr(eq + 1), value;
      for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '%' && i + 2 < raw.size()) {
          value += char(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
          i += 2;
        } else {
          value += raw[i] == '+' ? ' ' : raw[i];
        }
      }
      return value;
    }
    at = end + 1;
  }
  return std::nullopt;
}

}  // namespace

// ---- By e-mail ---------------------------------------------------------------------------

void CloudAccount::startMagic(QvnMagicIntent intent) {
  error = std::nullopt;
  if (authRetrySeconds() > 0 || magicBusy()) return;
  const auto address = acceptedEmail(typedEmail());
  if (!address) {
    error = std::string("Enter a full email address, like ") + kExampleEmail + ".";
    return;
  }
  email_ = *address;
  magicIntent_ = intent;
  transport_.prepareIdentity();
  const std::string verifier = QvnCloud::randomVerifier();
  nlohmann::json body = deviceFields();
  body["email"] = email_;
  body["code_challenge"] = QvnCloud::challenge(verifier);
  body["intent"] = intent == QvnMagicIntent::signUp ? "signup" : "signin";
  std::string name = signupName();
  name.erase(0, name.find_first_not_of(" \t\r\n"));
  name.erase(name.find_last_not_of(" \t\r\n") + 1);
  if (intent == QvnMagicIntent::signUp && !name.empty())
    body["full_name"] = name.substr(0, kNameLimit);
  magicBusy = true;
  startMagicWith(std::move(body), false, verifier);
}

// The verifier is kept only once the start succeeds: a failed resend leaves the running
// request and its poll as they were.
void CloudAccount::startMagicWith(nlohmann::json body, bool retried, const std::string& verifier) {
  transport_.request(
      "POST", "/v1/auth/magic/start", body, false,
      [this, body, retried, verifier](CloudResult r) { magicStarted(r, body, retried, verifier); });
}

void CloudAccount::magicStarted(const CloudResult& r, const nlohmann::json& body, bool retried,
                                const std::string& verifier) {
  if (r.error) {
    if (!retried && r.error->fromAPI() && r.error->code == 400 && isSchemaRejection(*r.error)) {
      // An older server: once more without the keys it doesn't know.
      nlohmann::json plain = body;
      plain.erase("intent");
      plain.erase("full_name");
      startMagicWith(std::move(plain), true, verifier);
      return;
    }
    if (r.error->fromAPI() && r.error->code == 404 && r.error->qvnerror == "no_account") {
      magicPhase = QvnMagicPhase::create;
      magicBusy = false;
      return;
    }
    failSignIn(*r.error);
    magicBusy = false;
    return;
  }
  auto id = r.json.find("request_id");
  if (id == r.json.end() || !id->is_string()) {
    error = "Quorvane didn't start the sign-in. Try again.";
    magicBusy = false;
    return;
  }
  magicVerifier_ = verifier;
  magicRequestId_ = id->get<std::string>();
  const std::string account = r.json.value("account", "");
  magicAccount = account == "existing" ? std::optional(QvnMagicAccount::existing)
                 : account == "new"    ? std::optional(QvnMagicAccount::fresh)
                                       : std::nullopt;
  magicPhase = QvnMagicPhase::waiting;
  oneTimeCode = "";
  startResendCountdown();
  startPolling();
  magicBusy = false;
}

void CloudAccount::failSignIn(const CloudError& e) {
  const AuthMessage message = authMessage(e);
  error = message.text;
  if (message.retrySeconds) startAuthRetryCountdown(*message.retrySeconds);
}

void CloudAccount::startResendCountdown() {
  resendTimer_.cancel();
  resendSeconds = kResendSeconds;
  resendTimer_ = RepeatingTimer(transport_.main(), 1.0, [this] {
    resendSeconds = std::max(resendSeconds() - 1, 0);
    if (resendSeconds() == 0) resendTimer_.cancel();
  });
}

void CloudAccount::startAuthRetryCountdown(int seconds) {
  authRetryTimer_.cancel();
  authRetrySeconds = seconds;
  authRetryTimer_ = RepeatingTimer(transport_.main(), 1.0, [this] {
    authRetrySeconds = std::max(authRetrySeconds() - 1, 0);
    if (authRetrySeconds() > 0) return;
    authRetryTimer_.cancel();
    if (error() && error()->rfind("Too many attempts", 0) == 0) error = std::nullopt;
  });
}

void CloudAccount::startPolling() {
  pollDelay_ = 3;
  pollTask_.cancel();
  pollTask_ = DelayedWork::schedule(transport_.main(), pollDelay_, [this] { pollMagic(); });
}

void CloudAccount::pollMagic() {
  if (!magicRequestId_ || !magicVerifier_) return;
  transport_.request(
      "POST", "/v1/auth/magic/poll",
      nlohmann::json{{"request_id", *magicRequestId_}, {"code_verifier", *magicVerifier_}}, false,
      [this](CloudResult r) {
        if (r.error && r.error->fromAPI() && r.error->code == 410) {
          pollTask_.cancel();
          error = "That sign-in expired. Send a new code to continue.";
          magicPhase = QvnMagicPhase::email;
          return;
        }
        if (!r.error && r.json.contains("access_token")) {
          if (auto failed = applyAuth(r.json)) {
            error = *failed;
          } else {
            pollTask_.cancel();
            oneTimeCode = "";
            finishSignIn();
          }
          return;
        }
        // A pending reply keeps the pace; a rate limit slows it.
        if (r.status == 202) pollDelay_ = 3;
        if (r.error && r.error->code == 429) pollDelay_ = 10;
        pollTask_ = DelayedWork::schedule(transport_.main(), pollDelay_, [this] { pollMagic(); });
      });
}

void CloudAccount::submitMagicCode() {
  if (!magicRequestId_ || !magicVerifier_) return;
  const auto digits = sixDigits(oneTimeCode());
  if (!digits) {
    error = "Enter the 6-digit code from the email.";
    return;
  }
  error = std::nullopt;
  magicBusy = true;
  transport_.request(
      "POST", "/v1/auth/magic/code",
      nlohmann::json{
          {"request_id", *magicRequestId_}, {"code", *digits}, {"code_verifier", *magicVerifier_}},
      false, [this](CloudResult r) {
        if (!r.error) {
          if (auto failed = applyAuth(r.json)) {
            error = *failed;
          } else {
            pollTask_.cancel();
            error = std::nullopt;
            finishSignIn();
          }
          magicBusy = false;
          return;
        }
        if (r.error->fromAPI() && r.error->code == 410) {
          // The code ran out: a new one goes out at once.
          magicBusy = false;
          startMagic(magicIntent_);
          if (!error()) error = "That code had expired, so we've sent a new one.";
          return;
        }
        if (r.error->fromAPI() && r.error->code == 401 && r.error->qvnerror == "invalid_code") {
          oneTimeCode = "";
          error = "That code isn't right. Check the latest email and try again.";
        } else {
          failSignIn(*r.error);
        }
        magicBusy = false;
      });
}

void CloudAccount::backToEmail() {
  error = std::nullopt;
  magicPhase = QvnMagicPhase::email;
  magicAccount = std::nullopt;
}

void CloudAccount::cancelMagic() {
  pollTask_.cancel();
  magicPhase = QvnMagicPhase::email;
  magicAccount = std::nullopt;
  oneTimeCode = "";
  magicRequestId_.reset();
  magicVerifier_.reset();
  error = std::nullopt;
}

// ---- Through a web provider ---------------------------------------------------------------

void CloudAccount::startOAuth(const std::string& provider) {
  error = std::nullopt;
  transport_.prepareIdentity();
  const std::string verifier = QvnCloud::randomVerifier();
  oauthVerifier_ = verifier;
  oauthState_ = QvnCloud::randomVerifier();
  const std::string url =
      transport_.apiBase() + "/v1/auth/oauth/" + percentEncoded(provider) +
      "/start?device_id=" + percentEncoded(transport_.deviceID()) +
      "&device_name=" + percentEncoded(services_.deviceName) +
      "&platform=linux&code_challenge=" + percentEncoded(QvnCloud::challenge(verifier)) +
      "&state=" + percentEncoded(*oauthState_);
  oauthBusy = true;
  // A probe first: a provider that isn't there says so here, not in the browser.
  transport_.probe(url, [this, url](std::optional<std::string> unavailable) {
    if (unavailable) {
      oauthBusy = false;
      error = *unavailable;
      return;
    }
    // The browser hands the result back as a "quorvanestudio:" URL, or never, if the user
    // closes it: nothing waits here, so the button is free again for a new start.
    oauthBusy = false;
    if (!services_.openURL || !services_.openURL(url)) error = "The sign-in window did not open.";
  });
}

void CloudAccount::handleAuthURL(const std::string& url) {
  if (url.rfind(std::string(kCallbackScheme) + ":", 0) != 0) return;
  pendingLaunchURL_ = url;
  consumeLaunchURLIfNeeded();
}

void CloudAccount::consumeLaunchURLIfNeeded() {
  if (!pendingLaunchURL_) return;
  const std::string url = *std::exchange(pendingLaunchURL_, std::nullopt);
  completeOAuth(url);
}

void CloudAccount::completeOAuth(const std::string& url) {
  oauthBusy = false;
  const auto code = queryItem(url, "code");
  if (!code || !oauthVerifier_) {
    error = "Quorvane did not finish that sign-in.";
    return;
  }
  if (oauthState_ && queryItem(url, "state") != oauthState_) {
    error = "That sign-in did not match this window. Start again.";
    return;
  }
  oauthBusy = true;
  nlohmann::json body = deviceFields();
  body["code"] = *code;
  body["code_verifier"] = *oauthVerifier_;
  transport_.request("POST", "/v1/auth/oauth/exchange", body, false, [this](CloudResult r) {
    if (!r.error) {
      if (auto failed = applyAuth(r.json))
        error = *failed;
      else
        finishSignIn();
    } else if (r.error->fromAPI() && r.error->code == 410) {
      error = "That sign-in expired. Start again.";
    } else if (r.error->qvnerror == "email_not_verified") {
      error = "That provider has not verified the email, so it was not linked.";
    } else {
      failSignIn(*r.error);
    }
    oauthBusy = false;
  });
}

// ---- Both ways end here ---------------------------------------------------------------------

std::optional<std::string> CloudAccount::applyAuth(const nlohmann::json& reply) {
  const auto access = reply.find("access_token"), refresh = reply.find("refresh_token");
  if (access == reply.end() || !access->is_string() || refresh == reply.end() ||
      !refresh->is_string())
    return "Login failed. Check email and password.";
  transport_.storeTokens(reply);
  // New tokens, as after a refresh: a stream still running from before a revocation must
  // delete its session with these, not with the revoked ones.
  if (transport_.onRefreshed) transport_.onRefreshed();
  services_.transport.settings.remove("qvn.access");
  services_.transport.settings.remove("qvn.refresh");
  user = QvnCloud::parseUser(reply.contains("user") ? reply["user"] : nlohmann::json::object(),
                             email_);
  rememberUser();
  transport_.scheduleProactiveRefresh();
  return std::nullopt;
}

void CloudAccount::finishSignIn() {
  loadMe();
  logEvent("login");
  magicPhase = QvnMagicPhase::email;
  magicAccount = std::nullopt;
  signupName = "";
  resendTimer_.cancel();
  resendSeconds = 0;
}

}  // namespace qvn
