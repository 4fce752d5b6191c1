// The publisher as the studio steers it: which input is on Program, so the stream's sound
// follows it; and, once it exists, the stream itself (see rtmp_publisher.h).
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

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
  // Called on the publisher's own queue; the studio hops them to the main thread.
  std::function<void(const std::string&)> onStatus;
  std::function<void(const std::string&)> onFatal;
  std::function<void()> onPublished;
  std::function<void()> onReconnecting;

  virtual void setProgramSlot(int slot) = 0;
  // True when the encoders run and the first connection is opening; the outcome comes by
  // the callbacks. `slot` 0 is Program.
  virtual bool start(const std::string& ingestURL, const std::string& streamKey, int slot,
                     const StreamConfig& config) = 0;
  virtual void stop() = 0;
  // The size the operator chose for the stream, or none to send the canvas as it is; read
  // by the next `start`.
  virtual void setPreferredSize(std::optional<std::pair<int, int>> size) = 0;
  // Pictures the network lost, from the last second's sample.
  virtual long networkDrops() const = 0;
};

class GoLivePublisherNotYetAvailable final : public GoLivePublisher {
 public:
  void setProgramSlot(int) override {}
  bool start(const std::string&, const std::string&, int, const StreamConfig&) override {
    return false;
  }
  void stop() override {}
  void setPreferredSize(std::optional<std::pair<int, int>>) override {}
  long networkDrops() const override { return 0; }
};

}  // namespace qvn
