#include "platform/pixel_buffer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "platform/pixel_convert.h"

namespace qvn {
namespace {

using Bgra = std::array<int, 4>;

void fillPlane(PixelBuffer& buffer, int plane, std::uint8_t value) {
  const bool pairs = buffer.format() == PixelFormat::nv12 && plane == 1;
  const int rowBytes = buffer.planeWidth(plane) * (buffer.format() == PixelFormat::bgra ? 4
                                                   : pairs                              ? 2
                                                                                        : 1);
  for (int y = 0; y < buffer.planeHeight(plane); ++y) {
    std::memset(buffer.data(plane) + y * buffer.stride(plane), value, rowBytes);
  }
}

PixelBufferRef flatBGRA(int width, int height, Bgra colour) {
  PixelBufferRef buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int i = 0; i < width * height * 4; ++i)
    buffer->bgraAt(i / 4 % width, i / 4 / width)[i % 4] = static_cast<std::uint8_t>(colour[i % 4]);
  return buffer;
}

Bgra at(const PixelBuffer& buffer, int x, int y) {
  const std::uint8_t* p = buffer.bgraAt(x, y);
  return {p[0], p[1], p[2], p[3]};
}

TEST(PixelBuffer, EveryPlaneStartsAndStridesOn64Bytes) {
  struct Case {
    PixelFormat format;
    int width, height, planes;
  };
  for (Case c : {Case{PixelFormat::bgra, 1, 1, 1}, Case{PixelFormat::bgra, 17, 3, 1},
                 Case{PixelFormat::bgra, 65, 7, 1}, Case{PixelFormat::nv12, 66, 4, 2},
                 Case{PixelFormat::i420, 130, 2, 3}}) {
    PixelBufferRef buffer = PixelBuffer::make(c.format, c.width, c.height);
    ASSERT_TRUE(buffer);
    EXPECT_EQ(buffer->format(), c.format);
    EXPECT_EQ(buffer->width(), c.width);
    EXPECT_EQ(buffer->height(), c.height);
    ASSERT_EQ(buffer->planeCount(), c.planes);
    for (int plane = 0; plane < c.planes; ++plane) {
      const int chromaDiv = plane == 0 ? 1 : 2;
      const int rowBytes = c.format == PixelFormat::bgra
                               ? c.width * 4
                               : c.width / (c.format == PixelFormat::i420 ? chromaDiv : 1);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(buffer->data(plane)) % 64, 0u);
      EXPECT_EQ(buffer->stride(plane) % 64, 0);
      EXPECT_GE(buffer->stride(plane), rowBytes);
      EXPECT_LT(buffer->stride(plane), rowBytes + 64);
      EXPECT_EQ(buffer->planeWidth(plane), c.width / chromaDiv);
      EXPECT_EQ(buffer->planeHeight(plane), c.height / chromaDiv);
      fillPlane(*buffer, plane, 0x5a);  // every row fits (ASan watches)
    }
    EXPECT_EQ(buffer->planeWidth(c.planes), 0);
  }
}

TEST(PixelBuffer, SizesNotPositiveOrOddFor420GiveNone) {
  QvnPixelBufferPool pool(PixelFormat::nv12);
  for (auto [w, h] : {std::pair{0, 2}, {2, 0}, {-2, 2}, {3, 2}, {2, 3}}) {
    EXPECT_FALSE(PixelBuffer::make(PixelFormat::i420, w, h));
    EXPECT_FALSE(pool.make(w, h));
  }
  EXPECT_FALSE(PixelBuffer::make(PixelFormat::bgra, 0, 1));
  EXPECT_TRUE(PixelBuffer::make(PixelFormat::bgra, 3, 1));
}

TEST(PixelBufferPool, RecyclesOnlyWhatNobodyHolds) {
  QvnPixelBufferPool pool(PixelFormat::bgra, 2);
  PixelBufferRef first = pool.make(8, 4);
  PixelBufferRef held = pool.make(8, 4);
  const PixelBuffer* recycled = first.get();
  EXPECT_NE(held.get(), recycled);
  first.reset();
  std::weak_ptr<PixelBuffer> watcher = pool.make(8, 4);
  EXPECT_FALSE(watcher.lock());  // it came back, and went again at once
  PixelBufferRef whileWatched = pool.make(8, 4);
  EXPECT_NE(whileWatched.get(), recycled);  // a weak reference still counts
  EXPECT_NE(whileWatched.get(), held.get());
  watcher.reset();
  EXPECT_EQ(pool.make(8, 4).get(), recycled);
}

TEST(PixelBufferPool, OldSizesAndBuffersOfAGonePoolStayValid) {
  auto pool = std::make_unique<QvnPixelBufferPool>(PixelFormat::i420);
  PixelBufferRef old = pool->make(4, 2);
  pool->make(4, 2);  // left in the free list
  PixelBufferRef held = pool->make(6, 4);
  fillPlane(*old, 2, 7);
  EXPECT_EQ(old->data(2)[1], 7);
  old.reset();  // not the pool's size any more: freed, not kept
  // The last of these stays in the free list when the pool goes.
  for (int i = 0; i < 3; ++i) EXPECT_EQ(pool->make(6, 4)->height(), 4);
  pool.reset();
  fillPlane(*held, 2, 3);
  EXPECT_EQ(held->data(2)[1], 3);
}

TEST(PixelBufferPool, ThreadsNeverShareABuffer) {
  QvnPixelBufferPool pool(PixelFormat::bgra, 3);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&pool, t] {
      std::vector<std::pair<PixelBufferRef, std::uint32_t>> held;
      for (std::uint32_t i = 0; i < 2000; ++i) {
        const int width = (t == 0 && i % 500 == 0) ? 16 + static_cast<int>(i / 500) : 16;
        PixelBufferRef buffer = pool.make(width, 2);
        ASSERT_TRUE(buffer);
        const std::uint32_t mark = static_cast<std::uint32_t>(t) << 16 | i;
        std::memcpy(buffer->data(), &mark, sizeof mark);
        held.emplace_back(std::move(buffer), mark);
        if (held.size() > 2) held.erase(held.begin());
        for (const auto& [kept, expected] : held) {
          std::uint32_t seen = 0;
          std::memcpy(&seen, kept->data(), sizeof seen);
          ASSERT_EQ(seen, expected);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// BT.709 limited range in doubles: Y, Cb, Cr codes from R, G, B levels, and back.
constexpr double kR = 0.2126, kB = 0.0722, kG = 1 - kR - kB;

std::array<double, 3> reference(double r, double g, double b) {
  const double y = kR * r + kG * g + kB * b;
  return {16 + 219.0 / 255 * y, 128 + 224.0 / 255 * (b - y) / (2 * (1 - kB)),
          128 + 224.0 / 255 * (r - y) / (2 * (1 - kR))};
}

std::array<double, 3> referenceBGR(int y, int u, int v) {
  const double l = (y - 16) / 219.0, cb = (u - 128) / 224.0, cr = (v - 128) / 224.0;
  const double r = l + 2 * (1 - kR) * cr, b = l + 2 * (1 - kB) * cb, g = (l - kR * r - kB * b) / kG;
  return {std::clamp(b * 255, 0.0, 255.0), std::clamp(g * 255, 0.0, 255.0),
          std::clamp(r * 255, 0.0, 255.0)};
}

TEST(PixelConvert, YuvToBgraMatchesTheReference) {
  // 46 wide: two wide steps of 16, one of 8 and a plain tail.
  constexpr int kWidth = 46;
  PixelBufferRef i420 = PixelBuffer::make(PixelFormat::i420, kWidth, 4);
  std::mt19937 random(709);
  for (int plane = 0; plane < 3; ++plane) {
    for (int y = 0; y < i420->planeHeight(plane); ++y) {
      for (int x = 0; x < i420->planeWidth(plane); ++x) {
        i420->data(plane)[y * i420->stride(plane) + x] = static_cast<std::uint8_t>(random());
      }
    }
  }
  PixelBufferRef nv12 = PixelBuffer::make(PixelFormat::nv12, kWidth, 4);
  PixelBufferRef fromI420 = PixelBuffer::make(PixelFormat::bgra, kWidth, 4);
  PixelBufferRef fromNV12 = PixelBuffer::make(PixelFormat::bgra, kWidth, 4);
  ASSERT_TRUE(i420ToNV12(*i420, *nv12));
  ASSERT_TRUE(i420ToBGRA(*i420, *fromI420));
  ASSERT_TRUE(nv12ToBGRA(*nv12, *fromNV12));
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const int c = y / 2 * i420->stride(1) + x / 2;
      const auto expected =
          referenceBGR(i420->data(0)[y * i420->stride(0) + x], i420->data(1)[c], i420->data(2)[c]);
      const Bgra actual = at(*fromI420, x, y);
      for (int k = 0; k < 3; ++k) EXPECT_NEAR(actual[k], expected[k], 0.51) << x << "," << y;
      EXPECT_EQ(actual[3], 255);
      EXPECT_EQ(at(*fromNV12, x, y), actual);
    }
  }
}

TEST(PixelConvert, BgraToYuvMatchesTheReference) {
  // 46 wide: two wide steps of 16 and a plain tail.
  constexpr int kWidth = 46;
  PixelBufferRef src = PixelBuffer::make(PixelFormat::bgra, kWidth, 16);
  std::mt19937 random(709);
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < kWidth * 4; ++x) src->bgraAt(0, y)[x] = static_cast<std::uint8_t>(random());
  }
  for (int i = 0; i < 4; ++i) std::memcpy(src->bgraAt(i % 2, i / 2), "\x00\x00\xff\xff", 4);  // red
  PixelBufferRef i420 = PixelBuffer::make(PixelFormat::i420, kWidth, 16);
  PixelBufferRef nv12 = PixelBuffer::make(PixelFormat::nv12, kWidth, 16);
  PixelBufferRef viaI420 = PixelBuffer::make(PixelFormat::nv12, kWidth, 16);
  ASSERT_TRUE(bgraToI420(*src, *i420));
  ASSERT_TRUE(bgraToNV12(*src, *nv12));
  ASSERT_TRUE(i420ToNV12(*i420, *viaI420));
  EXPECT_EQ((std::array{i420->data(0)[0], i420->data(1)[0], i420->data(2)[0]}),
            (std::array<std::uint8_t, 3>{63, 102, 240}));
  for (int y = 0; y < 16; ++y) {
    for (int x = 0; x < kWidth; ++x) {
      const std::uint8_t* p = src->bgraAt(x, y);
      EXPECT_NEAR(i420->data(0)[y * i420->stride(0) + x], reference(p[2], p[1], p[0])[0], 0.51);
    }
    for (int plane = 0; plane < 2; ++plane) {  // both routes to NV12 agree
      const int row = plane == 0 ? y : y / 2;
      EXPECT_EQ(std::memcmp(nv12->data(plane) + row * nv12->stride(plane),
                            viaI420->data(plane) + row * viaI420->stride(plane), kWidth),
                0);
    }
  }
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < kWidth / 2; ++x) {
      double sum[3] = {};
      for (int i = 0; i < 12; ++i)
        sum[i % 3] += src->bgraAt(2 * x + i / 3 % 2, 2 * y + i / 6)[i % 3];
      const auto expected = reference(sum[2] / 4, sum[1] / 4, sum[0] / 4);
      EXPECT_NEAR(i420->data(1)[y * i420->stride(1) + x], expected[1], 0.51);
      EXPECT_NEAR(i420->data(2)[y * i420->stride(2) + x], expected[2], 0.51);
    }
  }
}

TEST(PixelConvert, RotateAndScale) {
  // The top-right mark travels clockwise.
  const Bgra mark = {1, 2, 3, 255}, plain = {9, 9, 9, 255};
  PixelBufferRef src = flatBGRA(4, 2, plain);
  std::memcpy(src->bgraAt(3, 0), "\x01\x02\x03\xff", 4);
  for (auto [degrees, width, x, y] : {std::array{90, 2, 1, 3}, {270, 2, 0, 0}, {180, 4, 0, 1}}) {
    PixelBufferRef turned = flatBGRA(width, 8 / width, {});
    ASSERT_TRUE(rotateBGRA(*src, *turned, degrees));
    EXPECT_EQ(at(*turned, x, y), mark) << degrees;
    EXPECT_EQ(at(*turned, 1 - x, 1 - y / 2), plain) << degrees;
  }

  // Flat stays flat (alpha too) up, down, one way only and from a single pixel.
  for (auto [w, h, toW, toH] :
       {std::array{7, 5, 16, 9}, {16, 9, 7, 5}, {7, 5, 7, 9}, {1, 1, 5, 3}}) {
    PixelBufferRef flat = flatBGRA(w, h, {10, 20, 30, 255});
    PixelBufferRef scaled = flatBGRA(toW, toH, {});
    ASSERT_TRUE(scaleBGRA(*flat, *scaled));
    for (int y = 0; y < toH; ++y) {
      for (int x = 0; x < toW; ++x) ASSERT_EQ(at(*scaled, x, y), (Bgra{10, 20, 30, 255}));
    }
  }
  // Pixel centres line up: 0 | 255 doubled is 0, 64, 191, 255.
  PixelBufferRef edge = flatBGRA(2, 2, {});
  std::memset(edge->bgraAt(1, 0), 255, 4);
  std::memset(edge->bgraAt(1, 1), 255, 4);
  PixelBufferRef wide = PixelBuffer::make(PixelFormat::bgra, 4, 3);
  ASSERT_TRUE(scaleBGRA(*edge, *wide));
  for (int x = 0; x < 4; ++x) EXPECT_EQ(at(*wide, x, 2)[1], (std::array{0, 64, 191, 255})[x]);
}

TEST(PixelConvert, MisfitsWriteNothing) {
  PixelBufferRef bgra = flatBGRA(4, 2, {0xab, 0xab, 0xab, 0xab});
  PixelBufferRef odd = flatBGRA(3, 2, {0xab, 0xab, 0xab, 0xab});
  PixelBufferRef i420 = PixelBuffer::make(PixelFormat::i420, 4, 4);
  PixelBufferRef nv12 = PixelBuffer::make(PixelFormat::nv12, 4, 4);
  fillPlane(*nv12, 0, 0xab);
  EXPECT_FALSE(i420ToBGRA(*i420, *bgra));  // size
  EXPECT_FALSE(nv12ToBGRA(*i420, *bgra));  // format
  EXPECT_FALSE(bgraToNV12(*bgra, *nv12));
  EXPECT_FALSE(bgraToI420(*nv12, *i420));
  EXPECT_FALSE(i420ToNV12(*nv12, *nv12));
  EXPECT_FALSE(scaleBGRA(*bgra, *bgra));
  EXPECT_FALSE(scaleBGRA(*nv12, *bgra));
  EXPECT_FALSE(rotateBGRA(*bgra, *odd, 90));
  EXPECT_FALSE(rotateBGRA(*odd, *bgra, 45));
  EXPECT_FALSE(rotateBGRA(*bgra, *bgra, 180));
  EXPECT_EQ(at(*bgra, 3, 1), (Bgra{0xab, 0xab, 0xab, 0xab}));
  EXPECT_EQ(at(*odd, 2, 1), (Bgra{0xab, 0xab, 0xab, 0xab}));
  EXPECT_EQ(nv12->data(0)[3 * nv12->stride(0) + 3], 0xab);
}

}  // namespace
}  // namespace qvn
