// Draws a bus's picture-in-picture inset: the source filled into its rectangle, cut to its
// shape, framed, faded and turned, over a soft shadow that stays square to the canvas.
// Owned by one composer and used by the thread that composes.
#pragma once

#include <array>
#include <memory>

#include "platform/pixel_buffer.h"
#include "video/alpha_mask.h"
#include "video/canvas_painter.h"
#include "video/mix_geometry.h"
#include "video/pip_layout.h"

namespace qvn {

class InsetPainter {
 public:
  // `rect` is where the inset lands, in target pixels with y down; `unit` turns the
  // layout's 1080-line pixel measures into target pixels.
  void paint(CanvasPainter& target, const PixelBuffer& picture, const QvnPiPLayout& layout,
             const PixelRect& rect, double unit);

 private:
  // Shape, frame and shadow for one inset size and style, kept across ticks: a mask or
  // border comes from the shared art cache, a shadow is blurred here, once.
  struct Art {
    int width = 0, height = 0;
    double radius = 0, stroke = 0, shadow = 0;
    bool circle = false;
    OverlayRGBA color;
    std::shared_ptr<const AlphaMask> mask;  // the shape, none for a plain rectangle
    PixelBufferRef border;
    std::shared_ptr<const AlphaMask> shadowMask;  // grown by blurMargin(shadow)
    bool matches(const Art& other) const;
  };
  const Art& art(const Art& wanted, bool shaped);
  CanvasPainter* scratch(int width, int height);

  // Program, Preview and both sides of a transition may each show a different inset.
  static constexpr size_t kKept = 4;
  std::array<Art, kKept> arts_{};
  size_t nextArt_ = 0;
  std::array<std::unique_ptr<CanvasPainter>, kKept> scratches_{};
  size_t nextScratch_ = 0;
};

}  // namespace qvn
