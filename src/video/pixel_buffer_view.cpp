#include "video/pixel_buffer_view.h"

#include <utility>

namespace qvn {

namespace {

SerialQueue& previewQueue() {
  static SerialQueue queue("io.quorvane.camera.preview", QueuePriority::userInteractive);
  return queue;
}

}  // namespace

std::shared_ptr<PixelBufferView> PixelBufferView::make(Present present, double maxFramesPerSecond) {
  return std::shared_ptr<PixelBufferView>(
      new PixelBufferView(std::move(present), maxFramesPerSecond));
}

PixelBufferView::PixelBufferView(Present present, double maxFramesPerSecond)
    : present_(std::move(present)), maxFramesPerSecond_(maxFramesPerSecond) {}

void PixelBufferView::enqueue(PixelBufferRef buffer) {
  bool wasScheduled;
  {
    std::lock_guard lock(presentLock_);
    if (maxFramesPerSecond_ > 0) {
      // Due times keep the cadence: a 30/s source through a 15/s view shows every other
      // picture even when each comes a little early. A fifth of a period is the slack.
      const double now = mediaTime(), period = 1.0 / maxFramesPerSecond_;
      if (now < nextDue_ - 0.2 * period) return;
      nextDue_ = now - nextDue_ > period ? now + period : nextDue_ + period;
    }
    pending_ = std::move(buffer);  // an older, unshown picture is simply let go
    wasScheduled = std::exchange(drainScheduled_, true);
  }
  if (!wasScheduled)
    previewQueue().async([weak = weak_from_this()] {
      if (auto view = weak.lock()) view->drain();
    });
}

void PixelBufferView::drain() {
  PixelBufferRef buffer;
  {
    std::lock_guard lock(presentLock_);
    buffer = std::move(pending_);
    drainScheduled_ = false;
  }
  if (buffer && present_) present_(buffer);
}

}  // namespace qvn
