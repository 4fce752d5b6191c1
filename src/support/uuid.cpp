#include "support/uuid.h"

#include <cstdio>
#include <random>

namespace qvn {

std::string makeUUID() {
  thread_local std::mt19937_64 random{std::random_device{}()};
  unsigned char b[16];
  for (int i = 0; i < 16; i += 8) {
    const auto v = random();
    for (int k = 0; k < 8; ++k) b[i + k] = static_cast<unsigned char>(v >> (8 * k));
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // the RFC variant
  char text[37];
  std::snprintf(text, sizeof text,
                "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14],
                b[15]);
  return text;
}

}  // namespace qvn
