// An H.264 encoder for the publisher's tests: each picture comes out as a canned packet
// filled with the picture's top-left luma, a keyframe every `keyframeEvery` pictures or when
// asked. It notes what it was asked, for the test thread, and waits at `gate` before each
// picture so a test can hold the publisher's queue.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "platform/codecs.h"

namespace qvn::test {

struct CannedLog {
  std::atomic<size_t> packetBytes{200};
  std::mutex gate;
  std::mutex lock;
  std::vector<int> pictures;  // the mark of each picture encoded
  std::vector<bool> forced;
  std::vector<std::int64_t> bitrates;
};

class CannedVideoEncoder final : public VideoEncoder {
 public:
  CannedVideoEncoder(std::shared_ptr<CannedLog> log, int keyframeEvery)
      : log_(std::move(log)), keyframeEvery_(keyframeEvery) {}

  std::optional<EncodedFrame> encode(const PixelBuffer& picture, std::int64_t pts,
                                     bool forceKeyframe) override {
    { std::lock_guard wait(log_->gate); }
    const int mark = picture.data(0)[0];
    {
      std::lock_guard hold(log_->lock);
      log_->pictures.push_back(mark);
      log_->forced.push_back(forceKeyframe);
    }
    EncodedFrame frame;
    frame.keyframe = forceKeyframe || count_++ % keyframeEvery_ == 0;
    frame.pts = pts;
    const size_t bytes = log_->packetBytes;
    const std::uint32_t size = std::uint32_t(bytes);
    frame.nals = {std::uint8_t(size >> 24), std::uint8_t(size >> 16), std::uint8_t(size >> 8),
                  std::uint8_t(size)};
    frame.nals.resize(4 + bytes, std::uint8_t(mark));
    return frame;
  }
  const std::vector<std::uint8_t>& decoderConfiguration() const override { return record_; }
  bool setBitrate(std::int64_t bitsPerSecond) override {
    std::lock_guard hold(log_->lock);
    log_->bitrates.push_back(bitsPerSecond);
    return true;
  }

 private:
  std::shared_ptr<CannedLog> log_;
  int keyframeEvery_;
  long count_ = 0;
  std::vector<std::uint8_t> record_{0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE1, 0, 0, 0x01, 0, 0};
};

}  // namespace qvn::test
