#include "devcloud_service.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <map>
#include <optional>
#include <string_view>

#include <nlohmann/json.hpp>

#include "devcloud_replies.h"
#include "devcloud_store.h"
#include "devcloud_streams.h"
#include "jwt.h"
#include "platform/crypto.h"

namespace qvn::devcloud {
namespace {

using json = nlohmann::json;

constexpr std::int64_t kRefreshLifetimeSeconds = 30 * 86'400;
// Wrong codes a request survives; the next wrong one burns it, so six digits can't be
// walked through.
constexpr int kMostWrongCodes = 5;
constexpr std::array<std::string_view, 2> kProviders = {"google", "apple"};
constexpr std::string_view kDefaultOAuthEmail = "someone@example.com";
constexpr std::string_view kCallback = "quorvanestudio://auth/callback";

std::string htmlEscape(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out.push_back(c);
    }
  }
  return out;
}

// `content` is markup already; the title is text.
HttpReply htmlReply(unsigned status, const std::string& title, const std::string& content) {
  return {status,
          "text/html; charset=utf-8",
          "<!doctype html>\n<html><head><meta charset=\"utf-8\"><title>" + htmlEscape(title) +
              "</title></head>\n<body style=\"font-family:sans-serif;max-width:32em;"
              "margin:4em auto\">\n<h1>" +
              htmlEscape(title) + "</h1>\n" + content + "\n</body></html>\n",
          {}};
}

HttpReply redirect(const std::string& location) {
  return {302, "text/plain; charset=utf-8", "", {{"Location", location}}};
}

std::string percentEncode(std::string_view text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~') {
      out.push_back(char(c));
    } else {
      out.push_back('%');
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 15]);
    }
  }
  return out;
}

std::string sixDigits() {
  // Below the largest multiple of a million under 2^32, so every code is as likely.
  constexpr std::uint32_t kLimit = 4'294'000'000u;
  for (;;) {
    const auto bytes = randomBytes(4);
    const std::uint32_t value = std::uint32_t(bytes[0]) << 24 | std::uint32_t(bytes[1]) << 16 |
                                std::uint32_t(bytes[2]) << 8 | bytes[3];
    if (value >= kLimit) continue;
    std::string code = std::to_string(value % 1'000'000);
    return std::string(6 - code.size(), '0') + code;
  }
}

// Refresh tokens and web sign-in codes are kept only as hashes: the database alone signs
// nobody in.
std::string hashOf(std::string_view secret) {
  return hexText(sha256(secret));
}

bool verifierMatches(std::string_view verifier, std::string_view challenge) {
  return base64url(sha256(verifier)) == challenge;
}

bool isBase64url(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '_';
  });
}

json userJson(const Account& account) {
  return {{"email", account.email},
          {"display_name", account.displayName},
          {"username", account.username},
          {"role", account.role},
          {"status", account.status}};
}

Refusal expired(const std::string& message) {
  return {410, "expired", message};
}

}  // namespace

std::string pathOf(const std::string& target) {
  return target.substr(0, target.find('?'));
}

struct DevCloudService::Impl {
  explicit Impl(ServiceSettings s)
      : settings(std::move(s)), store(settings.database), streams(store, settings) {
    store.forgetPublishing();
  }

  // A failure the tests asked for, served instead of the next requests to one path.
  struct Failure {
    unsigned status = 500;
    std::string error;
    std::string message;
    std::optional<std::int64_t> retryAfter;
    int times = 1;
  };

  // Who a bearer token speaks for.
  struct Caller {
    Account account;
    std::string deviceId;
  };

  ServiceSettings settings;
  Store store;
  StreamDesk streams;
  std::map<std::string, Failure> failures;

  std::int64_t now() const { return settings.clock(); }

  HttpReply route(const HttpCall& call, const std::string& path);

  // --- e-mail sign-in
  HttpReply magicStart(const HttpCall& call);
  HttpReply magicPoll(const HttpCall& call);
  HttpReply magicCode(const HttpCall& call);
  HttpReply magicApprove(const HttpCall& call);
  MagicRequest liveMagicRequest(const std::string& id);
  json finishMagic(const MagicRequest& request);

  // --- web sign-in
  HttpReply oauthStart(const HttpCall& call, const std::string& provider);
  HttpReply oauthApprovePage(const HttpCall& call);
  HttpReply oauthConfirm(const HttpCall& call);
  HttpReply oauthExchange(const HttpCall& call);

  // --- tokens and the account
  HttpReply refresh(const HttpCall& call);
  HttpReply me(const HttpCall& call);
  HttpReply logout(const HttpCall& call);
  HttpReply events(const HttpCall& call) { return keep(call, false); }
  HttpReply support(const HttpCall& call) { return keep(call, true); }
  HttpReply keep(const HttpCall& call, bool isSupport);
  Caller caller(const HttpCall& call);
  json issueTokens(const Account& account, const std::string& deviceId,
                   const std::string& deviceName);
  std::string accessToken(const Account& account, const std::string& deviceId);

  // --- controls for tests
  HttpReply nextFailure(const HttpCall& call);
  HttpReply revoke(const HttpCall& call);
  HttpReply lastCode(const HttpCall& call);
};

DevCloudService::DevCloudService(ServiceSettings settings)
    : impl_(std::make_unique<Impl>(std::move(settings))) {}

DevCloudService::~DevCloudService() = default;

HttpReply DevCloudService::handle(const HttpCall& call) {
  const std::string path = pathOf(call.target);
  try {
    if (!path.starts_with("/dev/")) {
      if (auto found = impl_->failures.find(path); found != impl_->failures.end()) {
        auto failure = found->second;
        if (--found->second.times <= 0) impl_->failures.erase(found);
        auto reply = errorReply(failure.status, failure.error, failure.message);
        if (failure.retryAfter)
          reply.headers.emplace_back("Retry-After", std::to_string(*failure.retryAfter));
        return reply;
      }
    }
    return impl_->route(call, path);
  } catch (const Refusal& refusal) {
    return errorReply(refusal.status, refusal.error, refusal.message);
  } catch (const StoreError& error) {
    impl_->settings.log(std::string("store failed: ") + error.what());
    return errorReply(500, "server_error", "The service could not read or write its data.");
  } catch (const json::exception&) {
    return errorReply(400, "invalid_request", "A field of the body has the wrong type.");
  }
}

HttpReply DevCloudService::Impl::route(const HttpCall& call, const std::string& path) {
  using Handler = HttpReply (Impl::*)(const HttpCall&);
  struct Route {
    std::string_view method;
    std::string_view path;
    Handler handler;
  };
  static constexpr Route kRoutes[] = {
      {"POST", "/v1/auth/magic/start", &Impl::magicStart},
      {"POST", "/v1/auth/magic/poll", &Impl::magicPoll},
      {"POST", "/v1/auth/magic/code", &Impl::magicCode},
      {"GET", "/v1/auth/magic/approve", &Impl::magicApprove},
      {"POST", "/v1/auth/oauth/exchange", &Impl::oauthExchange},
      {"POST", "/v1/auth/refresh", &Impl::refresh},
      {"GET", "/v1/auth/me", &Impl::me},
      {"POST", "/v1/auth/logout", &Impl::logout},
      {"POST", "/v1/events", &Impl::events},
      {"POST", "/v1/support", &Impl::support},
      {"GET", "/dev/oauth/approve", &Impl::oauthApprovePage},
      {"GET", "/dev/oauth/approve/confirm", &Impl::oauthConfirm},
      {"POST", "/dev/next-failure", &Impl::nextFailure},
      {"POST", "/dev/revoke", &Impl::revoke},
      {"GET", "/dev/last-code", &Impl::lastCode},
  };
  if (auto reply = streams.handle(call, path, [&] { return caller(call).account; })) return *reply;
  std::string allowed;
  for (const auto& r : kRoutes) {
    if (r.path != path) continue;
    if (r.method == call.method) return (this->*r.handler)(call);
    allowed = r.method;
  }
  // /v1/auth/oauth/{provider}/start
  constexpr std::string_view kOAuth = "/v1/auth/oauth/";
  if (allowed.empty() && path.starts_with(kOAuth) && path.ends_with("/start")) {
    const std::string provider = path.substr(kOAuth.size(), path.size() - kOAuth.size() - 6);
    if (!provider.empty() && provider.find('/') == std::string::npos) {
      if (call.method == "GET") return oauthStart(call, provider);
      allowed = "GET";
    }
  }
  if (allowed.empty()) return errorReply(404, "not_found", "Nothing is served at " + path + ".");
  auto reply = errorReply(405, "method_not_allowed", path + " takes " + allowed + ".");
  reply.headers.emplace_back("Allow", allowed);
  return reply;
}

// --- e-mail sign-in

HttpReply DevCloudService::Impl::magicStart(const HttpCall& call) {
  const json body = objectBody(call);
  const std::string email = normalEmail(requiredText(body, "email"));
  if (!isFullEmail(email))
    throw Refusal{400, "invalid_email", "Enter a full email address, like name@example.com."};
  const std::string challenge = requiredText(body, "code_challenge");
  if (!isBase64url(challenge))
    throw Refusal{400, "invalid_request", "code_challenge must be base64url."};
  // Without an intent (an older studio) an unknown address gets its account made.
  const auto intent = optionalText(body, "intent");
  if (intent && *intent != "signin" && *intent != "signup")
    throw Refusal{400, "invalid_request", "intent is signin or signup."};

  auto account = store.account(email);
  const bool isNew = !account;
  if (isNew) {
    if (intent == "signin")
      throw Refusal{404, "no_account", "There's no Quorvane account for " + email + " yet."};
    account =
        store.createAccount(email, trimmed(optionalText(body, "full_name").value_or("")), now());
  }

  MagicRequest request;
  request.id = randomToken(16);
  request.accountId = account->id;
  request.code = sixDigits();
  request.challenge = challenge;
  request.deviceId = optionalText(body, "device_id").value_or("unset");
  request.deviceName = optionalText(body, "device_name").value_or("");
  request.platform = optionalText(body, "platform").value_or("");
  request.expires = now() + settings.codeTtlSeconds;
  store.addMagicRequest(request, now());

  // The mail it would have sent. These two lines are the only ones that carry a code.
  const std::string link = settings.site +
                           "/v1/auth/magic/approve?request_id=" + percentEncode(request.id) +
                           "&code=" + request.code;
  for (const auto& line :
       {"code for " + email + ": " + request.code, "link for " + email + ": " + link}) {
    settings.announce(line);
    settings.log(line);
  }
  return jsonReply(200, {{"request_id", request.id}, {"account", isNew ? "new" : "existing"}});
}

MagicRequest DevCloudService::Impl::liveMagicRequest(const std::string& id) {
  auto request = store.magicRequest(id);
  if (!request || request->used || now() >= request->expires)
    throw expired("That sign-in has expired. Send a new code.");
  return *request;
}

json DevCloudService::Impl::finishMagic(const MagicRequest& request) {
  // A poll and a typed code may race; only one of them gets the tokens.
  if (!store.useMagicRequest(request.id))
    throw expired("That sign-in has already finished. Send a new code.");
  const auto account = store.account(request.accountId);
  if (!account) throw expired("That account is gone.");
  json reply = issueTokens(*account, request.deviceId, request.deviceName);
  reply["user"] = userJson(*account);
  return reply;
}

HttpReply DevCloudService::Impl::magicPoll(const HttpCall& call) {
  const json body = objectBody(call);
  const auto request = liveMagicRequest(requiredText(body, "request_id"));
  if (!verifierMatches(requiredText(body, "code_verifier"), request.challenge))
    throw Refusal{400, "invalid_verifier", "That sign-in was started elsewhere."};
  if (!request.approved) return jsonReply(202, {{"status", "pending"}});
  json reply = finishMagic(request);
  reply["status"] = "approved";
  return jsonReply(200, reply);
}

HttpReply DevCloudService::Impl::magicCode(const HttpCall& call) {
  const json body = objectBody(call);
  const auto request = liveMagicRequest(requiredText(body, "request_id"));
  const std::string code = requiredText(body, "code");
  if (!verifierMatches(requiredText(body, "code_verifier"), request.challenge))
    throw Refusal{400, "invalid_verifier", "That sign-in was started elsewhere."};
  if (code != request.code) {
    if (store.noteWrongCode(request.id) >= kMostWrongCodes) store.useMagicRequest(request.id);
    throw Refusal{401, "invalid_code", "That code isn't right."};
  }
  return jsonReply(200, finishMagic(request));
}

HttpReply DevCloudService::Impl::magicApprove(const HttpCall& call) {
  const auto query = queryOf(call.target);
  auto request = store.magicRequest(queryValue(query, "request_id"));
  if (!request || request->used || now() >= request->expires)
    return htmlReply(410, "This link has expired",
                     "<p>Go back to Quorvane Studio and send a new code.</p>");
  if (queryValue(query, "code") != request->code) {
    if (store.noteWrongCode(request->id) >= kMostWrongCodes) store.useMagicRequest(request->id);
    return htmlReply(400, "This link isn't right",
                     "<p>Open the link from the latest email, or type its code in Quorvane "
                     "Studio.</p>");
  }
  store.approveMagicRequest(request->id);
  return htmlReply(200, "You're signed in",
                   "<p>Quorvane Studio can continue: go back to it, it finishes by itself.</p>");
}

// --- web sign-in

HttpReply DevCloudService::Impl::oauthStart(const HttpCall& call, const std::string& provider) {
  if (std::find(kProviders.begin(), kProviders.end(), provider) == kProviders.end())
    throw Refusal{404, "unknown_provider", "That sign-in provider is not available. Use email."};
  const auto query = queryOf(call.target);
  OAuthFlow flow;
  flow.id = randomToken(16);
  flow.provider = provider;
  flow.challenge = requiredQuery(query, "code_challenge");
  if (!isBase64url(flow.challenge))
    throw Refusal{400, "invalid_request", "code_challenge must be base64url."};
  flow.state = requiredQuery(query, "state");
  flow.deviceId = queryValue(query, "device_id", "unset");
  flow.deviceName = queryValue(query, "device_name");
  flow.platform = queryValue(query, "platform");
  flow.expires = now() + settings.codeTtlSeconds;
  store.addOAuthFlow(flow);
  return redirect(settings.site + "/dev/oauth/approve?flow=" + percentEncode(flow.id));
}

HttpReply DevCloudService::Impl::oauthApprovePage(const HttpCall& call) {
  const auto flow = store.oauthFlow(queryValue(queryOf(call.target), "flow"));
  if (!flow || flow->accountId || now() >= flow->expires)
    return htmlReply(410, "This sign-in has expired", "<p>Start again in Quorvane Studio.</p>");
  const std::string confirm = "/dev/oauth/approve/confirm?flow=" + percentEncode(flow->id);
  return htmlReply(200, "Sign in to Quorvane Studio",
                   "<p>This machine's stand-in for " + htmlEscape(flow->provider) +
                       ". Choose the address to sign in with.</p>\n"
                       "<form method=\"get\" action=\"/dev/oauth/approve/confirm\">\n"
                       "<input type=\"hidden\" name=\"flow\" value=\"" +
                       htmlEscape(flow->id) +
                       "\">\n"
                       "<input type=\"email\" name=\"email\" value=\"" +
                       std::string(kDefaultOAuthEmail) +
                       "\">\n"
                       "<button type=\"submit\">Continue</button>\n</form>\n"
                       "<p><a id=\"continue\" href=\"" +
                       htmlEscape(confirm) + "\">Continue as " + std::string(kDefaultOAuthEmail) +
                       "</a></p>");
}

HttpReply DevCloudService::Impl::oauthConfirm(const HttpCall& call) {
  const auto query = queryOf(call.target);
  const auto flow = store.oauthFlow(queryValue(query, "flow"));
  if (!flow || flow->accountId || now() >= flow->expires)
    return htmlReply(410, "This sign-in has expired", "<p>Start again in Quorvane Studio.</p>");
  const std::string email = normalEmail(queryValue(query, "email", kDefaultOAuthEmail));
  if (!isFullEmail(email))
    return htmlReply(400, "That address isn't complete",
                     "<p>Go back and enter a full email address.</p>");
  auto account = store.account(email);
  if (!account) account = store.createAccount(email, trimmed(queryValue(query, "name")), now());
  const std::string code = randomToken(32);
  store.approveOAuthFlow(flow->id, account->id, hashOf(code), now() + settings.codeTtlSeconds);
  return redirect(std::string(kCallback) + "?code=" + percentEncode(code) +
                  "&state=" + percentEncode(flow->state));
}

HttpReply DevCloudService::Impl::oauthExchange(const HttpCall& call) {
  const json body = objectBody(call);
  const auto flow = store.oauthFlowByCode(hashOf(requiredText(body, "code")));
  if (!flow || flow->used || !flow->accountId || now() >= flow->codeExpires)
    throw expired("That sign-in has expired. Start again.");
  if (!verifierMatches(requiredText(body, "code_verifier"), flow->challenge))
    throw Refusal{400, "invalid_verifier", "That sign-in was started elsewhere."};
  if (!store.useOAuthFlow(flow->id)) throw expired("That sign-in has already finished.");
  const auto account = store.account(*flow->accountId);
  if (!account) throw expired("That account is gone.");
  const auto deviceId = optionalText(body, "device_id").value_or(flow->deviceId);
  const auto deviceName = optionalText(body, "device_name").value_or(flow->deviceName);
  json reply = issueTokens(*account, deviceId.empty() ? "unset" : deviceId, deviceName);
  reply["user"] = userJson(*account);
  return jsonReply(200, reply);
}

// --- tokens and the account

std::string DevCloudService::Impl::accessToken(const Account& account,
                                               const std::string& deviceId) {
  const std::int64_t issued = now();
  return signJwt({{"sub", std::to_string(account.id)},
                  {"email", account.email},
                  {"exp", issued + settings.accessTtlSeconds},
                  {"iat", issued},
                  {"device_id", deviceId}},
                 store.tokenSecret());
}

json DevCloudService::Impl::issueTokens(const Account& account, const std::string& deviceId,
                                        const std::string& deviceName) {
  const std::string refreshToken = randomToken(32);
  store.addRefreshToken(hashOf(refreshToken), account.id, deviceId, deviceName, now(),
                        now() + kRefreshLifetimeSeconds);
  return {{"access_token", accessToken(account, deviceId)}, {"refresh_token", refreshToken}};
}

DevCloudService::Impl::Caller DevCloudService::Impl::caller(const HttpCall& call) {
  const Refusal refused{401, "invalid_token", "Sign in again."};
  constexpr std::string_view kScheme = "bearer ";
  std::string_view header = call.authorization;
  if (header.size() <= kScheme.size() ||
      !std::equal(kScheme.begin(), kScheme.end(), header.begin(),
                  [](char a, char b) { return a == std::tolower(static_cast<unsigned char>(b)); }))
    throw refused;
  const auto payload = verifyJwt(trimmed(header.substr(kScheme.size())), store.tokenSecret());
  if (!payload) throw refused;
  const auto exp = payload->find("exp");
  const auto sub = payload->find("sub");
  const auto device = payload->find("device_id");
  if (exp == payload->end() || !exp->is_number_integer() || now() >= exp->get<std::int64_t>() ||
      sub == payload->end() || !sub->is_string() || device == payload->end() ||
      !device->is_string())
    throw refused;
  std::int64_t id = 0;
  try {
    id = std::stoll(sub->get<std::string>());
  } catch (const std::exception&) {
    throw refused;
  }
  auto account = store.account(id);
  const std::string deviceId = device->get<std::string>();
  if (!account || !store.hasLiveSession(id, deviceId, now())) throw refused;
  return {*account, deviceId};
}

HttpReply DevCloudService::Impl::refresh(const HttpCall& call) {
  const json body = objectBody(call);
  const std::string hash = hashOf(requiredText(body, "refresh_token"));
  const auto deviceId = optionalText(body, "device_id");
  const auto token = store.refreshToken(hash);
  const Refusal refused{401, "invalid_refresh_token", "Sign in again."};
  if (!token || token->revoked || now() >= token->expires ||
      (deviceId && *deviceId != token->deviceId))
    throw refused;
  // Rotation: the old token is spent the moment a new one exists.
  if (!store.revokeRefreshToken(hash)) throw refused;
  const auto account = store.account(token->accountId);
  if (!account) throw refused;
  return jsonReply(200, issueTokens(*account, token->deviceId, token->deviceName));
}

HttpReply DevCloudService::Impl::me(const HttpCall& call) {
  return jsonReply(200, {{"user", userJson(caller(call).account)}});
}

HttpReply DevCloudService::Impl::logout(const HttpCall& call) {
  const auto who = caller(call);
  const json body = objectBody(call);
  store.revokeRefreshTokens(who.account.id, optionalText(body, "device_id").value_or(who.deviceId));
  return {204, "application/json", "", {}};
}

HttpReply DevCloudService::Impl::keep(const HttpCall& call, bool isSupport) {
  const auto who = caller(call);
  const std::string body = objectBody(call).dump();
  if (isSupport)
    store.addSupportMessage(who.account.id, body, now());
  else
    store.addEvent(who.account.id, body, now());
  return jsonReply(200, json::object());
}

// --- controls for tests

HttpReply DevCloudService::Impl::nextFailure(const HttpCall& call) {
  const json body = objectBody(call);
  const std::string path = requiredText(body, "path");
  if (!path.starts_with("/") || path.starts_with("/dev/") || path.find('?') != std::string::npos)
    throw Refusal{400, "invalid_request", "path is a path of the API, without a query."};
  const auto status = body.find("status");
  if (status == body.end() || !status->is_number_integer() || status->get<int>() < 400 ||
      status->get<int>() > 599)
    throw Refusal{400, "invalid_request", "status is a number from 400 to 599."};
  Failure failure;
  failure.status = status->get<unsigned>();
  failure.error =
      optionalText(body, "error").value_or(failure.status == 429 ? "rate_limited" : "injected");
  failure.message = optionalText(body, "message").value_or("A failure asked for by a test.");
  if (const auto after = body.find("retry_after"); after != body.end() && !after->is_null()) {
    if (!after->is_number_integer() || after->get<std::int64_t>() < 0)
      throw Refusal{400, "invalid_request", "retry_after is whole seconds."};
    failure.retryAfter = after->get<std::int64_t>();
  }
  if (const auto times = body.find("times"); times != body.end() && !times->is_null()) {
    if (!times->is_number_integer() || times->get<int>() < 1)
      throw Refusal{400, "invalid_request", "times is a number from 1."};
    failure.times = times->get<int>();
  }
  // A second call for the same path replaces the first.
  failures[path] = failure;
  return jsonReply(200, json::object());
}

HttpReply DevCloudService::Impl::revoke(const HttpCall& call) {
  const std::string email = normalEmail(requiredText(objectBody(call), "email"));
  const auto account = store.account(email);
  if (!account) throw Refusal{404, "no_account", "There's no account for " + email + "."};
  return jsonReply(200, {{"revoked", store.revokeRefreshTokens(account->id, std::nullopt)}});
}

HttpReply DevCloudService::Impl::lastCode(const HttpCall& call) {
  const std::string email = normalEmail(requiredQuery(queryOf(call.target), "email"));
  const auto request = store.latestMagicRequest(email);
  if (!request) throw Refusal{404, "no_code", "No code was sent to " + email + "."};
  return jsonReply(200, {{"code", request->code}, {"request_id", request->id}});
}

}  // namespace qvn::devcloud
