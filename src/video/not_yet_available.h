// Stand-ins for the video hubs that are not built yet: they accept every call and do nothing,
// so the studio starts and runs its whole order without them.
#pragma once

#include "video/mix_engine.h"

namespace qvn {

class MixEngineNotYetAvailable final : public MixEngine {
 public:
  void start() override {}
  void setFill(bool) override {}
  void setCanvas(int, int) override {}
  void setTransitionDuration(double) override {}
  void clearIf(int, std::vector<int>) override {}
  void setImageCrop(int, ImageCrop, bool) override {}
};

}  // namespace qvn
