#include "frame_code.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace qvn {
namespace {

constexpr double kCellsAcross = 40;
constexpr int kRows = 4;
constexpr int kColumns = 11;  // the first holds the references
constexpr int kBits = 40;     // 24 of code, 16 of check
constexpr double kOrigin = 1;
constexpr double kPlateMargin = 0.5;
constexpr int kNarrowest = 80;  // two-pixel cells: below that scaling blurs them away

// Levels between the references, as a fraction of their distance: a cell in the middle band
// is unreadable rather than guessed.
constexpr double kBlackBelow = 0.35;
constexpr double kWhiteAbove = 0.65;
constexpr int kLeastContrast = 64;

// CRC-16/CCITT-FALSE of the three code bytes; its non-zero start keeps an all-black grid
// from passing as code 0.
std::uint16_t checkOf(std::uint32_t code) {
  std::uint16_t crc = 0xFFFF;
  for (int shift = 16; shift >= 0; shift -= 8) {
    crc ^= std::uint16_t(((code >> shift) & 0xFF) << 8);
    for (int bit = 0; bit < 8; ++bit)
      crc = std::uint16_t((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
  }
  return crc;
}

std::uint64_t wordOf(std::uint32_t code) {
  code &= kFrameCodeMask;
  return (std::uint64_t(code) << 16) | checkOf(code);
}

bool referenceIsWhite(int row) {
  return row % 2 == 0;
}

struct Rect {
  int left, top, right, bottom;
};

// A rectangle given in cells, in pixels of a picture `width` wide, clipped to the picture.
Rect cellsToPixels(const PixelBuffer& p, double left, double top, double right, double bottom) {
  const double unit = p.width() / kCellsAcross;
  auto at = [unit](double cells, int limit) {
    return std::clamp(int(std::lround(cells * unit)), 0, limit);
  };
  return {at(left, p.width()), at(top, p.height()), at(right, p.width()), at(bottom, p.height())};
}

void fill(PixelBuffer& p, Rect r, bool white) {
  if (r.right <= r.left || r.bottom <= r.top) return;
  const size_t count = size_t(r.right - r.left);
  for (int y = r.top; y < r.bottom; ++y) {
    if (p.format() == PixelFormat::bgra) {
      std::memset(p.bgraAt(r.left, y), white ? 0xFF : 0, count * 4);
      if (!white)
        for (size_t x = 0; x < count; ++x) p.bgraAt(r.left, y)[x * 4 + 3] = 0xFF;
    } else {
      std::memset(p.data(0) + y * p.stride(0) + r.left, white ? 235 : 16, count);
    }
  }
}

void neutralChroma(PixelBuffer& p, Rect r) {
  const int left = r.left / 2, right = (r.right + 1) / 2;
  for (int plane = 1; plane < p.planeCount(); ++plane) {
    const int samples = p.format() == PixelFormat::nv12 ? 2 : 1;
    for (int y = r.top / 2; y < std::min((r.bottom + 1) / 2, p.planeHeight(plane)); ++y)
      std::memset(p.data(plane) + y * p.stride(plane) + left * samples, 128,
                  size_t((right - left) * samples));
  }
}

// Mean luma of the middle half of a cell, each way: its edges are where scaling and the
// encoder smear it into its neighbours.
double cellLevel(const PixelBuffer& p, int row, int column) {
  const double x = kOrigin + column, y = kOrigin + row;
  Rect r = cellsToPixels(p, x + 0.25, y + 0.25, x + 0.75, y + 0.75);
  r.right = std::max(r.right, r.left + 1);
  r.bottom = std::max(r.bottom, r.top + 1);
  long sum = 0;
  for (int yy = r.top; yy < r.bottom; ++yy)
    for (int xx = r.left; xx < r.right; ++xx) {
      const std::uint8_t* px = p.bgraAt(xx, yy);
      sum += (19 * px[0] + 183 * px[1] + 54 * px[2]) >> 8;
    }
  return double(sum) / ((r.right - r.left) * (r.bottom - r.top));
}

}  // namespace

void drawFrameCode(PixelBuffer& picture, std::uint32_t code) {
  if (picture.width() < kNarrowest) return;
  const Rect plate =
      cellsToPixels(picture, kOrigin - kPlateMargin, kOrigin - kPlateMargin,
                    kOrigin + kColumns + kPlateMargin, kOrigin + kRows + kPlateMargin);
  fill(picture, plate, false);
  if (picture.format() != PixelFormat::bgra) neutralChroma(picture, plate);
  const std::uint64_t word = wordOf(code);
  for (int row = 0; row < kRows; ++row)
    for (int column = 0; column < kColumns; ++column) {
      const int bit = row * (kColumns - 1) + column - 1;
      const bool white =
          column == 0 ? referenceIsWhite(row) : ((word >> (kBits - 1 - bit)) & 1) != 0;
      if (!white) continue;  // the plate is black already
      const double x = kOrigin + column, y = kOrigin + row;
      fill(picture, cellsToPixels(picture, x, y, x + 1, y + 1), true);
    }
}

std::optional<std::uint32_t> readFrameCode(const PixelBuffer& bgra) {
  if (bgra.format() != PixelFormat::bgra || bgra.width() < kNarrowest ||
      (kOrigin + kRows + kPlateMargin) * bgra.width() / kCellsAcross > bgra.height())
    return std::nullopt;
  double white = 0, black = 0;
  for (int row = 0; row < kRows; ++row)
    (referenceIsWhite(row) ? white : black) += cellLevel(bgra, row, 0) / (kRows / 2);
  if (white - black < kLeastContrast) return std::nullopt;
  std::uint64_t word = 0;
  for (int row = 0; row < kRows; ++row)
    for (int column = 1; column < kColumns; ++column) {
      const double level = (cellLevel(bgra, row, column) - black) / (white - black);
      if (level > kBlackBelow && level < kWhiteAbove) return std::nullopt;
      word = (word << 1) | (level >= kWhiteAbove ? 1 : 0);
    }
  const std::uint32_t code = std::uint32_t(word >> 16);
  if (wordOf(code) != word) return std::nullopt;
  return code;
}

}  // namespace qvn
