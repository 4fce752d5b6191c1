// A source's own sound that one listener beside the mix may take: the recorder, when it
// records a phone's sound rather than the mix.
//
// The consumer is called on the source's audio thread, one buffer after another; it may be
// replaced or removed from any thread.
#pragma once

#include <functional>

#include "audio/pcm_buffer.h"

namespace qvn {

class PCMTap {
 public:
  using Consumer = std::function<void(const PCMView& pcm)>;
  virtual ~PCMTap() = default;
  virtual void setConsumer(Consumer consumer) = 0;
};

}  // namespace qvn
