// One second's look at a stream, frozen at one moment for whoever judges its health.
#pragma once

#include <cstdint>
#include <optional>

namespace qvn {

struct QvnPublishSample {
  double time = 0;          // monotonic seconds
  bool publishing = false;  // a socket is ready to take media
  std::int64_t pendingBytes = 0;
  double backlogSeconds = 0;
  std::optional<std::int64_t> unackedBytes;  // once the ingest has confirmed anything
  std::optional<double> deliverySeconds;
  std::optional<std::int64_t> ackedBytes;
  long framesSubmitted = 0;
  long encoderDrops = 0;
  long networkDrops = 0;
  long replacedPictures = 0;  // pictures of the mix the encoder never took: a newer came first
  std::int64_t encodedVideoBytes = 0;
  std::int64_t sentBytes = 0;
  long reconnects = 0;
  std::int64_t currentBitrate = 0;
  std::int64_t targetBitrate = 0;
  int width = 0, height = 0, fps = 0;
  std::int64_t audioBitrate = 0;
};

}  // namespace qvn
