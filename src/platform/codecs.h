// Encoders for what leaves the studio: H.264 on libx264, driven directly (length-prefixed
// NAL units, no frame reordering, a keyframe at least every two seconds, the bitrate
// changeable while running) and AAC-LC on libavcodec's own encoder, 1024 frames a packet.
// Each encoder belongs to one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/pixel_buffer.h"

namespace qvn {

struct H264Settings {
  int width = 1920;
  int height = 1080;
  int fps = 30;
  std::int64_t bitrate = 6'000'000;  // bits per second
  // Empty: chosen by size, so that one encoder keeps real time on two cores.
  std::string preset;
};

struct EncodedFrame {
  std::vector<std::uint8_t> nals;  // NAL units, each behind its 4-byte big-endian length
  bool keyframe = false;
  std::int64_t pts = 0;
};

// What a publisher needs of an H.264 encoder; the real one is H264Encoder.
class VideoEncoder {
 public:
  virtual ~VideoEncoder() = default;
  // An I420 picture of the encoder's size in, one encoded frame out; none on failure.
  virtual std::optional<EncodedFrame> encode(const PixelBuffer& picture, std::int64_t pts,
                                             bool forceKeyframe) = 0;
  // The AVCDecoderConfigurationRecord of the stream: profile, level, SPS and PPS.
  virtual const std::vector<std::uint8_t>& decoderConfiguration() const = 0;
  // A new target while running; false when the encoder refused it.
  virtual bool setBitrate(std::int64_t bitsPerSecond) = 0;
};

class H264Encoder final : public VideoEncoder {
 public:
  // "veryfast" up to 1920×1080, "ultrafast" above: with the conversion before it, superfast
  // takes more than a frame's time at 2160p on two cores.
  static std::string presetFor(int width, int height);
  // The threads an encoder of ours takes: one per core. The publisher's and the recorder's
  // run at once, and more threads than cores only trade places at a switch's cost.
  static int encoderThreads();
  // None, with `error` in plain words, when the encoder can't be made.
  static std::unique_ptr<H264Encoder> make(const H264Settings& settings, std::string& error);
  ~H264Encoder() override;

  std::optional<EncodedFrame> encode(const PixelBuffer& picture, std::int64_t pts,
                                     bool forceKeyframe) override;
  const std::vector<std::uint8_t>& decoderConfiguration() const override { return configuration_; }
  bool setBitrate(std::int64_t bitsPerSecond) override;

 private:
  struct State;
  explicit H264Encoder(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
  std::vector<std::uint8_t> configuration_;
};

class AACEncoder {
 public:
  static constexpr int kFrames = 1024;

  // The 2-byte AudioSpecificConfig of AAC-LC at that rate: 48 kHz stereo is 0x11 0x90.
  static std::optional<std::array<std::uint8_t, 2>> audioSpecificConfig(int rate, int channels);
  static std::unique_ptr<AACEncoder> make(int rate, int channels, std::int64_t bitrate,
                                          std::string& error);
  ~AACEncoder();

  // One block of 1024 frames, one plane per channel; the raw packet it gives (empty while
  // the encoder is still filling up), or none on failure with `error` set.
  std::optional<std::vector<std::uint8_t>> encode(const float* const* planes, std::string& error);

 private:
  struct State;
  explicit AACEncoder(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace qvn
