#include "platform/pixel_convert.h"

#include "platform/bgra_scaler.h"

#include <libyuv/convert_from.h>
#include <libyuv/planar_functions.h>
#include <libyuv/rotate_argb.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#include <immintrin.h>
#endif

namespace qvn {
namespace {

bool fits(const PixelBuffer& src, PixelFormat from, const PixelBuffer& dst, PixelFormat to) {
  return &src != &dst && src.format() == from && dst.format() == to && src.width() == dst.width() &&
         src.height() == dst.height();
}

// BT.709 limited range both ways, our own: libyuv's RGB to YUV is BT.601 or full-range JPEG
// only, and its BT.709 YUV to RGB caps the Cb-to-blue gain at 2.0 (its SIMD multiplies by
// signed bytes) where 2.11 is right, so saturated blues come out up to 12 levels dark (pure
// blue as 243).
namespace bt709 {

constexpr double kR = 0.2126;
constexpr double kB = 0.0722;
constexpr double kG = 1.0 - kR - kB;
constexpr double kLumaRange = 219.0 / 255.0;
constexpr double kChromaRange = 224.0 / 255.0;

constexpr int fixedPoint(double v, int fractionBits) {
  return static_cast<int>(v * (1 << fractionBits) + (v < 0 ? -0.5 : 0.5));
}

// To YUV, with 16 fraction bits.
constexpr int fixed16(double v) {
  return fixedPoint(v, 16);
}

constexpr int kYR = fixed16(kLumaRange * kR);
constexpr int kYG = fixed16(kLumaRange * kG);
constexpr int kYB = fixed16(kLumaRange * kB);
// Greys must give exactly 128, so each chroma row sums to zero.
constexpr int kUB = fixed16(kChromaRange * 0.5);
constexpr int kUR = fixed16(-kChromaRange * 0.5 * kR / (1.0 - kB));
constexpr int kUG = -kUB - kUR;
constexpr int kVR = kUB;
constexpr int kVB = fixed16(-kChromaRange * 0.5 * kB / (1.0 - kR));
constexpr int kVG = -kVR - kVB;

inline std::uint8_t lumaCode(const std::uint8_t* bgra) {
  return static_cast<std::uint8_t>(
      (kYR * bgra[2] + kYG * bgra[1] + kYB * bgra[0] + (16 << 16) + (1 << 15)) >> 16);
}

// From sums over a 2x2 block; never negative and never above 240, so no clamping.
inline std::uint8_t chromaCode(int cr, int cg, int cb, int r, int g, int b) {
  return static_cast<std::uint8_t>((cr * r + cg * g + cb * b + (128 << 18) + (1 << 17)) >> 18);
}

#if defined(__SSE2__)
// Luma of eight BGRA pixels as eight int32, in order. kYG doesn't fit the int16 multiply-add,
// so green is weighed twice, half each time: the sums are the scalar path's exactly.
__attribute__((target("avx2"))) inline __m256i lumaOfEight(__m256i pixels) {
  constexpr char z = -1;  // a zero byte
  // Per 128-bit lane, the words b, g, r, g of two pixels.
  const __m256i first =
      _mm256_shuffle_epi8(pixels, _mm256_setr_epi8(0, z, 1, z, 2, z, 1, z, 4, z, 5, z, 6, z, 5, z,
                                                   0, z, 1, z, 2, z, 1, z, 4, z, 5, z, 6, z, 5, z));
  const __m256i second = _mm256_shuffle_epi8(
      pixels, _mm256_setr_epi8(8, z, 9, z, 10, z, 9, z, 12, z, 13, z, 14, z, 13, z, 8, z, 9, z, 10,
                               z, 9, z, 12, z, 13, z, 14, z, 13, z));
  const __m256i weights = _mm256_setr_epi16(
      short(kYB), short(kYG / 2), short(kYR), short(kYG - kYG / 2), short(kYB), short(kYG / 2),
      short(kYR), short(kYG - kYG / 2), short(kYB), short(kYG / 2), short(kYR),
      short(kYG - kYG / 2), short(kYB), short(kYG / 2), short(kYR), short(kYG - kYG / 2));
  const __m256i sums =
      _mm256_hadd_epi32(_mm256_madd_epi16(first, weights), _mm256_madd_epi16(second, weights));
  return _mm256_srli_epi32(_mm256_add_epi32(sums, _mm256_set1_epi32((16 << 16) + (1 << 15))), 16);
}

// Sixteen luma bytes from sixteen pixels, `a` then `b`.
__attribute__((target("avx2"))) inline __m128i lumaBytes(__m256i a, __m256i b) {
  const __m256i words = _mm256_packs_epi32(lumaOfEight(a), lumaOfEight(b));
  const __m256i bytes = _mm256_packus_epi16(words, words);
  return _mm256_castsi256_si128(
      _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 0, 0, 0, 0)));
}

// Per 128-bit lane, one 2×2 block's b, g, r, a sums twice over, weighed for Cb and for Cr:
// the blocks of two pixels of `top` and `bottom` each.
__attribute__((target("avx2"))) inline __m256i weighedBlocks(__m128i top, __m128i bottom) {
  const __m256i weights = _mm256_setr_epi16(short(kUB), short(kUG), short(kUR), 0, short(kVB),
                                            short(kVG), short(kVR), 0, short(kUB), short(kUG),
                                            short(kUR), 0, short(kVB), short(kVG), short(kVR), 0);
  const __m256i column = _mm256_add_epi16(_mm256_cvtepu8_epi16(top), _mm256_cvtepu8_epi16(bottom));
  const __m256i block = _mm256_add_epi16(column, _mm256_bsrli_epi128(column, 8));
  return _mm256_madd_epi16(_mm256_unpacklo_epi64(block, block), weights);
}

// Cb of four 2×2 blocks then their Cr, as eight int32, from eight pixels of two rows.
__attribute__((target("avx2"))) inline __m256i chromaOfEight(__m256i top, __m256i bottom) {
  const __m256i sums = _mm256_hadd_epi32(
      weighedBlocks(_mm256_castsi256_si128(top), _mm256_castsi256_si128(bottom)),
      weighedBlocks(_mm256_extracti128_si256(top, 1),
                    _mm256_extracti128_si256(bottom, 1)));  // Cb0 Cr0 Cb2 Cr2 | 1, 3
  const __m256i codes =
      _mm256_srai_epi32(_mm256_add_epi32(sums, _mm256_set1_epi32((128 << 18) + (1 << 17))), 18);
  return _mm256_permutevar8x32_epi32(codes, _mm256_setr_epi32(0, 4, 2, 6, 1, 5, 3, 7));
}

// Sixteen columns of a row pair at a time; how many columns it did.
template <int step>
__attribute__((target("avx2"))) int rowPairFromBGRAWide(const std::uint8_t* top,
                                                        const std::uint8_t* bottom,
                                                        std::uint8_t* yTop, std::uint8_t* yBottom,
                                                        std::uint8_t* u, std::uint8_t* v,
                                                        int width) {
  int x = 0;
  for (; x + 16 <= width; x += 16) {
    const __m256i* t = reinterpret_cast<const __m256i*>(top + 4 * x);
    const __m256i* b = reinterpret_cast<const __m256i*>(bottom + 4 * x);
    const __m256i t0 = _mm256_loadu_si256(t), t1 = _mm256_loadu_si256(t + 1);
    const __m256i b0 = _mm256_loadu_si256(b), b1 = _mm256_loadu_si256(b + 1);
    _mm_storeu_si128(reinterpret_cast<__m128i*>(yTop + x), lumaBytes(t0, t1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(yBottom + x), lumaBytes(b0, b1));
    const __m256i words = _mm256_packs_epi32(chromaOfEight(t0, b0), chromaOfEight(t1, b1));
    const __m256i bytes = _mm256_packus_epi16(words, words);  // Cb 0-7 twice | Cr 0-7 twice
    const __m128i cb = _mm256_castsi256_si128(bytes), cr = _mm256_extracti128_si256(bytes, 1);
    if constexpr (step == 2) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(u + x), _mm_unpacklo_epi8(cb, cr));
    } else {
      _mm_storel_epi64(reinterpret_cast<__m128i*>(u + x / 2), cb);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(v + x / 2), cr);
    }
  }
  return x;
}
#endif

// `step` is 1 for separate U and V planes, 2 for interleaved CbCr (v = u + 1).
template <int step>
void fromBGRA(const PixelBuffer& src, std::uint8_t* y, int yStride, std::uint8_t* u,
              std::uint8_t* v, int chromaStride) {
  const int width = src.width();
#if defined(__SSE2__)
  static const bool wide = __builtin_cpu_supports("avx2");
#endif
  for (int row = 0; row < src.height(); row += 2) {
    const std::uint8_t* top = src.bgraAt(0, row);
    const std::uint8_t* bottom = src.bgraAt(0, row + 1);
    std::uint8_t* yTop = y + row * yStride;
    std::uint8_t* yBottom = yTop + yStride;
    std::uint8_t* uRow = u + (row / 2) * chromaStride;
    std::uint8_t* vRow = v + (row / 2) * chromaStride;
    int x = 0;
#if defined(__SSE2__)
    if (wide) x = rowPairFromBGRAWide<step>(top, bottom, yTop, yBottom, uRow, vRow, width);
#endif
    for (; x < width; x += 2) {
      const std::uint8_t* a = top + x * 4;
      const std::uint8_t* b = a + 4;
      const std::uint8_t* c = bottom + x * 4;
      const std::uint8_t* d = c + 4;
      yTop[x] = lumaCode(a);
      yTop[x + 1] = lumaCode(b);
      yBottom[x] = lumaCode(c);
      yBottom[x + 1] = lumaCode(d);
      const int sb = a[0] + b[0] + c[0] + d[0];
      const int sg = a[1] + b[1] + c[1] + d[1];
      const int sr = a[2] + b[2] + c[2] + d[2];
      uRow[(x / 2) * step] = chromaCode(kUR, kUG, kUB, sr, sg, sb);
      vRow[(x / 2) * step] = chromaCode(kVR, kVG, kVB, sr, sg, sb);
    }
  }
}

// From YUV, with 13 fraction bits so every coefficient fits the int16 multiply-add of SSE2;
// the vector and the scalar paths give the same bytes.
constexpr int fixed13(double v) {
  return fixedPoint(v, 13);
}

constexpr int kLumaGain = fixed13(255.0 / 219.0);
constexpr double kChromaGain = 255.0 / 224.0;
constexpr int kBlueFromCb = fixed13(kChromaGain * 2.0 * (1.0 - kB));
constexpr int kGreenFromCb = fixed13(-kChromaGain * 2.0 * (1.0 - kB) * kB / kG);
constexpr int kGreenFromCr = fixed13(-kChromaGain * 2.0 * (1.0 - kR) * kR / kG);
constexpr int kRedFromCr = fixed13(kChromaGain * 2.0 * (1.0 - kR));

inline std::uint8_t clamped(int v) {
  return static_cast<std::uint8_t>(std::clamp(v, 0, 255));
}

// y, u, v already less 16, 128, 128.
inline void pixel(int y, int u, int v, std::uint8_t* bgra) {
  const int luma = kLumaGain * y + (1 << 12);
  bgra[0] = clamped((luma + kBlueFromCb * u) >> 13);
  bgra[1] = clamped((luma + kGreenFromCb * u + kGreenFromCr * v) >> 13);
  bgra[2] = clamped((luma + kRedFromCr * v) >> 13);
  bgra[3] = 255;
}

#if defined(__SSE2__)
// Two int16 coefficients side by side, as _mm_madd_epi16 pairs them.
constexpr int pairOf(int low, int high) {
  return static_cast<int>((static_cast<std::uint32_t>(static_cast<std::uint16_t>(high)) << 16) |
                          static_cast<std::uint16_t>(low));
}

// Eight pixels: eight luma bytes at `y`, their four Cb,Cr pairs as bytes in `cbcr`.
inline void eightPixels(const std::uint8_t* y, __m128i cbcr, std::uint8_t* bgra) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i luma =
      _mm_sub_epi16(_mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(y)), zero),
                    _mm_set1_epi16(16));
  const __m128i chroma = _mm_sub_epi16(_mm_unpacklo_epi8(cbcr, zero), _mm_set1_epi16(128));
  // (y, 1) . (gain, half) is the luma term with its rounding.
  const __m128i gain = _mm_set1_epi32(pairOf(kLumaGain, 1 << 12));
  const __m128i one = _mm_set1_epi16(1);
  const __m128i lumaLow = _mm_madd_epi16(_mm_unpacklo_epi16(luma, one), gain);
  const __m128i lumaHigh = _mm_madd_epi16(_mm_unpackhi_epi16(luma, one), gain);
  auto channel = [&](int coefficients) {
    const __m128i c = _mm_madd_epi16(chroma, _mm_set1_epi32(coefficients));  // per Cb,Cr pair
    const __m128i low = _mm_srai_epi32(_mm_add_epi32(lumaLow, _mm_unpacklo_epi32(c, c)), 13);
    const __m128i high = _mm_srai_epi32(_mm_add_epi32(lumaHigh, _mm_unpackhi_epi32(c, c)), 13);
    const __m128i words = _mm_packs_epi32(low, high);
    return _mm_packus_epi16(words, words);
  };
  const __m128i blue = channel(pairOf(kBlueFromCb, 0));
  const __m128i green = channel(pairOf(kGreenFromCb, kGreenFromCr));
  const __m128i red = channel(pairOf(0, kRedFromCr));
  const __m128i bg = _mm_unpacklo_epi8(blue, green);
  const __m128i ra = _mm_unpacklo_epi8(red, _mm_set1_epi8(-1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bgra), _mm_unpacklo_epi16(bg, ra));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(bgra + 16), _mm_unpackhi_epi16(bg, ra));
}

// One channel's bytes of sixteen pixels, in two 8-byte halves, one per 128-bit lane.
__attribute__((target("avx2"))) inline __m256i wideChannel(__m256i chroma, __m256i lumaLow,
                                                           __m256i lumaHigh, int coefficients) {
  const __m256i c = _mm256_madd_epi16(chroma, _mm256_set1_epi32(coefficients));
  const __m256i low = _mm256_srai_epi32(_mm256_add_epi32(lumaLow, _mm256_unpacklo_epi32(c, c)), 13);
  const __m256i high =
      _mm256_srai_epi32(_mm256_add_epi32(lumaHigh, _mm256_unpackhi_epi32(c, c)), 13);
  const __m256i words = _mm256_packs_epi32(low, high);
  return _mm256_packus_epi16(words, words);
}

// The same sums sixteen pixels at a time: each 128-bit lane does what eightPixels does, and
// the lanes are put back in pixel order at the store, so both paths give the same bytes.
__attribute__((target("avx2"))) inline void sixteenPixels(const std::uint8_t* y, __m128i cbcr,
                                                          std::uint8_t* bgra) {
  const __m256i luma =
      _mm256_sub_epi16(_mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(y))),
                       _mm256_set1_epi16(16));
  const __m256i chroma = _mm256_sub_epi16(_mm256_cvtepu8_epi16(cbcr), _mm256_set1_epi16(128));
  const __m256i gain = _mm256_set1_epi32(pairOf(kLumaGain, 1 << 12));
  const __m256i one = _mm256_set1_epi16(1);
  const __m256i lumaLow = _mm256_madd_epi16(_mm256_unpacklo_epi16(luma, one), gain);
  const __m256i lumaHigh = _mm256_madd_epi16(_mm256_unpackhi_epi16(luma, one), gain);
  const __m256i blue = wideChannel(chroma, lumaLow, lumaHigh, pairOf(kBlueFromCb, 0));
  const __m256i green = wideChannel(chroma, lumaLow, lumaHigh, pairOf(kGreenFromCb, kGreenFromCr));
  const __m256i red = wideChannel(chroma, lumaLow, lumaHigh, pairOf(0, kRedFromCr));
  const __m256i bg = _mm256_unpacklo_epi8(blue, green);
  const __m256i ra = _mm256_unpacklo_epi8(red, _mm256_set1_epi8(-1));
  const __m256i first = _mm256_unpacklo_epi16(bg, ra);   // pixels 0-3 and 8-11
  const __m256i second = _mm256_unpackhi_epi16(bg, ra);  // pixels 4-7 and 12-15
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(bgra),
                      _mm256_permute2x128_si256(first, second, 0x20));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(bgra + 32),
                      _mm256_permute2x128_si256(first, second, 0x31));
}

// Sixteen pixels' Cb,Cr pairs as sixteen bytes.
template <int step>
inline __m128i sixteenChroma(const std::uint8_t* u, const std::uint8_t* v, int x) {
  if constexpr (step == 2) return _mm_loadu_si128(reinterpret_cast<const __m128i*>(u + x));
  return _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(u + x / 2)),
                           _mm_loadl_epi64(reinterpret_cast<const __m128i*>(v + x / 2)));
}

template <int step>
__attribute__((target("avx2"))) int rowToBGRAWide(const std::uint8_t* y, const std::uint8_t* u,
                                                  const std::uint8_t* v, std::uint8_t* bgra,
                                                  int width) {
  int x = 0;
  for (; x + 16 <= width; x += 16) sixteenPixels(y + x, sixteenChroma<step>(u, v, x), bgra + x * 4);
  return x;
}
#endif

// One row; `step` is 1 for separate U and V rows, 2 for an interleaved CbCr row (v = u + 1).
template <int step>
void rowToBGRA(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
               std::uint8_t* bgra, int width) {
  int x = 0;
#if defined(__SSE2__)
  static const bool wide = __builtin_cpu_supports("avx2");
  if (wide) x = rowToBGRAWide<step>(y, u, v, bgra, width);
  for (; x + 8 <= width; x += 8) {
    __m128i cbcr;
    if constexpr (step == 2) {
      cbcr = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(u + x));
    } else {
      std::int32_t cb, cr;
      std::memcpy(&cb, u + x / 2, 4);
      std::memcpy(&cr, v + x / 2, 4);
      cbcr = _mm_unpacklo_epi8(_mm_cvtsi32_si128(cb), _mm_cvtsi32_si128(cr));
    }
    eightPixels(y + x, cbcr, bgra + x * 4);
  }
#endif
  for (; x < width; ++x) {
    pixel(y[x] - 16, u[(x / 2) * step] - 128, v[(x / 2) * step] - 128, bgra + x * 4);
  }
}

template <int step>
void toBGRA(const PixelBuffer& src, PixelBuffer& dst) {
  for (int row = 0; row < src.height(); ++row) {
    const std::uint8_t* u = src.data(1) + (row / 2) * src.stride(1);
    const std::uint8_t* v = step == 2 ? u + 1 : src.data(2) + (row / 2) * src.stride(2);
    rowToBGRA<step>(src.data(0) + row * src.stride(0), u, v, dst.bgraAt(0, row), src.width());
  }
}

}  // namespace bt709

// Bilinear BGRA scaling. libyuv's own ARGB filter weighs neighbours 127/128 in all, which
// turns 255 into 253 and so makes opaque pictures slightly transparent; here the two
// weights of each tap always sum to 256. Sample centres line up (pixel x of dst sits at
// (x + 0.5) * src/dst - 0.5 of src), edges repeat.
}  // namespace

bool i420ToBGRA(const PixelBuffer& src, PixelBuffer& dst) {
  if (!fits(src, PixelFormat::i420, dst, PixelFormat::bgra)) return false;
  bt709::toBGRA<1>(src, dst);
  return true;
}

bool nv12ToBGRA(const PixelBuffer& src, PixelBuffer& dst) {
  if (!fits(src, PixelFormat::nv12, dst, PixelFormat::bgra)) return false;
  bt709::toBGRA<2>(src, dst);
  return true;
}

bool bgraToNV12(const PixelBuffer& src, PixelBuffer& dst) {
  if (!fits(src, PixelFormat::bgra, dst, PixelFormat::nv12)) return false;
  bt709::fromBGRA<2>(src, dst.data(0), dst.stride(0), dst.data(1), dst.data(1) + 1, dst.stride(1));
  return true;
}

bool bgraToI420(const PixelBuffer& src, PixelBuffer& dst) {
  if (!fits(src, PixelFormat::bgra, dst, PixelFormat::i420)) return false;
  bt709::fromBGRA<1>(src, dst.data(0), dst.stride(0), dst.data(1), dst.data(2), dst.stride(1));
  return true;
}

bool i420ToNV12(const PixelBuffer& src, PixelBuffer& dst) {
  if (!fits(src, PixelFormat::i420, dst, PixelFormat::nv12)) return false;
  return libyuv::I420ToNV12(src.data(0), src.stride(0), src.data(1), src.stride(1), src.data(2),
                            src.stride(2), dst.data(0), dst.stride(0), dst.data(1), dst.stride(1),
                            src.width(), src.height()) == 0;
}

bool scaleBGRA(const PixelBuffer& src, PixelBuffer& dst) {
  if (&src == &dst || src.format() != PixelFormat::bgra || dst.format() != PixelFormat::bgra) {
    return false;
  }
  if (src.width() == dst.width() && src.height() == dst.height()) {
    libyuv::ARGBCopy(src.data(), src.stride(), dst.data(), dst.stride(), src.width(), src.height());
  } else {
    // Kept per thread so a steady stream of frames allocates nothing after the first.
    thread_local BGRAScaler scaler;
    scaler.draw(src, dst, {double(dst.width()) / src.width(), 0},
                {double(dst.height()) / src.height(), 0}, {0, 0, dst.width(), dst.height()},
                BGRAScaler::Mode::replace);
  }
  return true;
}

namespace {

bool turnFits(const PixelBuffer& src, const PixelBuffer& dst, PixelFormat format, int degrees) {
  if (&src == &dst || src.format() != format || dst.format() != format) return false;
  const bool quarter = degrees == 90 || degrees == 270;
  if (degrees != 0 && degrees != 180 && !quarter) return false;
  return dst.width() == (quarter ? src.height() : src.width()) &&
         dst.height() == (quarter ? src.width() : src.height());
}

}  // namespace

bool rotateI420(const PixelBuffer& src, PixelBuffer& dst, int degrees) {
  if (!turnFits(src, dst, PixelFormat::i420, degrees)) return false;
  return libyuv::I420Rotate(src.data(0), src.stride(0), src.data(1), src.stride(1), src.data(2),
                            src.stride(2), dst.data(0), dst.stride(0), dst.data(1), dst.stride(1),
                            dst.data(2), dst.stride(2), src.width(), src.height(),
                            static_cast<libyuv::RotationMode>(degrees)) == 0;
}

bool rotateBGRA(const PixelBuffer& src, PixelBuffer& dst, int degrees) {
  if (!turnFits(src, dst, PixelFormat::bgra, degrees)) return false;
  return libyuv::ARGBRotate(src.data(), src.stride(), dst.data(), dst.stride(), src.width(),
                            src.height(), static_cast<libyuv::RotationMode>(degrees)) == 0;
}

}  // namespace qvn
