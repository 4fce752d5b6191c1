// The encoders against libavcodec's own decoders: what goes out decodes to what went in.
#include "platform/codecs.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cmath>
#include <cstring>
#include <vector>

namespace qvn {
namespace {

PixelBufferRef greyPicture(int width, int height, std::uint8_t luma) {
  auto p = PixelBuffer::make(PixelFormat::i420, width, height);
  for (int y = 0; y < height; ++y) std::memset(p->data(0) + y * p->stride(0), luma, size_t(width));
  for (int plane = 1; plane < 3; ++plane)
    for (int y = 0; y < height / 2; ++y)
      std::memset(p->data(plane) + y * p->stride(plane), 128, size_t(width / 2));
  return p;
}

// Decodes length-prefixed frames with the configuration record as extradata; the mean luma
// of each decoded picture.
std::vector<double> decode(const std::vector<std::uint8_t>& configuration,
                           const std::vector<EncodedFrame>& frames, int& width) {
  const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecContext* c = avcodec_alloc_context3(codec);
  c->extradata = static_cast<std::uint8_t*>(av_mallocz(configuration.size() + 64));
  std::memcpy(c->extradata, configuration.data(), configuration.size());
  c->extradata_size = int(configuration.size());
  EXPECT_EQ(avcodec_open2(c, codec, nullptr), 0);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  std::vector<double> means;
  auto drain = [&] {
    while (avcodec_receive_frame(c, frame) == 0) {
      width = frame->width;
      double sum = 0;
      for (int y = 0; y < frame->height; ++y)
        for (int x = 0; x < frame->width; ++x) sum += frame->data[0][y * frame->linesize[0] + x];
      means.push_back(sum / (frame->width * frame->height));
    }
  };
  for (const auto& f : frames) {
    av_new_packet(packet, int(f.nals.size()));
    std::memcpy(packet->data, f.nals.data(), f.nals.size());
    avcodec_send_packet(c, packet);
    av_packet_unref(packet);
    drain();
  }
  avcodec_send_packet(c, nullptr);
  drain();
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&c);
  return means;
}

TEST(H264Encoder, FramesDecodeBackWithKeyframesWhereAskedAndInOrder) {
  std::string error;
  auto encoder = H264Encoder::make({320, 180, 30, 800'000, ""}, error);
  ASSERT_TRUE(encoder) << error;
  const auto& config = encoder->decoderConfiguration();
  ASSERT_GT(config.size(), 8u);
  EXPECT_EQ(config[0], 1);
  EXPECT_EQ(config[1], 77);  // Main profile
  EXPECT_EQ(config[4], 0xFF);

  std::vector<EncodedFrame> frames;
  for (int i = 0; i < 12; ++i) {
    auto frame = encoder->encode(*greyPicture(320, 180, std::uint8_t(40 + 10 * i)), i * 33, i == 7);
    ASSERT_TRUE(frame);
    ASSERT_FALSE(frame->nals.empty()) << "no frame held back: " << i;
    EXPECT_EQ(frame->pts, i * 33);  // no reordering
    frames.push_back(*frame);
  }
  EXPECT_TRUE(frames[0].keyframe);
  EXPECT_FALSE(frames[3].keyframe);
  EXPECT_TRUE(frames[7].keyframe);
  // Each unit stands behind its 4-byte length, with no start codes.
  size_t at = 0;
  const auto& units = frames[0].nals;
  while (at + 4 <= units.size()) {
    const size_t n = size_t(units[at]) << 24 | size_t(units[at + 1]) << 16 |
                     size_t(units[at + 2]) << 8 | units[at + 3];
    ASSERT_GT(n, 0u);
    at += 4 + n;
  }
  EXPECT_EQ(at, units.size());

  int width = 0;
  const auto means = decode(config, frames, width);
  ASSERT_EQ(means.size(), frames.size());
  EXPECT_EQ(width, 320);
  for (size_t i = 0; i < means.size(); ++i) EXPECT_NEAR(means[i], 40 + 10 * double(i), 4) << i;

  EXPECT_TRUE(encoder->setBitrate(400'000));
  EXPECT_FALSE(encoder->encode(*greyPicture(160, 90, 50), 400, false));  // wrong size
  EXPECT_FALSE(H264Encoder::make({321, 180, 30, 800'000, ""}, error));
  EXPECT_EQ(H264Encoder::presetFor(1920, 1080), "veryfast");
  EXPECT_EQ(H264Encoder::presetFor(3840, 2160), "ultrafast");
}

TEST(AACEncoder, PacketsComeOutForEveryBlockOnceFilledAndTheConfigIsTheStandardOne) {
  EXPECT_EQ(AACEncoder::audioSpecificConfig(48000, 2), (std::array<std::uint8_t, 2>{0x11, 0x90}));
  EXPECT_EQ(AACEncoder::audioSpecificConfig(44100, 1), (std::array<std::uint8_t, 2>{0x12, 0x08}));
  EXPECT_FALSE(AACEncoder::audioSpecificConfig(47999, 2));

  std::string error;
  auto encoder = AACEncoder::make(48000, 2, 128'000, error);
  ASSERT_TRUE(encoder) << error;
  std::vector<float> left(1024), right(1024);
  const float* planes[2] = {left.data(), right.data()};
  int packets = 0;
  for (int block = 0; block < 20; ++block) {
    for (int i = 0; i < 1024; ++i)
      left[size_t(i)] = right[size_t(i)] =
          0.3f * float(std::sin(2 * 3.14159265 * 1000 * (block * 1024 + i) / 48000));
    auto packet = encoder->encode(planes, error);
    ASSERT_TRUE(packet) << error;
    if (!packet->empty()) ++packets;
  }
  EXPECT_GE(packets, 18);  // at most the encoder's priming held back
}

}  // namespace
}  // namespace qvn
