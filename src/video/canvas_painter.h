// Draws onto one BGRA canvas: fills, and pictures scaled into place, over what is there.
// The canvas keeps its pixman wrapper for its whole life; the thread that draws owns it.
#pragma once

#include <cstdint>
#include <memory>

#include "platform/pixel_buffer.h"
#include "video/alpha_mask.h"
#include "video/mix_geometry.h"
#include "video/overlay_rgba.h"

namespace qvn {

class CanvasPainter {
 public:
  explicit CanvasPainter(PixelBufferRef canvas);
  ~CanvasPainter();
  CanvasPainter(CanvasPainter&&) noexcept;
  CanvasPainter& operator=(CanvasPainter&&) noexcept;

  const PixelBufferRef& canvas() const { return canvas_; }

  void fill(const OverlayRGBA& color);
  // Every pixel transparent.
  void clear();
  // Draws a BGRA premultiplied picture scaled and placed, limited to `clip`, over the canvas;
  // its edge pixels repeat outward to the clip, so a scaled border doesn't fade.
  void draw(const PixelBuffer& picture, const Placement& placement, const PixelRect& clip);
  // The whole canvas: `background`, with the picture scaled and placed over it. Each pixel
  // is written once where an opaque picture covers it.
  void drawOnBackground(const PixelBuffer& picture, const Placement& placement,
                        const OverlayRGBA& background);
  // Draws a BGRA premultiplied picture through `toCanvas` over the canvas, with its alpha
  // multiplied by `alpha` and only its leftmost `keepWidth` pixels kept (a wipe). Outside
  // the picture is transparent, and turned edges are smoothed.
  void drawTransformed(const PixelBuffer& picture, const Affine& toCanvas, double alpha,
                       double keepWidth);
  // Lays `color` over the canvas through a coverage mask whose top left is at (x, y).
  void drawCoverage(const AlphaMask& mask, int x, int y, const OverlayRGBA& color);
  // Keeps the canvas only where a mask of its own size covers it.
  void keepInside(const AlphaMask& mask);
  // Lays another canvas of the same size over this one: at `alpha` (a fade), or shifted
  // right by `offsetX` pixels (a slide).
  void blendOver(const CanvasPainter& other, double alpha, int offsetX = 0);

 private:
  struct Image;
  PixelBufferRef canvas_;
  std::unique_ptr<Image> image_;
};

}  // namespace qvn
