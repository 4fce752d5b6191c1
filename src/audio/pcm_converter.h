// Brings any PCM to the mix's format, 48 kHz interleaved stereo float: the usual format by
// copying, any other through a resampler kept for as long as the format stays. One per
// source; used by that source's producer thread only.
#pragma once

#include <cstdint>
#include <vector>

#include "audio/pcm_buffer.h"

struct SwrContext;

namespace qvn {

class PCMConverter {
 public:
  static constexpr int kMaxFrames = 8192;

  PCMConverter();
  ~PCMConverter();
  PCMConverter(const PCMConverter&) = delete;
  PCMConverter& operator=(const PCMConverter&) = delete;

  // The converted frames, at most 8192; none when the format can't be converted. The
  // result stays valid until the next call. When the format changes, the sound the old
  // resampler still held comes first (a few dozen frames more), so the stream goes on
  // without a gap.
  const float* convert(const PCMView& pcm, int& frames);

 private:
  struct FormatKey {
    int rate = 0;
    int channels = 0;
    SampleFormat format = SampleFormat::float32;
    bool interleaved = true;
    bool operator==(const FormatKey&) const = default;
  };
  bool rebuild(const FormatKey& key);
  // Empties the resampler into the front of the output and lets it go; the frames given.
  int flush();
  // Runs `inFrames` (none: what it holds) through the resampler, at most `room` out, into the
  // output from frame `at` on; the output's end.
  int resample(const std::uint8_t** in, int inFrames, int room, int at);
  // Writes the frames to the output from frame `at` on; the output's end.
  int pick(const PCMView& pcm, int at);

  std::vector<float> out_;
  std::vector<float> resampled_;  // the resampler's output, all channels
  FormatKey key_;
  SwrContext* swr_ = nullptr;
};

}  // namespace qvn
