#include <png.h>
#include <stdlib.h>
#include <turbojpeg.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <limits>
#include <regex>
#include <string>
#include <vector>

#include "platform/files.h"
#include "video/still_capture.h"
#include "video/video_orient.h"

namespace qvn {
namespace {

namespace fs = std::filesystem;

struct Color {
  int b, g, r, a;
};

PixelBufferRef filled(int width, int height, Color c) {
  auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      std::uint8_t* p = buffer->bgraAt(x, y);
      p[0] = std::uint8_t(c.b);
      p[1] = std::uint8_t(c.g);
      p[2] = std::uint8_t(c.r);
      p[3] = std::uint8_t(c.a);
    }
  return buffer;
}

void expectColor(const std::uint8_t* p, Color c, int tolerance) {
  EXPECT_NEAR(p[0], c.b, tolerance);
  EXPECT_NEAR(p[1], c.g, tolerance);
  EXPECT_NEAR(p[2], c.r, tolerance);
  EXPECT_NEAR(p[3], c.a, tolerance);
}

const Color kBlack{0, 0, 0, 255};
const Color kRed{0, 0, 255, 255};
// BT.709 limited-range codes of pure red.
constexpr std::uint8_t kRedY = 63, kRedCb = 102, kRedCr = 240;

TEST(VideoOrientTest, QuarterTurnSwapsTheSidesAndTheLongEdgeBoundScalesUniformly) {
  const auto wide = filled(1280, 720, kBlack);
  auto turned = QvnVideoOrient::orient(wide, 90, std::nullopt);
  EXPECT_EQ(turned->width(), 720);
  EXPECT_EQ(turned->height(), 1280);
  turned = QvnVideoOrient::orient(wide, 90, 1280);
  EXPECT_EQ(turned->width(), 720);
  EXPECT_EQ(turned->height(), 1280);
  turned = QvnVideoOrient::orient(wide, 90, 640);
  EXPECT_EQ(turned->width(), 360);
  EXPECT_EQ(turned->height(), 640);
  EXPECT_EQ(turned->format(), PixelFormat::bgra);
  // 10 x 5 bounded to 7 is 7 x 3.5, which rounds to 7 x 4.
  const auto odd = QvnVideoOrient::orient(filled(10, 5, kBlack), 0, 7);
  EXPECT_EQ(odd->width(), 7);
  EXPECT_EQ(odd->height(), 4);
}

TEST(VideoOrientTest, TurnsClockwiseByTheTag) {
  // 6x4 with the top-left pixel marked; clockwise, it travels top-right, bottom-right,
  // bottom-left.
  auto marked = filled(6, 4, kBlack);
  std::uint8_t* corner = marked->bgraAt(0, 0);
  corner[2] = 255;
  struct Case {
    int rotation, width, height, x, y;
  };
  for (const Case c : {Case{90, 4, 6, 3, 0}, Case{180, 6, 4, 5, 3}, Case{270, 4, 6, 0, 5},
                       Case{0, 6, 4, 0, 0}, Case{45, 6, 4, 0, 0}, Case{-90, 6, 4, 0, 0}}) {
    SCOPED_TRACE(c.rotation);
    const auto upright = QvnVideoOrient::orient(marked, c.rotation, std::nullopt);
    ASSERT_EQ(upright->width(), c.width);
    ASSERT_EQ(upright->height(), c.height);
    int redCount = 0;
    for (int y = 0; y < c.height; ++y)
      for (int x = 0; x < c.width; ++x) redCount += upright->bgraAt(x, y)[2] == 255;
    EXPECT_EQ(redCount, 1);
    expectColor(upright->bgraAt(c.x, c.y), kRed, 0);
  }
}

TEST(VideoOrientTest, AlwaysRendersANewBufferOfItsOwn) {
  auto source = filled(8, 4, {10, 20, 30, 128});
  source->bgraAt(3, 2)[0] = 99;
  const auto copy = QvnVideoOrient::orient(source, 0, std::nullopt);
  ASSERT_NE(copy, source);
  ASSERT_EQ(copy->width(), 8);
  ASSERT_EQ(copy->height(), 4);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 8; ++x)
      EXPECT_EQ(std::memcmp(copy->bgraAt(x, y), source->bgraAt(x, y), 4), 0) << x << "," << y;
  // A bound that isn't exceeded changes nothing either.
  EXPECT_NE(QvnVideoOrient::orient(source, 0, 8), source);
}

TEST(VideoOrientTest, YuvBecomesBgraOfTheRightColour) {
  auto nv12 = PixelBuffer::make(PixelFormat::nv12, 16, 8);
  for (int y = 0; y < 8; ++y) std::memset(nv12->data(0) + y * nv12->stride(0), kRedY, 16);
  for (int y = 0; y < 4; ++y)
    for (int x = 0; x < 8; ++x) {
      nv12->data(1)[y * nv12->stride(1) + 2 * x] = kRedCb;
      nv12->data(1)[y * nv12->stride(1) + 2 * x + 1] = kRedCr;
    }
  const auto fromNV12 = QvnVideoOrient::orient(nv12, 0, std::nullopt);
  ASSERT_EQ(fromNV12->format(), PixelFormat::bgra);
  EXPECT_EQ(fromNV12->width(), 16);
  expectColor(fromNV12->bgraAt(5, 5), kRed, 3);

  // I420 through the turn and the bound together.
  auto i420 = PixelBuffer::make(PixelFormat::i420, 16, 8);
  for (int y = 0; y < 8; ++y) std::memset(i420->data(0) + y * i420->stride(0), kRedY, 16);
  for (int y = 0; y < 4; ++y) {
    std::memset(i420->data(1) + y * i420->stride(1), kRedCb, 8);
    std::memset(i420->data(2) + y * i420->stride(2), kRedCr, 8);
  }
  const auto fromI420 = QvnVideoOrient::orient(i420, 270, 8);
  ASSERT_EQ(fromI420->format(), PixelFormat::bgra);
  EXPECT_EQ(fromI420->width(), 4);
  EXPECT_EQ(fromI420->height(), 8);
  expectColor(fromI420->bgraAt(3, 7), kRed, 3);
}

TEST(VideoOrientTest, ReturnsTheInputWhenTheResultWouldBeUnderTwoPixels) {
  const auto strip = filled(8, 4, kBlack);
  EXPECT_EQ(QvnVideoOrient::orient(strip, 90, 2), strip);    // 1 x 2
  const auto narrow = QvnVideoOrient::orient(strip, 90, 3);  // 1.5 x 3 rounds to 2 x 3
  ASSERT_NE(narrow, strip);
  EXPECT_EQ(narrow->width(), 2);
  EXPECT_EQ(narrow->height(), 3);
  EXPECT_EQ(QvnVideoOrient::orient(strip, 0, 2), strip);  // 2 x 1
  EXPECT_EQ(QvnVideoOrient::orient(strip, 0, 0), strip);
  EXPECT_EQ(QvnVideoOrient::orient(nullptr, 90, std::nullopt), nullptr);
}

// Decodes a JPEG into BGRA; empty when it isn't one.
std::vector<std::uint8_t> decodeJPEG(const std::vector<std::uint8_t>& jpeg, int& width,
                                     int& height) {
  tjhandle handle = tjInitDecompress();
  int subsampling = 0, colorspace = 0;
  std::vector<std::uint8_t> bgra;
  if (tjDecompressHeader3(handle, jpeg.data(), jpeg.size(), &width, &height, &subsampling,
                          &colorspace) == 0) {
    bgra.resize(size_t(width) * height * 4);
    if (tjDecompress2(handle, jpeg.data(), jpeg.size(), bgra.data(), width, 0, height, TJPF_BGRA,
                      0) != 0)
      bgra.clear();
  }
  tjDestroy(handle);
  return bgra;
}

// Decodes a PNG into straight RGBA; empty when it isn't one.
std::vector<std::uint8_t> decodePNG(const std::vector<std::uint8_t>& png, int& width, int& height) {
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_memory(&image, png.data(), png.size())) return {};
  image.format = PNG_FORMAT_RGBA;
  std::vector<std::uint8_t> rgba(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, rgba.data(), 0, nullptr)) return {};
  width = int(image.width);
  height = int(image.height);
  return rgba;
}

std::uint32_t bigEndian(const std::vector<std::uint8_t>& bytes, size_t at) {
  return std::uint32_t(bytes[at]) << 24 | std::uint32_t(bytes[at + 1]) << 16 |
         std::uint32_t(bytes[at + 2]) << 8 | bytes[at + 3];
}

constexpr double kFullSize = std::numeric_limits<double>::max();

TEST(EncodeStillTest, NothingWithoutAPictureOfAtLeastTwoPixelsASide) {
  FrameHub hub;
  EXPECT_FALSE(encodeStill(hub, 1, StillType::png, kFullSize, 1.0));
  hub.store(1, filled(1, 8, kBlack));
  EXPECT_FALSE(encodeStill(hub, 1, StillType::png, kFullSize, 1.0));
  EXPECT_FALSE(encodeStill(hub, 1, StillType::jpeg, kFullSize, 1.0));
  hub.store(2, filled(8, 1, kBlack));
  EXPECT_FALSE(encodeStill(hub, 2, StillType::png, kFullSize, 1.0));
}

TEST(EncodeStillTest, JpegDecodesToTheSizeAndColourAndMaxWidthScales) {
  FrameHub hub;
  const Color orange{40, 120, 200, 255};
  hub.store(3, filled(64, 32, orange));
  auto still = encodeStill(hub, 3, StillType::jpeg, kFullSize, 0.9);
  ASSERT_TRUE(still);
  EXPECT_EQ(still->width, 64);
  EXPECT_EQ(still->height, 32);
  int width = 0, height = 0;
  auto pixels = decodeJPEG(still->data, width, height);
  ASSERT_FALSE(pixels.empty());
  EXPECT_EQ(width, 64);
  EXPECT_EQ(height, 32);
  expectColor(&pixels[(10 * size_t(width) + 20) * 4], orange, 8);

  still = encodeStill(hub, 3, StillType::jpeg, 16, 0.5);
  ASSERT_TRUE(still);
  EXPECT_EQ(still->width, 16);
  EXPECT_EQ(still->height, 8);
  pixels = decodeJPEG(still->data, width, height);
  ASSERT_FALSE(pixels.empty());
  EXPECT_EQ(width, 16);
  EXPECT_EQ(height, 8);
  expectColor(&pixels[(4 * size_t(width) + 8) * 4], orange, 8);

  // Infinite or not smaller than the width: full size.
  for (double maxWidth : {std::numeric_limits<double>::infinity(), 64.0, 100.0}) {
    still = encodeStill(hub, 3, StillType::jpeg, maxWidth, 1.0);
    ASSERT_TRUE(still);
    EXPECT_EQ(still->width, 64);
  }
}

TEST(EncodeStillTest, PngHasItsHeaderAndStraightAlpha) {
  FrameHub hub;
  // Premultiplied: R 100, G 50 at alpha 128 are R 199, G 100 straight.
  auto picture = filled(20, 10, {0, 50, 100, 128});
  std::uint8_t* clear = picture->bgraAt(1, 1);
  clear[0] = clear[1] = clear[2] = clear[3] = 0;
  hub.store(4, picture);
  auto still = encodeStill(hub, 4, StillType::png, kFullSize, 1.0);
  ASSERT_TRUE(still);
  const std::vector<std::uint8_t> signature{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  ASSERT_GT(still->data.size(), 24u);
  EXPECT_TRUE(std::equal(signature.begin(), signature.end(), still->data.begin()));
  EXPECT_EQ(std::string(still->data.begin() + 12, still->data.begin() + 16), "IHDR");
  EXPECT_EQ(bigEndian(still->data, 16), 20u);
  EXPECT_EQ(bigEndian(still->data, 20), 10u);

  int width = 0, height = 0;
  const auto rgba = decodePNG(still->data, width, height);
  ASSERT_FALSE(rgba.empty());
  EXPECT_EQ(width, 20);
  EXPECT_EQ(height, 10);
  const std::uint8_t* half = &rgba[(5 * size_t(width) + 7) * 4];
  EXPECT_EQ(half[0], 199);
  EXPECT_EQ(half[1], 100);
  EXPECT_EQ(half[2], 0);
  EXPECT_EQ(half[3], 128);
  const std::uint8_t* none = &rgba[(1 * size_t(width) + 1) * 4];
  EXPECT_EQ(none[3], 0);

  still = encodeStill(hub, 4, StillType::png, 10, 1.0);
  ASSERT_TRUE(still);
  EXPECT_EQ(bigEndian(still->data, 16), 10u);
  EXPECT_EQ(bigEndian(still->data, 20), 5u);
}

class StillCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-still-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root_ = pattern;
    before_ = appPaths();
    setAppPaths(AppPaths::underRoot(root_));
  }
  void TearDown() override {
    setAppPaths(before_);
    fs::remove_all(root_);
  }
  fs::path root_;
  AppPaths before_;
};

TEST_F(StillCaptureTest, SavesAStampedPngInStillsAndLogsIt) {
  FrameHub hub;
  EXPECT_FALSE(StillCapture::save(hub, 5, "Camera 1"));
  hub.store(5, filled(8, 4, kRed));

  const auto file = StillCapture::save(hub, 5, "Camera 1");
  ASSERT_TRUE(file);
  const fs::path library = appPaths().moviesDir / "Quorvane";
  EXPECT_EQ(file->parent_path(), library / "Stills");
  EXPECT_TRUE(fs::is_directory(library / "Recordings"));
  const std::string name = file->filename().string();
  EXPECT_TRUE(
      std::regex_match(name, std::regex(R"(Camera 1 \d{4}-\d\d-\d\d at \d\d\.\d\d\.\d\d\.png)")))
      << name;
  const auto bytes = readFile(*file);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(bytes->substr(1, 3), "PNG");

  const auto log = readFile(appPaths().logFile());
  ASSERT_TRUE(log);
  EXPECT_NE(log->find("  still 8\u00d74 \u2192 " + name + "\n"), std::string::npos) << *log;
}

TEST_F(StillCaptureTest, ATakenNameGetsANumber) {
  FrameHub hub;
  hub.store(5, filled(8, 4, kRed));
  const fs::path stills = appPaths().moviesDir / "Quorvane" / "Stills";
  fs::create_directories(stills);
  // Both names taken for this second; retried should the clock tick in between.
  for (int attempt = 0; attempt < 3; ++attempt) {
    const std::string taken = StillCapture::libraryStamp("Cam/A", "png");
    ASSERT_EQ(taken.substr(0, 6), "Cam-A ");
    const std::string base = taken.substr(0, taken.size() - 4);
    ASSERT_FALSE(writeFileAtomically(stills / taken, "x"));
    ASSERT_FALSE(writeFileAtomically(stills / (base + " 2.png"), "x"));
    const auto file = StillCapture::save(hub, 5, "Cam/A");
    ASSERT_TRUE(file);
    if (StillCapture::libraryStamp("Cam/A", "png") != taken) continue;
    EXPECT_EQ(file->filename(), base + " 3.png");
    EXPECT_EQ(readFile(stills / taken), "x");
    return;
  }
  FAIL() << "the clock kept ticking";
}

}  // namespace
}  // namespace qvn
