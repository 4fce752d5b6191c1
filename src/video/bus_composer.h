// Composes one bus's picture onto a canvas from the newest pictures of the frame hub, from
// the back: the background, the source fitted or filled, the inset's shadow, the inset, then
// each overlay layer with the live inputs in its holes right after it. Owned and called by
// the mix queue (the engine) or by one thread at a time (benchmarks).
#pragma once

#include <map>
#include <memory>

#include "platform/pixel_buffer.h"
#include "video/bus_look.h"
#include "video/canvas_painter.h"
#include "video/crop_easing.h"
#include "video/frame_hub.h"
#include "video/inset_painter.h"
#include "video/overlay_geometry.h"
#include "video/turned_layers.h"

namespace qvn {

class BusComposer {
 public:
  explicit BusComposer(std::shared_ptr<FrameHub> frames);

  // The canvas the looks are laid out for; a smaller target is drawn scaled down to it.
  void setCanvas(int width, int height) { canvas_ = {width, height}; }
  // Fill pictures that aren't portrait rather than fit them.
  void setFill(bool fill) { fill_ = fill; }
  CropEasing& crops() { return crops_; }

  // How a look's layers are drawn: as they move at `now`, or at rest with the leaving ones
  // gone (what a bus will show once its motions end).
  enum class Motion { live, settled };

  // The whole bus at the target's size. Live, layers whose exit has ended leave `look`.
  void compose(CanvasPainter& target, int slot, BusLook& look, double now,
               Motion motion = Motion::live);

  // One side of a change between two pictures.
  struct Side {
    int slot;
    BusLook& look;
    Motion motion = Motion::live;
  };
  // The way from one picture to another at progress `p`: `to` faded in over `from`, or slid
  // in from the right edge over it; `to` alone from 1 on. Both sides are composed in full, so
  // each keeps moving with its own inset and overlays; `scratch`, of the target's size,
  // holds the incoming side.
  void composeBlend(CanvasPainter& target, CanvasPainter& scratch, Side from, Side to,
                    MixTransition kind, double p, double now);

 private:
  struct PlacedSource {
    PixelBufferRef picture;  // BGRA
    Placement placement;
  };
  // The slot's newest picture placed in `frame`, fitted or filled; none without a picture
  // or for one too small to place.
  std::optional<PlacedSource> placeSource(int slot, const PixelRect& frame,
                                          std::optional<bool> fillOverride);
  void drawBackgroundAndSource(CanvasPainter& target, int slot);
  void drawSource(CanvasPainter& target, int slot, const PixelRect& frame,
                  std::optional<bool> fillOverride);
  void drawInset(CanvasPainter& target, const BusLook& look);
  void drawLayers(CanvasPainter& target, const BusLook& look, double now, Motion motion);
  void drawLayer(CanvasPainter& target, const PixelBufferRef& image, const LayerDraw& draw);
  PixelBufferRef asBGRA(int slot, const PixelBufferRef& picture);

  std::shared_ptr<FrameHub> frames_;
  CanvasPixels canvas_{1920, 1080};
  bool fill_ = false;
  CropEasing crops_;
  InsetPainter inset_;
  TurnedLayers turnedLayers_;
  struct Conversion {
    std::unique_ptr<QvnPixelBufferPool> pool;
    PixelBufferRef from, to;  // the last picture converted and its BGRA copy
  };
  std::map<int, Conversion> conversions_;
};

}  // namespace qvn
