#include "platform/base64.h"

namespace qvn {

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

}  // namespace

std::string base64Encode(const std::vector<std::uint8_t>& bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t left = bytes.size() - i;
    const std::uint32_t n = std::uint32_t{bytes[i]} << 16 |
                            (left > 1 ? std::uint32_t{bytes[i + 1]} << 8 : 0) |
                            (left > 2 ? std::uint32_t{bytes[i + 2]} : 0);
    out += kBase64Alphabet[n >> 18 & 63];
    out += kBase64Alphabet[n >> 12 & 63];
    out += left > 1 ? kBase64Alphabet[n >> 6 & 63] : '=';
    out += left > 2 ? kBase64Alphabet[n & 63] : '=';
  }
  return out;
}

// Strict: padded, whole quads, padding only at the end. Anything else is a damaged file.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  auto sextet = [](char c) -> int {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
  };
  std::vector<std::uint8_t> out;
  out.reserve(text.size() / 4 * 3);
  for (size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    const int padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
    if (padding == 1 && text[i + 2] == '=') return std::nullopt;  // "x=y=" style
    std::uint32_t n = 0;
    for (int k = 0; k < 4; ++k) {
      const int v = k >= 4 - padding ? 0 : sextet(text[i + k]);
      if (v < 0) return std::nullopt;
      n = n << 6 | static_cast<std::uint32_t>(v);
    }
    out.push_back(static_cast<std::uint8_t>(n >> 16));
    if (padding < 2) out.push_back(static_cast<std::uint8_t>(n >> 8 & 0xff));
    if (padding < 1) out.push_back(static_cast<std::uint8_t>(n & 0xff));
  }
  return out;
}

}  // namespace qvn
