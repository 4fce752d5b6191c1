#include "cloud/cloud_wire.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <regex>

#include "platform/base64.h"
#include "platform/crypto.h"

namespace qvn {

namespace QvnCloud {

namespace {

std::optional<std::string> textAt(const nlohmann::json& j, const char* key) {
  if (auto it = j.find(key); it != j.end() && it->is_string()) return it->get<std::string>();
  return std::nullopt;
}

}  // namespace

User parseUser(const nlohmann::json& reply, const std::string& fallbackEmail) {
  const nlohmann::json& j = reply.is_object() && reply.contains("user") && reply["user"].is_object()
                                ? reply["user"]
                                : reply;
  User u;
  if (!j.is_object()) {
    u.email = fallbackEmail;
    u.role = "user";
    return u;
  }
  for (const char* key : {"display_name", "full_name", "name", "username"})
    if (auto name = textAt(j, key)) {
      u.name = *name;
      break;
    }
  u.username = textAt(j, "username").value_or("");
  u.avatarURL = textAt(j, "avatar_url");
  if (!u.avatarURL) u.avatarURL = textAt(j, "profile_photo");
  u.email = textAt(j, "email").value_or(fallbackEmail);
  u.role = textAt(j, "role").value_or("user");
  u.status = textAt(j, "status").value_or("");
  return u;
}

std::optional<double> jwtExpiry(const std::string& token) {
  const size_t first = token.find('.');
  if (first == std::string::npos) return std::nullopt;
  const size_t second = token.find('.', first + 1);
  std::string piece =
      token.substr(first + 1, second == std::string::npos ? std::string::npos : second - first - 1);
  std::replace(piece.begin(), piece.end(), '-', '+');
  std::replace(piece.begin(), piece.end(), '_', '/');
  while (piece.size() % 4) piece += '=';
  const auto bytes = base64Decode(piece);
  if (!bytes) return std::nullopt;
  const auto payload = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
  if (!payload.is_object() || !payload.contains("exp") || !payload["exp"].is_number())
    return std::nullopt;
  return payload["exp"].get<double>();
}

std::string randomVerifier() {
  return base64url(randomBytes(32));
}

std::string challenge(const std::string& verifier) {
  return base64url(sha256(verifier));
}

}  // namespace QvnCloud

bool isRefreshRevoked(const CloudError& error) {
  if (!error.fromAPI() || error.code != 401) return false;
  const std::string& word = error.qvnerror.empty() ? error.text : error.qvnerror;
  return word == "invalid_refresh_token" || word == "device_revoked" || word == "session_revoked";
}

bool isSchemaRejection(const CloudError& error) {
  std::string lower = error.text;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return error.qvncode == "FST_ERR_VALIDATION" ||
         lower.find("additional properties") != std::string::npos ||
         lower.find("must not have") != std::string::npos;
}

AuthMessage authMessage(const CloudError& error) {
  if (!error.fromAPI())
    return {"Can't reach Quorvane. Check your internet connection, then try again.", {}};
  switch (error.code) {
    case 400:
      if (error.qvnerror == "invalid_email")
        return {std::string("Enter a full email address, like ") + kExampleEmail + ".", {}};
      break;
    case 403:
      if (error.qvnerror == "account_inactive")
        return {std::string("This Quorvane account is turned off. Email ") + kSupportEmail +
                    " and we'll help.",
                {}};
      break;
    case 429:
      return {"Too many attempts from this network. You can try again in a moment.",
              std::clamp(error.retryAfter > 0 ? error.retryAfter : 60, 30, 300)};
    case 500:
    case 502:
    case 503:
      return {"Quorvane is busy right now. Try again in a minute.", {}};
    default:
      break;
  }
  return {"Something went wrong signing in. Try again, or use Continue with Google.", {}};
}

std::string goLiveMessage(const CloudError& error) {
  if (!error.fromAPI())
    return "Studio can't reach Quorvane. Check your internet connection, then try again.";
  if (error.code == 429) return "Too many Go Live attempts. Wait a minute, then try again.";
  return "Quorvane couldn't start the session (" + std::to_string(error.code) +
         "). Try again in a moment.";
}

std::optional<std::string> acceptedEmail(const std::string& typed) {
  const auto first = typed.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return std::nullopt;
  std::string address = typed.substr(first, typed.find_last_not_of(" \t\r\n") - first + 1);
  std::transform(address.begin(), address.end(), address.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  static const std::regex kFull(R"(^[^\s@]+@[^\s@]+\.[^\s@]+$)");
  if (!std::regex_match(address, kFull)) return std::nullopt;
  return address;
}

std::optional<std::string> sixDigits(const std::string& typed) {
  std::string digits;
  for (char c : typed)
    if (c >= '0' && c <= '9') digits += c;
  if (digits.size() != 6) return std::nullopt;
  return digits;
}

}  // namespace qvn
