// The main queue as the window app runs it: jobs ride on Qt's event loop, delayed jobs on one
// timer, with the same ordering as every other queue (due time, then posting order).
// Make it on the thread that runs the event loop, after the application object exists; it must
// outlive everything that posts to it.
#pragma once

#include <memory>

#include "platform/dispatch.h"

namespace qvn {

class QtMainQueue final : public MainQueue {
 public:
  QtMainQueue();
  ~QtMainQueue() override;

  void async(Job job) override;
  void asyncAfter(double delaySeconds, Job job) override;
  bool isCurrent() const override;
  double now() const override;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvn
