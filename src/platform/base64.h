// Standard base64 (RFC 4648, with padding): how bytes travel inside JSON documents.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvn {

std::string base64Encode(const std::vector<std::uint8_t>& bytes);
// None for text with characters outside the alphabet.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace qvn
