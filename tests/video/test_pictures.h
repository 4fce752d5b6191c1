// Solid pictures to feed the mix and colour checks on what it draws.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>

#include "platform/pixel_buffer.h"

namespace qvn {

struct Px {
  int r = -1, g = -1, b = -1;
};
constexpr Px kBackground{15, 17, 23}, kRed{255, 0, 0}, kBlue{0, 0, 255}, kGreen{0, 255, 0};

inline testing::AssertionResult near(Px got, Px want, int tolerance = 2) {
  if (std::abs(got.r - want.r) <= tolerance && std::abs(got.g - want.g) <= tolerance &&
      std::abs(got.b - want.b) <= tolerance)
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << "got " << got.r << "," << got.g << "," << got.b;
}

// An opaque BGRA picture of one colour, or a premultiplied one at `alpha`.
inline PixelBufferRef solid(int width, int height, Px c, double alpha = 1) {
  auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  auto level = [alpha](int v) { return std::uint8_t(v * alpha + 0.5); };
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = buffer->bgraAt(x, y);
      p[0] = level(c.b), p[1] = level(c.g), p[2] = level(c.r), p[3] = level(255);
    }
  return buffer;
}

inline Px pixelAt(const PixelBuffer& picture, int x, int y) {
  const std::uint8_t* q = picture.bgraAt(x, y);
  return {q[2], q[1], q[0]};
}

}  // namespace qvn
