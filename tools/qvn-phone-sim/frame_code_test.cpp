// The frame code as a reader meets it: scaled either way, through H.264 at a modest bitrate,
// and damaged, where it must read as none rather than as another number.
#include "frame_code.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstring>
#include <vector>

#include "platform/codecs.h"
#include "platform/pixel_convert.h"

namespace qvn {
namespace {

// Bright bars with a ripple across them: busier than the sim's pattern, so the plate and its
// edges are what make the code readable, not a quiet background.
PixelBufferRef busyPicture(int width, int height, int phase) {
  static constexpr std::uint8_t kBars[][3] = {{230, 230, 230}, {20, 230, 230}, {230, 230, 20},
                                              {20, 230, 20},   {230, 20, 230}, {20, 20, 230}};
  auto p = PixelBuffer::make(PixelFormat::bgra, width, height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) {
      const auto& bar = kBars[(x * 6 / width + y / 97) % 6];
      std::uint8_t* px = p->bgraAt(x, y);
      const int ripple = ((x + y + phase) * 7) % 40;
      for (int c = 0; c < 3; ++c) px[c] = std::uint8_t(std::max(0, bar[c] - ripple));
      px[3] = 255;
    }
  return p;
}

PixelBufferRef scaled(const PixelBuffer& src, int width, int height) {
  auto dst = PixelBuffer::make(PixelFormat::bgra, width, height);
  EXPECT_TRUE(scaleBGRA(src, *dst));
  return dst;
}

TEST(FrameCode, ReadsBackAtItsOwnSize) {
  for (std::uint32_t code : {0u, 1u, 0x5A5A5Au, 0xABCDEFu, kFrameCodeMask}) {
    auto picture = busyPicture(1280, 720, 0);
    drawFrameCode(*picture, code);
    EXPECT_EQ(readFrameCode(*picture), code);
  }
}

TEST(FrameCode, KeepsTwentyFourBits) {
  auto picture = busyPicture(640, 360, 0);
  drawFrameCode(*picture, 0x1234567);
  EXPECT_EQ(readFrameCode(*picture), 0x234567u);
}

TEST(FrameCode, ReadsAfterScalingEitherWay) {
  const struct {
    int width, height, toWidth, toHeight;
  } cases[] = {{1280, 720, 640, 360},  {1280, 720, 2560, 1440}, {1280, 720, 427, 240},
               {720, 1280, 360, 640},  {640, 360, 1920, 1080},  {1920, 1080, 160, 90},
               {1280, 720, 1000, 563}, {360, 640, 1080, 1920}};
  for (const auto& c : cases) {
    auto picture = busyPicture(c.width, c.height, 3);
    drawFrameCode(*picture, 777'777);
    EXPECT_EQ(readFrameCode(*scaled(*picture, c.toWidth, c.toHeight)), 777'777u)
        << c.width << "x" << c.height << " to " << c.toWidth << "x" << c.toHeight;
  }
}

TEST(FrameCode, DrawsIntoI420AsTheSimSendsIt) {
  auto bgra = busyPicture(640, 360, 0);
  auto i420 = PixelBuffer::make(PixelFormat::i420, 640, 360);
  ASSERT_TRUE(bgraToI420(*bgra, *i420));
  drawFrameCode(*i420, 4242);
  ASSERT_TRUE(i420ToBGRA(*i420, *bgra));
  EXPECT_EQ(readFrameCode(*bgra), 4242u);
}

// Through the encoder the sim uses, at a modest bitrate, and libavcodec's decoder; every
// frame has its own code and a moving background, so each one is a fresh picture.
TEST(FrameCode, ReadsAfterH264AtAModestBitrate) {
  constexpr int kWidth = 640, kHeight = 360, kFrames = 30;
  std::string error;
  auto encoder = H264Encoder::make({kWidth, kHeight, 30, 400'000, ""}, error);
  ASSERT_TRUE(encoder) << error;
  const auto& config = encoder->decoderConfiguration();
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecContext* context = avcodec_alloc_context3(codec);
  context->extradata = static_cast<std::uint8_t*>(av_mallocz(config.size() + 64));
  std::memcpy(context->extradata, config.data(), config.size());
  context->extradata_size = int(config.size());
  ASSERT_EQ(avcodec_open2(context, codec, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  auto picture = PixelBuffer::make(PixelFormat::i420, kWidth, kHeight);
  auto decoded = PixelBuffer::make(PixelFormat::i420, kWidth, kHeight);
  auto bgra = PixelBuffer::make(PixelFormat::bgra, kWidth, kHeight);
  std::vector<std::uint32_t> read;
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_TRUE(bgraToI420(*busyPicture(kWidth, kHeight, i * 5), *picture));
    drawFrameCode(*picture, std::uint32_t(1000 + i * 37));
    auto encoded = encoder->encode(*picture, i * 33, i == 0);
    ASSERT_TRUE(encoded && !encoded->nals.empty());
    av_new_packet(packet, int(encoded->nals.size()));
    std::memcpy(packet->data, encoded->nals.data(), encoded->nals.size());
    ASSERT_EQ(avcodec_send_packet(context, packet), 0);
    av_packet_unref(packet);
    while (avcodec_receive_frame(context, frame) == 0) {
      for (int plane = 0; plane < 3; ++plane)
        for (int y = 0; y < decoded->planeHeight(plane); ++y)
          std::memcpy(decoded->data(plane) + y * decoded->stride(plane),
                      frame->data[plane] + y * frame->linesize[plane],
                      size_t(decoded->planeWidth(plane)));
      ASSERT_TRUE(i420ToBGRA(*decoded, *bgra));
      read.push_back(readFrameCode(*scaled(*bgra, 960, 540)).value_or(0));
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  ASSERT_EQ(read.size(), size_t(kFrames));
  for (int i = 0; i < kFrames; ++i) EXPECT_EQ(read[size_t(i)], std::uint32_t(1000 + i * 37)) << i;
}

TEST(FrameCode, DamageReadsAsNone) {
  auto picture = busyPicture(1280, 720, 0);
  drawFrameCode(*picture, 0xABCDEF);
  // One data cell turned over: the check fails.
  auto flipped = scaled(*picture, 1280, 720);
  const int cell = 1280 / 40;
  for (int y = cell * 2; y < cell * 3; ++y)
    for (int x = cell * 5; x < cell * 6; ++x)
      for (int c = 0; c < 3; ++c) flipped->bgraAt(x, y)[c] ^= 0xFF;
  EXPECT_EQ(readFrameCode(*flipped), std::nullopt);
  // Half a cell grey: neither black nor white.
  auto grey = scaled(*picture, 1280, 720);
  for (int y = cell * 3; y < cell * 4; ++y)
    for (int x = cell * 8; x < cell * 9; ++x)
      for (int c = 0; c < 3; ++c) grey->bgraAt(x, y)[c] = 128;
  EXPECT_EQ(readFrameCode(*grey), std::nullopt);
}

TEST(FrameCode, PicturesWithoutOneReadAsNone) {
  EXPECT_EQ(readFrameCode(*busyPicture(1280, 720, 0)), std::nullopt);
  auto black = PixelBuffer::make(PixelFormat::bgra, 640, 360);
  std::memset(black->data(), 0, size_t(black->stride()) * 360);
  EXPECT_EQ(readFrameCode(*black), std::nullopt);
  auto tiny = busyPicture(64, 36, 0);
  drawFrameCode(*tiny, 5);
  EXPECT_EQ(readFrameCode(*tiny), std::nullopt);
  EXPECT_EQ(readFrameCode(*PixelBuffer::make(PixelFormat::i420, 640, 360)), std::nullopt);
}

}  // namespace
}  // namespace qvn
