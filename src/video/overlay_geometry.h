// Where an overlay layer and the live inputs in its holes land on a canvas: pure geometry.
// Canvases here are target pixels with y down; `unit` is target pixels per canvas pixel
// (1 on Program, below 1 on a scaled-down Preview).
#pragma once

#include "video/mix_geometry.h"
#include "video/overlay_layer.h"

namespace qvn {

struct LayerDraw {
  Affine toCanvas;       // layer picture pixels to target pixels
  double alpha = 1;      // 0..1, on top of the picture's own
  double keepWidth = 0;  // picture columns kept from the left; the full width unless wiping
};

// The layer at motion `kind` and eased progress `p`: slid, faded or wiped, turned about its
// centre, its centre at `center`. A `scale` motion is drawn like a fade.
LayerDraw placeOverlay(const OverlayLayer& layer, const PixelRect& canvas, double unit,
                       QvnOverlayMotion kind, double p);

// A hole's rectangle: it follows the layer's centre only, never its motion or turn, and is
// kept clear of the layer's art by `border` on each side, leaving at least 2 pixels.
PixelRect sourceHoleRect(const OverlayLayer& layer, const OverlaySourceHole& hole,
                         const PixelRect& canvas, double unit);

}  // namespace qvn
