#include "video/overlay_geometry.h"

#include <algorithm>
#include <cmath>

namespace qvn {

LayerDraw placeOverlay(const OverlayLayer& layer, const PixelRect& canvas, double unit,
                       QvnOverlayMotion kind, double p) {
  const double fw = layer.image ? layer.image->width() : 0;
  const double fh = layer.image ? layer.image->height() : 0;
  const double travel = std::max(fw, fh) * unit;
  const double shown = p > 0.001 ? 1.0 : 0.0;
  double ox = 0, oy = 0, alpha = shown, wipe = 1;
  switch (kind) {
    case QvnOverlayMotion::none:
      break;
    case QvnOverlayMotion::fade:
    case QvnOverlayMotion::scale:
      alpha = p;
      break;
    case QvnOverlayMotion::slideLeft:
      ox = -(1 - p) * travel;
      break;
    case QvnOverlayMotion::slideRight:
      ox = (1 - p) * travel;
      break;
    case QvnOverlayMotion::slideUp:
      oy = (1 - p) * travel;
      break;
    case QvnOverlayMotion::slideDown:
      oy = -(1 - p) * travel;
      break;
    case QvnOverlayMotion::wipe:
      wipe = p;
      break;
  }
  LayerDraw draw;
  draw.keepWidth = fw > 0 && fh > 0 && wipe < 0.999 ? std::max(1.0, wipe * fw) : fw;
  draw.alpha = std::clamp(alpha * layer.opacity, 0.0, 1.0);

  Affine m{unit, 0, 0, unit, -fw / 2 * unit, -fh / 2 * unit};
  if (std::abs(layer.rotation) > 0.01) m = m.then(Affine::rotated(layer.rotation));
  m.tx += canvas.x + layer.center.x * canvas.width + ox;
  m.ty += canvas.y + layer.center.y * canvas.height + oy;
  draw.toCanvas = m;
  return draw;
}

PixelRect sourceHoleRect(const OverlayLayer& layer, const OverlaySourceHole& hole,
                         const PixelRect& canvas, double unit) {
  const double fw = (layer.image ? layer.image->width() : 0) * unit;
  const double fh = (layer.image ? layer.image->height() : 0) * unit;
  const double left = canvas.x + layer.center.x * canvas.width - fw / 2;
  const double top = canvas.y + layer.center.y * canvas.height - fh / 2;
  const double border = hole.border * unit;
  PixelRect r{left + fw * hole.norm.x + border, top + fh * hole.norm.y + border,
              std::max(fw * hole.norm.width - 2 * border, 2.0),
              std::max(fh * hole.norm.height - 2 * border, 2.0)};
  return r;
}

}  // namespace qvn
