// The compositor as the studio drives it: Program and Preview, the canvas, transitions.
// `MixEngine` is the real one. The mix runs on its own queue ("io.quorvane.camera.mix");
// every operation here only posts to it and returns, and callbacks come from that queue.
#pragma once

#include <functional>
#include <vector>

#include "video/mix_types.h"

namespace qvn {

class MixControl {
 public:
  virtual ~MixControl() = default;

  // Callback properties, set once while the studio is built; called on the mix queue.
  std::function<void(bool dissolving)> onDissolve;
  std::function<void(int program, int preview)> onBusChanged;

  virtual void start() = 0;
  virtual void setFill(bool fill) = 0;
  virtual void setCanvas(int width, int height) = 0;
  virtual void setTransitionDuration(double seconds) = 0;
  // A source left `slot`: Program cuts to the first of `live` (ascending), or both buses
  // go to 0 when nothing is live; a Preview on the slot follows Program.
  virtual void clearIf(int slot, std::vector<int> live) = 0;
  virtual void setImageCrop(int slot, ImageCrop crop, bool snap) = 0;
};

}  // namespace qvn
