// Hashes and random bytes from OpenSSL, and the text forms the studio's protocols use.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvn {

std::array<std::uint8_t, 32> sha256(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, 32> sha256(std::string_view text);
// Lower-case hexadecimal.
std::string hexText(std::span<const std::uint8_t> bytes);
// Base64 with the URL-safe alphabet and no padding.
std::string base64url(std::span<const std::uint8_t> bytes);
// Bytes from the system's strong random source.
std::vector<std::uint8_t> randomBytes(size_t count);

// This computer's identity for the cloud: a hash of the system's machine id and the
// studio's own name, so the id itself never leaves the machine. None when unreadable.
std::optional<std::string> machineIdentity(const std::string& machineIDFile = "/etc/machine-id");

}  // namespace qvn
