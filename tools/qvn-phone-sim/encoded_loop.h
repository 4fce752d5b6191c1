// For --loop: one cycle of the pattern encoded once and kept, so a phone that sends it over
// and over costs almost nothing. A loop starts on an IDR, so it wraps cleanly and a
// keyframe request is answered by going back to its start; each frame's code is its index
// in the loop.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camera_look.h"
#include "platform/codecs.h"
#include "test_pattern.h"

namespace qvn {

// The box crosses and comes back once in this long, live or looped, and a loop is one cycle.
inline constexpr double kCycleSeconds = 4;

// What the sender needs to describe a stream: its size, rate and configuration record.
struct VideoFormat {
  int width = 0;
  int height = 0;
  int fps = 0;
  std::vector<std::uint8_t> configuration;
  bool operator==(const VideoFormat&) const = default;
};

// Immutable once made: shared between the queue that encodes it and the one that sends it.
struct EncodedLoop {
  VideoFormat format;
  CameraLook look;
  std::vector<EncodedFrame> frames;
};

// Draws and encodes one cycle, its frames coded from `firstCode` on; none, with `error`, when
// the encoder fails or, between two frames, `cancelled` is found set.
std::shared_ptr<const EncodedLoop> encodeLoop(const H264Settings& settings, const CameraLook& look,
                                              TestPattern& pattern,
                                              const std::atomic<bool>& cancelled,
                                              std::string& error, std::uint32_t firstCode = 0);

}  // namespace qvn
