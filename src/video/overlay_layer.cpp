#include "video/overlay_layer.h"

#include <algorithm>

namespace qvn {

double OverlayMotion::progress(double now) const {
  if (kind == QvnOverlayMotion::none) return outgoing ? 0.0 : 1.0;
  const double d = std::clamp(duration, 0.15, 1.0);
  const double t = std::clamp((now - started) / d, 0.0, 1.0);
  const double eased = t * t * (3 - 2 * t);
  return outgoing ? 1 - eased : eased;
}

bool OverlayMotion::hasLeft(double now) const {
  return outgoing && (kind == QvnOverlayMotion::none || progress(now) <= 0.01);
}

}  // namespace qvn
