// The newest picture of every slot, as far as the studio needs to ask about it.
#pragma once

#include <functional>

namespace qvn {

class FrameHub {
 public:
  virtual ~FrameHub() = default;

  // Set once while the studio is built; called from the thread that stored the first
  // picture of a slot since it was last cleared.
  std::function<void(int slot)> onFirstFrame;

  virtual bool hasFrame(int slot) const = 0;
  virtual void clear(int slot) = 0;
};

}  // namespace qvn
