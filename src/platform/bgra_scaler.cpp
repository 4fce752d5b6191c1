#include "platform/bgra_scaler.h"

#include <libyuv/planar_functions.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qvn {

namespace {

// Where target pixel i samples the source, in 16.16 fixed point, held to the first and last
// pixel: pixel centres map onto pixel centres.
std::int64_t position(int i, const BGRAScaler::Axis& axis, int srcSize) {
  const double at = ((i + 0.5 - axis.origin) / axis.scale - 0.5) * 65536.0;
  const double last = double(srcSize - 1) * 65536.0;
  return static_cast<std::int64_t>(std::llround(std::clamp(at, 0.0, last)));
}

// One row scaled across. A tap reads its pixel pair as 8 bytes, so the last pixel is
// reached as the right half of a pair.
template <class Tap>
void scaleRow(const std::uint8_t* src, const Tap* taps, int width, std::uint8_t* dst) {
  for (int x = 0; x < width; ++x) {
    const Tap tap = taps[x];
#if defined(__SSE2__)
    // Bytes a0..a3 b0..b3 become words a0 b0 a1 b1 ..., so one multiply-add per channel.
    const __m128i pair = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + tap.offset));
    const __m128i words =
        _mm_unpacklo_epi8(_mm_unpacklo_epi8(pair, _mm_srli_si128(pair, 4)), _mm_setzero_si128());
    const __m128i sums = _mm_srli_epi32(
        _mm_add_epi32(_mm_madd_epi16(words, _mm_set1_epi32(tap.weights)), _mm_set1_epi32(128)), 8);
    const __m128i bytes = _mm_packs_epi32(sums, sums);
    const std::int32_t out = _mm_cvtsi128_si32(_mm_packus_epi16(bytes, bytes));
    std::memcpy(dst + x * 4, &out, 4);
#else
    const std::uint8_t* a = src + tap.offset;
    const int left = tap.weights & 0xffff, right = tap.weights >> 16;
    for (int c = 0; c < 4; ++c)
      dst[x * 4 + c] = static_cast<std::uint8_t>((a[c] * left + a[c + 4] * right + 128) >> 8);
#endif
  }
}

// d × (255 − a) / 255, rounded, for one channel.
inline int scaleBy(int d, int inverse) {
  const int t = d * inverse + 128;
  return (t + (t >> 8)) >> 8;
}

}  // namespace

void overRowBGRA(const std::uint8_t* src, std::uint8_t* dst, int count) {
  int x = 0;
#if defined(__SSE2__)
  const __m128i alphaMask = _mm_set1_epi32(static_cast<int>(0xff000000u));
  const __m128i zero = _mm_setzero_si128();
  for (; x + 4 <= count; x += 4) {
    const __m128i s = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x * 4));
    const int opaque = _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(s, alphaMask), alphaMask));
    if (opaque == 0xffff) {  // the usual case: a live picture has no transparency
      _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x * 4), s);
      continue;
    }
    if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(s, alphaMask), zero)) == 0xffff) continue;
    __m128i* out = reinterpret_cast<__m128i*>(dst + x * 4);
    const __m128i d = _mm_loadu_si128(out);
    // 255 − alpha of each pixel, in every word of that pixel.
    const __m128i inverse = _mm_andnot_si128(s, alphaMask);
    auto half = [&](__m128i dw, __m128i inv) {
      inv = _mm_shufflehi_epi16(_mm_shufflelo_epi16(inv, 0xff), 0xff);
      const __m128i t = _mm_add_epi16(_mm_mullo_epi16(dw, inv), _mm_set1_epi16(128));
      return _mm_srli_epi16(_mm_add_epi16(t, _mm_srli_epi16(t, 8)), 8);
    };
    const __m128i lo = half(_mm_unpacklo_epi8(d, zero), _mm_unpacklo_epi8(inverse, zero));
    const __m128i hi = half(_mm_unpackhi_epi8(d, zero), _mm_unpackhi_epi8(inverse, zero));
    _mm_storeu_si128(out, _mm_adds_epu8(s, _mm_packus_epi16(lo, hi)));
  }
#endif
  for (; x < count; ++x) {
    const std::uint8_t* s = src + x * 4;
    std::uint8_t* d = dst + x * 4;
    const int inverse = 255 - s[3];
    for (int c = 0; c < 4; ++c)
      d[c] = static_cast<std::uint8_t>(std::min(255, s[c] + scaleBy(d[c], inverse)));
  }
}

const std::uint8_t* BGRAScaler::across(const PixelBuffer& src, int row) {
  if (straight_) return src.bgraAt(0, row) + taps_[0].offset;
  for (int i = 0; i < 2; ++i)
    if (held_[i] == row) return rows_.data() + size_t(i) * size_t(width_) * 4;
  const int slot = held_[0] == row - 1 ? 1 : 0;  // keep the row above
  std::uint8_t* out = rows_.data() + size_t(slot) * size_t(width_) * 4;
  scaleRow(src.bgraAt(0, row), taps_.data(), width_, out);
  held_[slot] = row;
  return out;
}

bool BGRAScaler::draw(const PixelBuffer& src, PixelBuffer& dst, Axis x, Axis y, Box box,
                      Mode mode) {
  if (src.format() != PixelFormat::bgra || dst.format() != PixelFormat::bgra || &src == &dst ||
      !(x.scale > 0) || !(y.scale > 0))
    return false;
  box.left = std::max(box.left, 0), box.top = std::max(box.top, 0);
  box.right = std::min(box.right, dst.width()), box.bottom = std::min(box.bottom, dst.height());
  if (box.right <= box.left || box.bottom <= box.top || src.width() < 1 || src.height() < 1)
    return false;

  width_ = box.right - box.left;
  taps_.resize(size_t(width_));
  straight_ = true;  // unscaled and on whole pixels: rows are read as they are
  for (int i = 0; i < width_; ++i) {
    const std::int64_t at = position(box.left + i, x, src.width());
    int left = static_cast<int>(at >> 16);
    int weight = static_cast<int>((at >> 8) & 255);
    if (left >= src.width() - 1) {  // the last pixel, as the right half of the last pair
      left = std::max(src.width() - 2, 0);
      weight = src.width() > 1 ? 256 : 0;
    }
    taps_[size_t(i)] = {left * 4, (256 - weight) | weight << 16};
    straight_ = straight_ && weight == 0 && (i == 0 || left == taps_[0].offset / 4 + i);
  }
  rows_.resize(size_t(width_) * 8);
  held_[0] = held_[1] = -1;
  line_.resize(size_t(width_) * 4);

  const size_t rowBytes = size_t(width_) * 4;
  for (int row = box.top; row < box.bottom; ++row) {
    const std::int64_t at = position(row, y, src.height());
    const int top = static_cast<int>(at >> 16);
    const int weight = top >= src.height() - 1 ? 0 : static_cast<int>((at >> 8) & 255);
    std::uint8_t* target = dst.bgraAt(box.left, row);
    std::uint8_t* out = mode == Mode::replace ? target : line_.data();
    const std::uint8_t* upper = across(src, top);
    if (weight == 0)
      std::memcpy(out, upper, rowBytes);
    else
      libyuv::InterpolatePlane(upper, 0, across(src, top + 1), 0, out, 0, width_ * 4, 1, weight);
    if (mode == Mode::over) overRowBGRA(out, target, width_);
  }
  return true;
}

}  // namespace qvn
