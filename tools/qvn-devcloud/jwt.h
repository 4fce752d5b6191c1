// Access tokens of the devcloud: JSON Web Tokens signed with HMAC-SHA256. Pure functions:
// any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace qvn::devcloud {

// header.payload.signature, each base64url without padding; the header is always
// {"alg":"HS256","typ":"JWT"}.
std::string signJwt(const nlohmann::json& payload, std::span<const std::uint8_t> secret);

// The payload when the token has three parts, an HS256 header and a signature made with
// `secret`; none otherwise. Expiry is the caller's business: this only proves who signed.
std::optional<nlohmann::json> verifyJwt(std::string_view token,
                                        std::span<const std::uint8_t> secret);

// Base64url with or without padding; none for characters outside the alphabet.
std::optional<std::vector<std::uint8_t>> base64urlDecode(std::string_view text);

}  // namespace qvn::devcloud
