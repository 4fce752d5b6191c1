// Overlay pictures turned or scaled once and kept: a layer at rest is the same picture tick
// after tick, and turning it costs several times what laying it down does. Owned by one
// composer, used by the thread that composes.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "platform/pixel_buffer.h"
#include "video/canvas_painter.h"
#include "video/mix_geometry.h"

namespace qvn {

class TurnedLayers {
 public:
  struct Turned {
    const PixelBuffer* picture = nullptr;
    Affine toCanvas;  // a whole-pixel move of `picture`
  };
  // `image` through `toCanvas`, as a picture that only needs moving; none when it can't be
  // made. Kept while the image, its turn and scale, and the pixel fraction of its place stay.
  Turned turned(const PixelBufferRef& image, const Affine& toCanvas);

 private:
  struct Entry {
    PixelBufferRef image;
    double a = 0, b = 0, c = 0, d = 0, fx = 0, fy = 0;
    int originX = 0, originY = 0;
    std::uint64_t lastUse = 0;
    std::unique_ptr<CanvasPainter> painter;
  };
  // Enough for every layer of Program and a scaled Preview at once.
  static constexpr size_t kKept = 16;
  std::array<Entry, kKept> entries_{};
  std::uint64_t clock_ = 0;
};

}  // namespace qvn
