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
      const double now = mediaTime();
      if (now - lastShown_ < 1.0 / maxFramesPerSecond_) return;
      lastShown_ = now;
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
