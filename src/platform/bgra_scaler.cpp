#include "platform/bgra_scaler.h"

#include <libyuv/planar_functions.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#if defined(__x86_64__)
#include <immintrin.h>
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

// One row scaled across, one pixel at a time. A tap reads its pixel pair as 8 bytes, so the
// last pixel is reached as the right half of a pair.
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
        _mm_add_epi32(_mm_madd_epi16(words, _mm_set1_epi32(tap.weights)), _mm_set1_epi32(64)), 7);
    const __m128i bytes = _mm_packs_epi32(sums, sums);
    const std::int32_t out = _mm_cvtsi128_si32(_mm_packus_epi16(bytes, bytes));
    std::memcpy(dst + x * 4, &out, 4);
#else
    const std::uint8_t* a = src + tap.offset;
    const int left = tap.weights & 0xffff, right = tap.weights >> 16;
    for (int c = 0; c < 4; ++c)
      dst[x * 4 + c] = static_cast<std::uint8_t>((a[c] * left + a[c + 4] * right + 64) >> 7);
#endif
  }
}

#if defined(__x86_64__)
// Taps i and i + 1 as eight 32-bit channel sums: each pair is widened and interleaved channel
// by channel, then one multiply-add takes both pixels' eight channels.
template <class Tap>
__attribute__((target("avx2"))) inline __m256i twoTaps(const std::uint8_t* src, const Tap* taps) {
  const __m128i interleave = _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
  const __m128i pairs =
      _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + taps[0].offset)),
                         _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src + taps[1].offset)));
  const __m256i words = _mm256_cvtepu8_epi16(_mm_shuffle_epi8(pairs, interleave));
  const __m256i weights = _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_set1_epi32(taps[0].weights)), _mm_set1_epi32(taps[1].weights), 1);
  return _mm256_srli_epi32(
      _mm256_add_epi32(_mm256_madd_epi16(words, weights), _mm256_set1_epi32(64)), 7);
}

// Four pixels at a time, to the same result as one at a time. Says whether the row came out
// opaque, noted on the way at the cost of one AND per four pixels.
template <class Tap>
__attribute__((target("avx2"))) bool scaleRowAVX2(const std::uint8_t* src, const Tap* taps,
                                                  int width, std::uint8_t* dst) {
  const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 0, 0, 0, 0);
  __m128i all = _mm_set1_epi32(-1);
  int x = 0;
  for (; x + 4 <= width; x += 4) {
    const __m256i words =
        _mm256_packs_epi32(twoTaps(src, taps + x), twoTaps(src, taps + x + 2));  // 0 2 | 1 3
    const __m128i bytes = _mm256_castsi256_si128(
        _mm256_permutevar8x32_epi32(_mm256_packus_epi16(words, words), order));
    all = _mm_and_si128(all, bytes);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x * 4), bytes);
  }
  scaleRow(src, taps + x, width - x, dst + x * 4);
  const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xff000000u));
  return _mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(all, alpha), alpha)) == 0xffff &&
         opaqueRowBGRA(dst + x * 4, width - x);
}

bool hasAVX2() {
  static const bool has = __builtin_cpu_supports("avx2");
  return has;
}
#endif

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

bool opaqueRowBGRA(const std::uint8_t* row, int count) {
  int x = 0;
#if defined(__SSE2__)
  const __m128i alphaMask = _mm_set1_epi32(static_cast<int>(0xff000000u));
  __m128i all = alphaMask;
  for (; x + 4 <= count; x += 4)
    all = _mm_and_si128(all, _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x * 4)));
  if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(all, alphaMask), alphaMask)) != 0xffff)
    return false;
#endif
  for (; x < count; ++x)
    if (row[x * 4 + 3] != 255) return false;
  return true;
}

BGRAScaler::Row BGRAScaler::across(const PixelBuffer& src, int row) {
  if (straight_) {
    const std::uint8_t* pixels = src.bgraAt(firstColumn_, row);
    return {pixels, opaqueRowBGRA(pixels, width_)};
  }
  for (int i = 0; i < 2; ++i)
    if (held_[i] == row) return {rows_.data() + size_t(i) * size_t(width_) * 4, heldOpaque_[i]};
  const int slot = held_[0] == row - 1 ? 1 : 0;  // keep the row above
  std::uint8_t* out = rows_.data() + size_t(slot) * size_t(width_) * 4;
  held_[slot] = row;
#if defined(__x86_64__)
  if (hasAVX2()) {
    heldOpaque_[slot] = scaleRowAVX2(src.bgraAt(0, row), taps_.data(), width_, out);
    return {out, heldOpaque_[slot]};
  }
#endif
  scaleRow(src.bgraAt(0, row), taps_.data(), width_, out);
  heldOpaque_[slot] = opaqueRowBGRA(out, width_);
  return {out, heldOpaque_[slot]};
}

bool BGRAScaler::draw(const PixelBuffer& src, PixelBuffer& dst, Axis x, Axis y, Box box, Mode mode,
                      std::uint32_t colour) {
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
  const int firstLeft = static_cast<int>(position(box.left, x, src.width()) >> 16);
  for (int i = 0; i < width_; ++i) {
    const std::int64_t at = position(box.left + i, x, src.width());
    int left = static_cast<int>(at >> 16);
    int weight = static_cast<int>((at >> 9) & 127);  // in 128ths, as pixman weighs too
    straight_ = straight_ && weight == 0 && left == firstLeft + i;
    if (left >= src.width() - 1) {  // the last pixel, as the right half of the last pair
      left = std::max(src.width() - 2, 0);
      weight = src.width() > 1 ? 128 : 0;
    }
    taps_[size_t(i)] = {left * 4, (128 - weight) | weight << 16};
  }
  firstColumn_ = firstLeft;
  rows_.resize(size_t(width_) * 8);
  held_[0] = held_[1] = -1;
  heldOpaque_[0] = heldOpaque_[1] = false;
  line_.resize(size_t(width_) * 4);

  const size_t rowBytes = size_t(width_) * 4;
  for (int row = box.top; row < box.bottom; ++row) {
    const std::int64_t at = position(row, y, src.height());
    const int top = static_cast<int>(at >> 16);
    const int weight = top >= src.height() - 1 ? 0 : static_cast<int>((at >> 8) & 255);
    const Row upper = across(src, top);
    const Row lower = weight == 0 ? upper : across(src, top + 1);
    // Opaque rows cover what is there: they are written straight in, with no second pass.
    const bool covers = mode == Mode::replace || (upper.opaque && lower.opaque);
    std::uint8_t* target = dst.bgraAt(box.left, row);
    std::uint8_t* out = covers ? target : line_.data();
    if (weight == 0)
      std::memcpy(out, upper.pixels, rowBytes);
    else
      libyuv::InterpolatePlane(upper.pixels, 0, lower.pixels, 0, out, 0, width_ * 4, 1, weight);
    if (covers) continue;
    if (mode == Mode::overColour)
      std::fill_n(reinterpret_cast<std::uint32_t*>(target), width_, colour);
    overRowBGRA(out, target, width_);
  }
  return true;
}

}  // namespace qvn
