#include "video/alpha_mask.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace qvn {

namespace {

// Widths of three box filters whose sequence has the variance of a Gaussian of `sigma`.
std::array<int, 3> boxWidths(double sigma) {
  const double ideal = std::sqrt(12 * sigma * sigma / 3 + 1);
  int lower = static_cast<int>(std::floor(ideal));
  if (lower % 2 == 0) --lower;
  const int upper = lower + 2;
  const double m = std::round((12 * sigma * sigma - 3.0 * lower * lower - 12.0 * lower - 9) /
                              (-4.0 * lower - 4));
  std::array<int, 3> widths{};
  for (int i = 0; i < 3; ++i) widths[i] = i < m ? lower : upper;
  return widths;
}

// One box blur of radius r along a line of n values `step` apart, zero beyond the ends.
void boxLine(float* line, int n, int step, int r, std::vector<float>& scratch) {
  scratch.assign(size_t(n), 0.f);
  const float scale = 1.f / float(2 * r + 1);
  double sum = 0;
  for (int i = 0; i <= std::min(r, n - 1); ++i) sum += line[size_t(i) * size_t(step)];
  for (int i = 0; i < n; ++i) {
    scratch[size_t(i)] = float(sum) * scale;
    if (const int enter = i + r + 1; enter < n) sum += line[size_t(enter) * size_t(step)];
    if (const int leave = i - r; leave >= 0) sum -= line[size_t(leave) * size_t(step)];
  }
  for (int i = 0; i < n; ++i) line[size_t(i) * size_t(step)] = scratch[size_t(i)];
}

}  // namespace

AlphaMask AlphaMask::blank(int width, int height) {
  AlphaMask mask;
  mask.width = std::max(width, 0);
  mask.height = std::max(height, 0);
  mask.stride = (mask.width + 3) & ~3;
  mask.alpha.assign(size_t(mask.stride) * size_t(mask.height), 0);
  return mask;
}

int blurMargin(double sigma) {
  return sigma > 0 ? static_cast<int>(std::ceil(3 * sigma)) : 0;
}

AlphaMask blurred(const AlphaMask& mask, double sigma) {
  const int margin = blurMargin(sigma);
  const int w = mask.width + 2 * margin, h = mask.height + 2 * margin;
  std::vector<float> plane(size_t(w) * size_t(h), 0.f);
  for (int y = 0; y < mask.height; ++y)
    for (int x = 0; x < mask.width; ++x)
      plane[size_t(y + margin) * size_t(w) + size_t(x + margin)] = mask.at(x, y);
  if (margin > 0) {
    std::vector<float> scratch;
    for (int width : boxWidths(sigma)) {
      const int r = (width - 1) / 2;
      for (int y = 0; y < h; ++y) boxLine(&plane[size_t(y) * size_t(w)], w, 1, r, scratch);
      for (int x = 0; x < w; ++x) boxLine(&plane[size_t(x)], h, w, r, scratch);
    }
  }
  AlphaMask out = AlphaMask::blank(w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      out.alpha[size_t(y) * size_t(out.stride) + size_t(x)] = static_cast<std::uint8_t>(
          std::clamp(std::lround(plane[size_t(y) * size_t(w) + size_t(x)]), 0L, 255L));
  return out;
}

}  // namespace qvn
