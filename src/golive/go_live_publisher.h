// The publisher as the studio steers it: which input is on Program, so the stream's sound
// follows it.
#pragma once

namespace qvn {

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
