#include "jwt.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>

#include "platform/base64.h"
#include "platform/crypto.h"

namespace qvn::devcloud {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::array<std::uint8_t, 32> hmacSha256(std::span<const std::uint8_t> key,
                                        std::string_view message) {
  std::array<std::uint8_t, 32> mac{};
  unsigned int length = 0;
  HMAC(EVP_sha256(), key.data(), int(key.size()), bytesOf(message).data(), message.size(),
       mac.data(), &length);
  return mac;
}

std::string encodeJson(const nlohmann::json& value) {
  return base64url(bytesOf(value.dump()));
}

}  // namespace

std::optional<std::vector<std::uint8_t>> base64urlDecode(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  if (text.size() % 4 == 1) return std::nullopt;
  std::string standard;
  standard.reserve(text.size() + 3);
  for (char c : text) {
    // The standard decoder would take these; in this alphabet they are foreign.
    if (c == '+' || c == '/') return std::nullopt;
    standard.push_back(c == '-' ? '+' : c == '_' ? '/' : c);
  }
  while (standard.size() % 4 != 0) standard.push_back('=');
  return base64Decode(standard);
}

std::string signJwt(const nlohmann::json& payload, std::span<const std::uint8_t> secret) {
  static const nlohmann::json kHeader = {{"alg", "HS256"}, {"typ", "JWT"}};
  const std::string signedPart = encodeJson(kHeader) + "." + encodeJson(payload);
  return signedPart + "." + base64url(hmacSha256(secret, signedPart));
}

std::optional<nlohmann::json> verifyJwt(std::string_view token,
                                        std::span<const std::uint8_t> secret) {
  const auto firstDot = token.find('.');
  const auto lastDot = token.rfind('.');
  if (firstDot == std::string_view::npos || firstDot == lastDot ||
      token.find('.', firstDot + 1) != lastDot)
    return std::nullopt;
  const std::string_view signedPart = token.substr(0, lastDot);
  const auto signature = base64urlDecode(token.substr(lastDot + 1));
  const auto expected = hmacSha256(secret, signedPart);
  if (!signature || signature->size() != expected.size() ||
      CRYPTO_memcmp(signature->data(), expected.data(), expected.size()) != 0)
    return std::nullopt;

  const auto parse = [](std::string_view encoded) -> std::optional<nlohmann::json> {
    const auto bytes = base64urlDecode(encoded);
    if (!bytes) return std::nullopt;
    auto value = nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false);
    if (value.is_discarded() || !value.is_object()) return std::nullopt;
    return value;
  };
  // The signature is checked first, but the header still has to name the one algorithm we
  // sign with, so a token can never talk us into another.
  const auto header = parse(token.substr(0, firstDot));
  if (!header || !header->contains("alg") || (*header)["alg"] != "HS256") return std::nullopt;
  return parse(token.substr(firstDot + 1, lastDot - firstDot - 1));
}

}  // namespace qvn::devcloud
