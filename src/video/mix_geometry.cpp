#include "video/mix_geometry.h"

#include <algorithm>
#include <cmath>

namespace qvn {

Affine Affine::rotated(double degrees, double dx, double dy) {
  const double r = degrees * M_PI / 180;
  const double cos = std::cos(r), sin = std::sin(r);
  // With y down, the usual rotation matrix turns clockwise on screen.
  return {cos, sin, -sin, cos, dx, dy};
}

Affine Affine::then(const Affine& n) const {
  return {n.a * a + n.c * b, n.b * a + n.d * b,          n.a * c + n.c * d,
          n.b * c + n.d * d, n.a * tx + n.c * ty + n.tx, n.b * tx + n.d * ty + n.ty};
}

Affine Affine::inverted() const {
  const double det = a * d - b * c;
  if (det == 0) return {0, 0, 0, 0, 0, 0};
  const double ia = d / det, ib = -b / det, ic = -c / det, id = a / det;
  return {ia, ib, ic, id, -(ia * tx + ic * ty), -(ib * tx + id * ty)};
}

void Affine::apply(double x, double y, double& outX, double& outY) const {
  outX = a * x + c * y + tx;
  outY = b * x + d * y + ty;
}

bool fillsFrame(double width, double height, const ImageCrop& crop,
                std::optional<bool> fillOverride, bool engineFill) {
  if (!fillOverride && engineFill && height <= width * 1.02) return true;
  if (fillOverride == true) return true;
  return crop.zoom > 1.0005 || std::abs(crop.panX) >= 0.0005 || std::abs(crop.panY) >= 0.0005;
}

std::optional<Placement> fittedPlacement(double width, double height, const PixelRect& frame,
                                         const ImageCrop& crop, bool fill) {
  if (width <= 1 || height <= 1) return std::nullopt;
  const double sx = frame.width / width, sy = frame.height / height;
  const double scale = crop.zoom * (fill ? std::max(sx, sy) : std::min(sx, sy));
  const double scaledW = width * scale, scaledH = height * scale;
  Placement p{scale, frame.x + (frame.width - scaledW) / 2, frame.y + (frame.height - scaledH) / 2};
  if (const double ox = scaledW - frame.width; ox > 0.5) p.x += crop.panX * ox * 0.5;
  // Pan y counts upward, as the crop editor moves the picture.
  if (const double oy = scaledH - frame.height; oy > 0.5) p.y -= crop.panY * oy * 0.5;
  return p;
}

PixelSize previewSize(int canvasWidth, int canvasHeight, bool fullSize) {
  if (fullSize || (canvasWidth <= 1920 && canvasHeight <= 1080)) return {canvasWidth, canvasHeight};
  const double s = std::min(1920.0 / canvasWidth, 1080.0 / canvasHeight);
  auto even = [](double v) { return static_cast<int>(std::lround(v)) & ~1; };
  return {even(canvasWidth * s), even(canvasHeight * s)};
}

}  // namespace qvn
