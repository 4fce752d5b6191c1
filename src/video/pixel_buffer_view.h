// A sink for the newest picture of something on screen: a monitor, a card, a full-screen
// head. Offering a picture never blocks; at most one waits, and a later one replaces it. The
// picture reaches `present` on the preview queue ("io.quorvane.camera.preview"), where the
// toolkit side hands it to the screen. All views share that one queue: presenting is a
// reference handed on, and a thread per card would cost more than it saves.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "platform/dispatch.h"
#include "platform/pixel_buffer.h"

namespace qvn {

class PixelBufferView : public std::enable_shared_from_this<PixelBufferView> {
 public:
  // Called on the view's queue with each picture that passed the throttle; set before the
  // first enqueue.
  using Present = std::function<void(const PixelBufferRef&)>;

  static std::shared_ptr<PixelBufferView> make(Present present, double maxFramesPerSecond = 0);

  // Any thread. With a throttle, a picture that comes before the next one is due is
  // dropped, not deferred.
  void enqueue(PixelBufferRef buffer);

  double maxFramesPerSecond() const { return maxFramesPerSecond_; }

 private:
  PixelBufferView(Present present, double maxFramesPerSecond);
  void drain();

  Present present_;
  const double maxFramesPerSecond_;
  std::mutex presentLock_;
  PixelBufferRef pending_;
  bool drainScheduled_ = false;
  double nextDue_ = -1e300;  // when the throttle next lets a picture through
};

}  // namespace qvn
