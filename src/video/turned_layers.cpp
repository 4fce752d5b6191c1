#include "video/turned_layers.h"

#include <algorithm>
#include <cmath>

namespace qvn {

TurnedLayers::Turned TurnedLayers::turned(const PixelBufferRef& image, const Affine& m) {
  const double wholeX = std::floor(m.tx), wholeY = std::floor(m.ty);
  const double fx = m.tx - wholeX, fy = m.ty - wholeY;
  auto placed = [&](const Entry& e) {
    return Turned{e.painter->canvas().get(), {1, 0, 0, 1, wholeX + e.originX, wholeY + e.originY}};
  };
  ++clock_;
  for (Entry& e : entries_)
    if (e.painter && e.image == image && e.a == m.a && e.b == m.b && e.c == m.c && e.d == m.d &&
        e.fx == fx && e.fy == fy) {
      e.lastUse = clock_;
      return placed(e);
    }

  // Where the turned picture lies, a pixel clear of its smoothed edge on every side.
  const Affine linear{m.a, m.b, m.c, m.d, fx, fy};
  double minX = 1e18, minY = 1e18, maxX = -1e18, maxY = -1e18;
  for (auto [x, y] : {std::pair{0.0, 0.0},
                      {double(image->width()), 0.0},
                      {0.0, double(image->height())},
                      {double(image->width()), double(image->height())}}) {
    double cx, cy;
    linear.apply(x, y, cx, cy);
    minX = std::min(minX, cx), maxX = std::max(maxX, cx);
    minY = std::min(minY, cy), maxY = std::max(maxY, cy);
  }
  const int originX = int(std::floor(minX)) - 1, originY = int(std::floor(minY)) - 1;
  const int width = int(std::ceil(maxX)) - originX + 1, height = int(std::ceil(maxY)) - originY + 1;
  if (width <= 0 || height <= 0) return {};

  // The picture used longest ago makes room; one of the same size is drawn into again.
  Entry* pick = &entries_[0];
  for (Entry& candidate : entries_) {
    const bool sameSize = candidate.painter && candidate.painter->canvas()->width() == width &&
                          candidate.painter->canvas()->height() == height;
    if (sameSize && candidate.image == image) {
      pick = &candidate;
      break;
    }
    if (candidate.lastUse < pick->lastUse) pick = &candidate;
  }
  Entry& e = *pick;
  e.lastUse = clock_;
  // A layer sliding while turned keeps its size: its buffer is drawn again, not made again.
  if (!e.painter || e.painter->canvas()->width() != width ||
      e.painter->canvas()->height() != height) {
    auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
    if (!buffer) {
      e = {};
      return {};
    }
    e.painter = std::make_unique<CanvasPainter>(std::move(buffer));
  }
  e.image = image;
  e.a = m.a, e.b = m.b, e.c = m.c, e.d = m.d, e.fx = fx, e.fy = fy;
  e.originX = originX, e.originY = originY;
  e.painter->clear();
  e.painter->drawTransformed(*image, {m.a, m.b, m.c, m.d, fx - originX, fy - originY}, 1,
                             image->width());
  return placed(e);
}

}  // namespace qvn
