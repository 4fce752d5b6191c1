// The inset's mask and border pictures, drawn once per size and look and then found by key
// on every later tick of the mix.
#pragma once

#include <memory>

#include "platform/pixel_buffer.h"
#include "video/alpha_mask.h"
#include "video/overlay_rgba.h"

namespace qvn {

// Called from the mix queue; any thread is safe. The lock covers only the two caches:
// drawing happens outside it, so two threads that miss at once each draw and the last
// store stands. A cache holding more than 24 entries is emptied before the next store.
class QvnPiPArt {
 public:
  // The inset's shape: a rounded rectangle of the whole size in full coverage, a circle (or
  // a pill, for a size that isn't square) with `circle`. None for a side of 1 or less, or
  // a picture that can't be made.
  static std::shared_ptr<const AlphaMask> mask(int width, int height, double radius, bool circle);

  // The inset's frame: a rounded rectangle stroked `stroke` pixels wide just inside the
  // edge, BGRA premultiplied and transparent elsewhere. None for a side of 1 or less, a
  // stroke of 0.3 or less, a colour with alpha 0.004 or less, or a picture that can't be
  // made. Readers must not write the returned buffer: it is shared through the cache.
  static PixelBufferRef border(int width, int height, double radius, double stroke,
                               OverlayRGBA color, bool circle);

  // Drops every cached picture; those already handed out stay valid.
  static void emptyCaches();
};

}  // namespace qvn
