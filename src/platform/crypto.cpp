#include "platform/crypto.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <stdexcept>

namespace qvn {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, 32> digest{};
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr);
  return digest;
}

std::array<std::uint8_t, 32> sha256(std::string_view text) {
  return sha256(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

std::string hexText(std::span<const std::uint8_t> bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
  return out;
}

std::string base64url(std::span<const std::uint8_t> bytes) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string out;
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t v =
        std::uint32_t(bytes[i]) << 16 | std::uint32_t(bytes[i + 1]) << 8 | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) out.push_back(kAlphabet[(v >> shift) & 63]);
  }
  if (const size_t rest = bytes.size() - i; rest > 0) {
    std::uint32_t v = std::uint32_t(bytes[i]) << 16;
    if (rest == 2) v |= std::uint32_t(bytes[i + 1]) << 8;
    out.push_back(kAlphabet[(v >> 18) & 63]);
    out.push_back(kAlphabet[(v >> 12) & 63]);
    if (rest == 2) out.push_back(kAlphabet[(v >> 6) & 63]);
  }
  return out;
}

std::vector<std::uint8_t> randomBytes(size_t count) {
  std::vector<std::uint8_t> bytes(count);
  if (count > 0 && RAND_bytes(bytes.data(), int(count)) != 1)
    throw std::runtime_error("the system's random source failed");
  return bytes;
}

std::optional<std::string> machineIdentity(const std::string& machineIDFile) {
  std::ifstream file(machineIDFile);
  std::string id;
  if (!file || !std::getline(file, id)) return std::nullopt;
  id.erase(std::remove_if(id.begin(), id.end(), [](unsigned char c) { return std::isspace(c); }),
           id.end());
  if (id.empty()) return std::nullopt;
  return hexText(sha256("quorvane-studio:" + id));
}

}  // namespace qvn
