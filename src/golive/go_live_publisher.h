// The publisher as the studio steers it: which input is on Program, so the stream's sound
// follows it; and, once it exists, the stream itself (see rtmp_publisher.h).
#pragma once

#include <cstdint>

namespace qvn {

// What the cloud asks a stream to be: the size, rate and bitrates the encoders start from.
struct StreamConfig {
  int width = 1920;
  int height = 1080;
  int fps = 30;
  std::int64_t videoBitrate = 6'000'000;  // bits per second
  std::int64_t audioBitrate = 128'000;
};

class GoLivePublisher {
 public:
  virtual ~GoLivePublisher() = default;
  virtual void setProgramSlot(int slot) = 0;
};

class GoLivePublisherNotYetAvailable final : public GoLivePublisher {
 public:
  void setProgramSlot(int) override {}
};

}  // namespace qvn
