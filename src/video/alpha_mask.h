// 8-bit coverage pictures: the inset's shape and its soft shadow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qvn {

// 0 outside and 255 inside; what the compositor takes as an a8 mask. Rows are a multiple
// of four bytes.
struct AlphaMask {
  int width = 0;
  int height = 0;
  int stride = 0;  // bytes per row
  std::vector<std::uint8_t> alpha;

  static AlphaMask blank(int width, int height);
  std::uint8_t at(int x, int y) const {
    return alpha[std::size_t(y) * std::size_t(stride) + std::size_t(x)];
  }
};

// How far a blur of standard deviation `sigma` spreads beyond the picture, in pixels.
int blurMargin(double sigma);

// A Gaussian blur of standard deviation `sigma`, grown by blurMargin on every side so that
// nothing is cut. Three running box blurs a direction stand in for the Gaussian: each pixel
// costs the same at any radius, and the result is within a few levels of the true curve.
AlphaMask blurred(const AlphaMask& mask, double sigma);

}  // namespace qvn
