// A block of sound as a producer hands it over: any rate, any channel count, 16-bit or
// float samples, interleaved or one plane per channel. A view: the producer owns the bytes.
#pragma once

#include <array>
#include <cstdint>

namespace qvn {

enum class SampleFormat { int16, float32 };

struct PCMView {
  SampleFormat format = SampleFormat::float32;
  int rate = 48000;
  int channels = 2;
  bool interleaved = true;
  int frames = 0;
  // Interleaved: planes[0] holds everything. Planar: one plane per channel (up to 8).
  std::array<const void*, 8> planes{};
};

}  // namespace qvn
