// The mix's scaler and its source-over row against plain double-precision references.
#include "platform/bgra_scaler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

namespace qvn {
namespace {

std::mt19937 gRandom(7);

// Premultiplied pixels: alpha first, colour no brighter than it.
PixelBufferRef randomPicture(int width, int height, bool opaque) {
  auto p = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* q = p->bgraAt(x, y);
      const int a = opaque ? 255 : int(gRandom() % 256);
      for (int c = 0; c < 3; ++c) q[c] = std::uint8_t(a ? gRandom() % (a + 1) : 0);
      q[3] = std::uint8_t(a);
    }
  return p;
}

double overReference(double s, double sa, double d) {
  return s + d * (1 - sa / 255);
}

TEST(OverRow, AgreesWithTheRuleForOpaqueClearAndMixedRuns) {
  const int count = 4 * 9 + 3;  // whole groups of four and a tail
  auto src = randomPicture(count, 1, false);
  auto dst = randomPicture(count, 1, true);
  for (int x : {0, 1, 2, 3}) src->bgraAt(x, 0)[3] = 255;            // a fully opaque group
  for (int x : {4, 5, 6, 7}) std::fill_n(src->bgraAt(x, 0), 4, 0);  // a fully clear one
  for (int x : {0, 1, 2, 3}) std::fill_n(src->bgraAt(x, 0), 3, 40);
  std::vector<std::uint8_t> before(dst->data(), dst->data() + count * 4);
  overRowBGRA(src->data(), dst->data(), count);
  int worst = 0;
  for (int i = 0; i < count * 4; ++i) {
    const int x = i / 4;
    const double want = overReference(src->data()[i], src->bgraAt(x, 0)[3], before[size_t(i)]);
    worst = std::max(worst, int(std::abs(want - dst->data()[i]) + 0.5));
  }
  EXPECT_LE(worst, 1);
}

// Bilinear in doubles: target pixel centres map onto source pixel centres, edges repeat.
double sampleReference(const PixelBuffer& src, double sx, double sy, int c) {
  sx = std::clamp(sx, 0.0, double(src.width() - 1));
  sy = std::clamp(sy, 0.0, double(src.height() - 1));
  const int x0 = int(sx), y0 = int(sy);
  const int x1 = std::min(x0 + 1, src.width() - 1), y1 = std::min(y0 + 1, src.height() - 1);
  const double fx = sx - x0, fy = sy - y0;
  auto v = [&](int x, int y) { return double(src.bgraAt(x, y)[c]); };
  return (v(x0, y0) * (1 - fx) + v(x1, y0) * fx) * (1 - fy) +
         (v(x0, y1) * (1 - fx) + v(x1, y1) * fx) * fy;
}

struct Placed {
  BGRAScaler::Axis x, y;
  BGRAScaler::Box box;
};

int worstDifference(const PixelBuffer& src, const PixelBuffer& before, const PixelBuffer& after,
                    const Placed& p, bool over) {
  int worst = 0;
  for (int ty = 0; ty < after.height(); ++ty)
    for (int tx = 0; tx < after.width(); ++tx) {
      const bool inside =
          tx >= p.box.left && tx < p.box.right && ty >= p.box.top && ty < p.box.bottom;
      const double sx = (tx + 0.5 - p.x.origin) / p.x.scale - 0.5;
      const double sy = (ty + 0.5 - p.y.origin) / p.y.scale - 0.5;
      const double alpha = inside ? sampleReference(src, sx, sy, 3) : 0;
      for (int c = 0; c < 4; ++c) {
        double want = before.bgraAt(tx, ty)[c];
        if (inside) {
          const double s = sampleReference(src, sx, sy, c);
          want = over ? overReference(s, alpha, want) : s;
        }
        worst = std::max(worst, int(std::abs(want - after.bgraAt(tx, ty)[c]) + 0.5));
      }
    }
  return worst;
}

TEST(BGRAScaler, AgreesWithTheReferenceUpDownAndOffsetInBothModes) {
  auto src = randomPicture(37, 23, false);
  const Placed cases[] = {
      {{2.7, -11.3}, {1.9, 4.2}, {0, 3, 80, 48}},  // up, cut on the left, partly off
      {{0.45, 3.5}, {0.6, 1.25}, {2, 2, 18, 15}},  // down
      {{1.0, 5.0}, {1.0, 2.0}, {5, 2, 42, 25}},    // whole pixels, unscaled
      {{1.5, 0}, {1.5, 0}, {-10, -10, 200, 200}},  // a box beyond the target
  };
  for (const Placed& p : cases)
    for (auto mode : {BGRAScaler::Mode::replace, BGRAScaler::Mode::over}) {
      auto target = randomPicture(64, 40, true);
      auto before = PixelBuffer::make(PixelFormat::bgra, 64, 40);
      std::copy_n(target->data(), target->stride() * 40, before->data());
      BGRAScaler scaler;
      ASSERT_TRUE(scaler.draw(*src, *target, p.x, p.y, p.box, mode));
      Placed clipped = p;
      clipped.box = {std::max(p.box.left, 0), std::max(p.box.top, 0), std::min(p.box.right, 64),
                     std::min(p.box.bottom, 40)};
      // Weights are eighths of a level: on noise, a sample is within 2 levels, and laying it
      // over adds the rounding of its alpha.
      const bool over = mode == BGRAScaler::Mode::over;
      EXPECT_LE(worstDifference(*src, *before, *target, clipped, over), over ? 3 : 2)
          << "scale " << p.x.scale << (over ? " over" : " replace");
    }
}

TEST(BGRAScaler, RefusesWhatItCannotDraw) {
  auto src = randomPicture(8, 8, true);
  auto target = randomPicture(8, 8, true);
  auto nv12 = PixelBuffer::make(PixelFormat::nv12, 8, 8);
  BGRAScaler scaler;
  EXPECT_FALSE(scaler.draw(*src, *target, {0, 0}, {1, 0}, {0, 0, 8, 8}, BGRAScaler::Mode::over));
  EXPECT_FALSE(scaler.draw(*nv12, *target, {1, 0}, {1, 0}, {0, 0, 8, 8}, BGRAScaler::Mode::over));
  EXPECT_FALSE(scaler.draw(*src, *target, {1, 0}, {1, 0}, {8, 0, 9, 8}, BGRAScaler::Mode::over));
  EXPECT_FALSE(scaler.draw(*src, *src, {1, 0}, {1, 0}, {0, 0, 8, 8}, BGRAScaler::Mode::over));
}

}  // namespace
}  // namespace qvn
