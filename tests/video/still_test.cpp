#include <png.h>
#include <stdlib.h>
#include <turbojpeg.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <limits>
#include <regex>
#include <string>
#include <vector>

#include "inputs/media_library.h"
#include "platform/files.h"
#include "testing/local_time.h"
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
  const std::uint8_t bytes[4] = {std::uint8_t(c.b), std::uint8_t(c.g), std::uint8_t(c.r),
                                 std::uint8_t(c.a)};
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) std::memcpy(buffer->bgraAt(x, y), bytes, 4);
  return buffer;
}

void expectColor(const std::uint8_t* p, Color c, int tolerance) {
  const int expected[4] = {c.b, c.g, c.r, c.a};
  for (int i = 0; i < 4; ++i) EXPECT_NEAR(p[i], expected[i], tolerance) << "channel " << i;
}

const Color kBlack{0, 0, 0, 255};
const Color kRed{0, 0, 255, 255};

// Pure red as BT.709 limited-range codes.
PixelBufferRef redYUV(PixelFormat format, int width, int height) {
  auto yuv = PixelBuffer::make(format, width, height);
  for (int plane = 0; plane < yuv->planeCount(); ++plane)
    for (int y = 0; y < yuv->planeHeight(plane); ++y)
      for (int x = 0; x < yuv->planeWidth(plane); ++x) {
        std::uint8_t* row = yuv->data(plane) + y * yuv->stride(plane);
        if (plane == 0)
          row[x] = 63;
        else if (format == PixelFormat::nv12)
          row[2 * x] = 102, row[2 * x + 1] = 240;
        else
          row[x] = plane == 1 ? 102 : 240;
      }
  return yuv;
}

TEST(VideoOrientTest, TurnsClockwiseByTheTagAndBoundsTheLongEdgeIntoANewBuffer) {
  struct Case {
    int width, height, rotation;
    std::optional<int> bound;
    int outWidth, outHeight;
    int markX = -1, markY = -1;  // where the top-left pixel lands, when not scaled
  };
  // Clockwise, the top-left corner travels top-right, bottom-right, bottom-left; any other
  // tag turns nothing. Bounded sizes round to the nearest pixel (7 x 3.5 is 7 x 4).
  for (const Case c :
       {Case{6, 4, 90, {}, 4, 6, 3, 0}, Case{6, 4, 180, {}, 6, 4, 5, 3},
        Case{6, 4, 270, {}, 4, 6, 0, 5}, Case{6, 4, 0, 6, 6, 4, 0, 0},
        Case{6, 4, 45, {}, 6, 4, 0, 0}, Case{6, 4, -90, {}, 6, 4, 0, 0}, Case{12, 6, 90, 6, 3, 6},
        Case{10, 5, 0, 7, 7, 4}, Case{8, 4, 90, 3, 2, 3}}) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height << " " << c.rotation);
    auto source = filled(c.width, c.height, {10, 20, 30, 128});
    std::memcpy(source->bgraAt(0, 0), "\0\0\xff\xff", 4);
    const auto upright = QvnVideoOrient::orient(source, c.rotation, c.bound);
    ASSERT_NE(upright, source);
    EXPECT_EQ(upright->format(), PixelFormat::bgra);
    ASSERT_EQ(upright->width(), c.outWidth);
    ASSERT_EQ(upright->height(), c.outHeight);
    if (c.markX < 0) continue;
    int marks = 0, plain = 0;
    for (int y = 0; y < c.outHeight; ++y)
      for (int x = 0; x < c.outWidth; ++x) {
        const std::uint8_t* p = upright->bgraAt(x, y);
        marks += p[2] == 255;
        plain += std::memcmp(p, source->bgraAt(1, 1), 4) == 0;
      }
    EXPECT_EQ(marks, 1);
    EXPECT_EQ(plain, c.outWidth * c.outHeight - 1);
    expectColor(upright->bgraAt(c.markX, c.markY), kRed, 0);
  }

  // Nothing under 2 pixels a side: the input comes back.
  const auto strip = filled(8, 4, kBlack);
  EXPECT_EQ(QvnVideoOrient::orient(strip, 90, 2), strip);  // 1 x 2
  EXPECT_EQ(QvnVideoOrient::orient(strip, 0, 2), strip);   // 2 x 1
  EXPECT_EQ(QvnVideoOrient::orient(nullptr, 90, std::nullopt), nullptr);
}

TEST(VideoOrientTest, YuvBecomesBgraOfTheRightColour) {
  const auto fromNV12 = QvnVideoOrient::orient(redYUV(PixelFormat::nv12, 16, 8), 0);
  ASSERT_EQ(fromNV12->format(), PixelFormat::bgra);
  EXPECT_EQ(fromNV12->width(), 16);
  expectColor(fromNV12->bgraAt(5, 5), kRed, 3);
  // I420 through the turn and the bound together.
  const auto fromI420 = QvnVideoOrient::orient(redYUV(PixelFormat::i420, 16, 8), 270, 8);
  ASSERT_EQ(fromI420->format(), PixelFormat::bgra);
  EXPECT_EQ(fromI420->width(), 4);
  EXPECT_EQ(fromI420->height(), 8);
  expectColor(fromI420->bgraAt(3, 7), kRed, 3);
  // Turned alone, the planes turn before the conversion: a white top-left block lands top
  // right, and its colour comes along.
  auto marked = redYUV(PixelFormat::i420, 16, 8);
  for (int y = 0; y < 2; ++y) std::memset(marked->data(0) + y * marked->stride(0), 235, 2);
  marked->data(1)[0] = marked->data(2)[0] = 128;
  const auto turned = QvnVideoOrient::orient(marked, 90);
  ASSERT_EQ(turned->width(), 8);
  ASSERT_EQ(turned->height(), 16);
  for (int channel = 0; channel < 3; ++channel) EXPECT_GT(turned->bgraAt(7, 0)[channel], 250);
  expectColor(turned->bgraAt(0, 0), kRed, 3);
  expectColor(turned->bgraAt(6, 15), kRed, 3);
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

constexpr double kFullSize = std::numeric_limits<double>::max();

TEST(EncodeStillTest, JpegDecodesToTheSizeAndColourAndMaxWidthScales) {
  FrameHub hub;
  EXPECT_FALSE(encodeStill(hub, 3, StillType::jpeg, kFullSize, 1.0));  // no picture
  const Color orange{40, 120, 200, 255};
  hub.store(3, filled(64, 32, orange));
  // Infinite or not smaller than the width: full size.
  for (auto [maxWidth, width] : {std::pair{kFullSize, 64},
                                 {16.0, 16},
                                 {64.0, 64},
                                 {100.0, 64},
                                 {std::numeric_limits<double>::infinity(), 64}}) {
    const auto still = encodeStill(hub, 3, StillType::jpeg, maxWidth, 0.5);
    ASSERT_TRUE(still) << maxWidth;
    EXPECT_EQ(still->width, width);
    EXPECT_EQ(still->height, width / 2);
    int decodedWidth = 0, decodedHeight = 0;
    const auto pixels = decodeJPEG(still->data, decodedWidth, decodedHeight);
    ASSERT_FALSE(pixels.empty());
    EXPECT_EQ(decodedWidth, width);
    EXPECT_EQ(decodedHeight, width / 2);
    expectColor(&pixels[(4 * size_t(width) + 8) * 4], orange, 8);
  }
  // Not even 2 pixels a side: nothing.
  hub.store(1, filled(1, 8, kBlack));
  hub.store(2, filled(8, 1, kBlack));
  EXPECT_FALSE(encodeStill(hub, 1, StillType::jpeg, kFullSize, 1.0));
  EXPECT_FALSE(encodeStill(hub, 2, StillType::png, kFullSize, 1.0));
}

TEST(EncodeStillTest, PngKeepsStraightAlpha) {
  FrameHub hub;
  // Premultiplied: R 100, G 50 at alpha 128 are R 199, G 100 straight.
  auto picture = filled(20, 10, {0, 50, 100, 128});
  std::memset(picture->bgraAt(1, 1), 0, 4);
  hub.store(4, picture);
  const auto still = encodeStill(hub, 4, StillType::png, kFullSize, 1.0);
  ASSERT_TRUE(still);
  int width = 0, height = 0;
  const auto rgba = decodePNG(still->data, width, height);
  ASSERT_FALSE(rgba.empty());
  EXPECT_EQ(width, 20);
  EXPECT_EQ(height, 10);
  const std::uint8_t* half = &rgba[(5 * size_t(width) + 7) * 4];
  EXPECT_EQ((std::vector<int>{half[0], half[1], half[2], half[3]}),
            (std::vector<int>{199, 100, 0, 128}));
  EXPECT_EQ(rgba[(1 * size_t(width) + 1) * 4 + 3], 0);

  const auto small = encodeStill(hub, 4, StillType::png, 10, 1.0);
  ASSERT_TRUE(small);
  EXPECT_FALSE(decodePNG(small->data, width, height).empty());
  EXPECT_EQ(width, 10);
  EXPECT_EQ(height, 5);
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

TEST_F(StillCaptureTest, SavesAStampedPngInStillsLogsItAndNumbersATakenName) {
  FrameHub hub;
  EXPECT_FALSE(StillCapture::save(hub, 5, "Cam/A"));
  hub.store(5, filled(8, 4, kRed));
  const fs::path library = appPaths().moviesDir / "Quorvane";
  // The second save must fall in the first one's second; retried should the clock tick.
  for (int attempt = 0; attempt < 3; ++attempt) {
    fs::remove_all(library / "Stills");  // what a tick of the clock spoiled last time
    const auto file = StillCapture::save(hub, 5, "Cam/A");
    ASSERT_TRUE(file);
    EXPECT_EQ(file->parent_path(), library / "Stills");
    EXPECT_TRUE(fs::is_directory(library / "Recordings"));
    const std::string name = file->filename().string();
    ASSERT_TRUE(std::regex_match(name, std::regex(R"(Cam-A_\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.png)")))
        << name;
    EXPECT_EQ(readFile(*file)->substr(1, 3), "PNG");
    const auto log = readFile(appPaths().logFile());
    ASSERT_TRUE(log);
    EXPECT_NE(log->find("  still 8\u00d74 \u2192 " + name + "\n"), std::string::npos) << *log;

    const std::string base = name.substr(0, name.size() - 4);
    ASSERT_FALSE(writeFileAtomically(library / "Stills" / (base + " 2.png"), "x"));
    const auto numbered = StillCapture::save(hub, 5, "Cam/A");
    ASSERT_TRUE(numbered);
    if (MediaLibrary::stamp("Cam/A", "png") != name) continue;
    EXPECT_EQ(numbered->filename(), base + " 3.png");
    EXPECT_EQ(readFile(library / "Stills" / (base + " 2.png")), "x");
    return;
  }
  FAIL() << "the clock kept ticking";
}

TEST_F(StillCaptureTest, LibraryFoldersLiveInTheVideosFolderAndNamesCarryTheLocalTime) {
  const std::time_t when = test::localTime(2026, 1, 31, 20, 15);
  EXPECT_EQ(MediaLibrary::stamp("Mix", "png", when), "Mix_2026-01-31_20-15-00.png");
  EXPECT_EQ(MediaLibrary::stamp("Cam/A", "mov", when), "Cam-A_2026-01-31_20-15-00.mov");

  MediaLibrary::ensureFolders();
  EXPECT_TRUE(fs::is_directory(root_ / "Videos" / "Quorvane" / "Stills"));
  EXPECT_TRUE(fs::is_directory(root_ / "Videos" / "Quorvane" / "Recordings"));
  // Where the folders can't be made, nothing is thrown: the write into them says why.
  fs::remove_all(root_ / "Videos");
  ASSERT_FALSE(writeFileAtomically(root_ / "Videos", "not a folder"));
  MediaLibrary::ensureFolders();
  EXPECT_FALSE(fs::is_directory(MediaLibrary::stills()));
}

}  // namespace
}  // namespace qvn
