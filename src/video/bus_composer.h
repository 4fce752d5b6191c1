// Composes one bus's picture onto a canvas from the newest pictures of the frame hub: the
// background, then the source fitted or filled, then what the bus's look adds. Owned and
// called by the mix queue (the engine) or by one thread at a time (benchmarks).
#pragma once

#include <map>
#include <memory>

#include "platform/pixel_buffer.h"
#include "video/canvas_painter.h"
#include "video/frame_hub.h"
#include "video/pip_layout.h"

namespace qvn {

// What a bus adds over its source.
struct BusLook {
  bool pipOn = false;
  int pipSlot = 0;
  QvnPiPLayout pipLayout;
};

class BusComposer {
 public:
  explicit BusComposer(std::shared_ptr<FrameHub> frames);

  // Fill pictures that aren't portrait rather than fit them.
  void setFill(bool fill) { fill_ = fill; }
  void setCrop(int slot, const ImageCrop& crop) { crops_[slot] = crop; }

  // The whole bus at the target's size.
  void compose(CanvasPainter& target, int slot, const BusLook& look);

 private:
  void drawSource(CanvasPainter& target, int slot, const PixelRect& frame,
                  std::optional<bool> fillOverride);
  PixelBufferRef asBGRA(int slot, const PixelBufferRef& picture);

  std::shared_ptr<FrameHub> frames_;
  bool fill_ = false;
  std::map<int, ImageCrop> crops_;
  std::map<int, std::unique_ptr<QvnPixelBufferPool>> conversionPools_;
};

}  // namespace qvn
