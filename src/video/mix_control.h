// The compositor as the studio drives it: Program and Preview, the canvas, transitions, the
// T-bar and the inset. `MixEngine` is the real one. The mix runs on its own queue
// ("io.quorvane.camera.mix"); every operation here only posts to it and returns, so effects
// apply in call order but not at once, and callbacks come from that queue.
#pragma once

#include <functional>
#include <vector>

#include "video/mix_types.h"
#include "video/pip_layout.h"

namespace qvn {

class MixControl {
 public:
  enum class Bus { program, preview, both };

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

  // In Studio style Preview stays where it is when Program switches, and is composed.
  virtual void setHoldPreview(bool on) = 0;
  virtual void setPreviewVisible(bool on) = 0;
  virtual void setPreview(int slot) = 0;
  // Program goes straight to an input; nothing for a slot below 1.
  virtual void switchTo(int slot, MixTransition kind) = 0;
  // Preview's source and look go to Program; with `swap`, the old Program goes to Preview.
  virtual void takePreview(MixTransition kind, bool swap) = 0;
  // The T-bar held at `progress`, and let go; `completion` says whether it took.
  virtual void setManual(double progress, MixTransition kind) = 0;
  virtual void endManual(bool commit, bool swap, std::function<void(bool taken)> completion) = 0;
  virtual void setPiP(bool on, int slot, const QvnPiPLayout& layout, Bus bus) = 0;
};

}  // namespace qvn
