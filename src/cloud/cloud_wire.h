// The account's rules about what travels on the wire, without any I/O: reading a user,
// a token's expiry, the proof-key pair, and the words for errors. Any thread.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "cloud/cloud_error.h"

namespace qvn {

namespace QvnCloud {

struct User {
  std::string email, name, username;
  std::optional<std::string> avatarURL;
  std::string role, status;
  bool operator==(const User&) const = default;
};

// The object under "user" if there is one, else the whole reply; `fallbackEmail` when the
// reply has no address.
User parseUser(const nlohmann::json& json, const std::string& fallbackEmail);
// The "exp" of a JWT's payload, in seconds since 1970; none when unreadable.
std::optional<double> jwtExpiry(const std::string& token);

// Proof key: 32 random bytes as base64url, and its SHA-256 challenge in the same form.
std::string randomVerifier();
std::string challenge(const std::string& verifier);

}  // namespace QvnCloud

// A refresh the server refused for good: the sign-in is over.
bool isRefreshRevoked(const CloudError& error);
// A start the server refused for keys it doesn't know (an older server).
bool isSchemaRejection(const CloudError& error);
// Sign-in's words for an error, and the rate limit's countdown when it is one.
struct AuthMessage {
  std::string text;
  std::optional<int> retrySeconds;
};
AuthMessage authMessage(const CloudError& error);
// Go Live's words for an error.
std::string goLiveMessage(const CloudError& error);
// A trimmed, lower-case address when it looks like a full one.
std::optional<std::string> acceptedEmail(const std::string& typed);
// The six digits of a typed code, whatever spaces or dashes came with them.
std::optional<std::string> sixDigits(const std::string& typed);

inline constexpr const char* kExampleEmail = "you@example.com";
inline constexpr const char* kSupportEmail = "support@quorvane.com";

}  // namespace qvn
