#include "video/pip_art.h"

#include <cairo.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

namespace qvn {
namespace {

// The largest side a cairo image surface takes.
constexpr int kMaxSide = 32767;
// A cache holding more than this many entries is emptied before the next store.
constexpr size_t kCacheLimit = 24;

struct Caches {
  std::mutex lock;
  std::unordered_map<std::string, std::shared_ptr<const AlphaMask>> masks;
  std::unordered_map<std::string, PixelBufferRef> borders;
};

Caches& caches() {
  // Never destroyed: the mix queue may still ask while the process exits.
  static Caches* const shared = new Caches;
  return *shared;
}

template <class Value>
Value lookup(std::unordered_map<std::string, Value>& cache, const std::string& key) {
  std::lock_guard guard(caches().lock);
  auto it = cache.find(key);
  return it == cache.end() ? nullptr : it->second;
}

template <class Value>
void store(std::unordered_map<std::string, Value>& cache, std::string key, Value value) {
  std::lock_guard guard(caches().lock);
  if (cache.size() > kCacheLimit) cache.clear();
  cache.insert_or_assign(std::move(key), std::move(value));
}

// Truncates towards zero like an integer conversion, without undefined behaviour for
// values out of range or not a number.
long long wholePart(double value) {
  if (!(std::abs(value) < 1e15)) return 0;
  return static_cast<long long>(value);
}

std::string colorText(const OverlayRGBA& c) {
  char text[96];
  std::snprintf(text, sizeof text, "%.4f,%.4f,%.4f,%.4f", c.r, c.g, c.b, c.a);
  return text;
}

void roundedRectangle(cairo_t* cr, double x, double y, double w, double h, double r) {
  if (r <= 0) {
    cairo_rectangle(cr, x, y, w, h);
    return;
  }
  const double quarter = M_PI / 2;
  cairo_new_sub_path(cr);
  cairo_arc(cr, x + w - r, y + r, r, -quarter, 0);
  cairo_arc(cr, x + w - r, y + h - r, r, 0, quarter);
  cairo_arc(cr, x + r, y + h - r, r, quarter, 2 * quarter);
  cairo_arc(cr, x + r, y + r, r, 2 * quarter, 3 * quarter);
  cairo_close_path(cr);
}

// Runs `draw` on a cairo context over `data`; false when cairo can't use that memory.
template <class Draw>
bool drawInto(unsigned char* data, cairo_format_t format, int width, int height, int stride,
              Draw draw) {
  cairo_surface_t* surface =
      cairo_image_surface_create_for_data(data, format, width, height, stride);
  bool ok = cairo_surface_status(surface) == CAIRO_STATUS_SUCCESS;
  if (ok) {
    cairo_t* cr = cairo_create(surface);
    draw(cr);
    ok = cairo_status(cr) == CAIRO_STATUS_SUCCESS;
    cairo_destroy(cr);
    cairo_surface_flush(surface);
  }
  cairo_surface_destroy(surface);
  return ok;
}

std::shared_ptr<const AlphaMask> drawMask(int width, int height, double radius, bool circle) {
  auto mask = std::make_shared<AlphaMask>();
  mask->width = width;
  mask->height = height;
  mask->stride = cairo_format_stride_for_width(CAIRO_FORMAT_A8, width);
  if (mask->stride <= 0) return nullptr;
  mask->alpha.assign(static_cast<size_t>(mask->stride) * static_cast<size_t>(height), 0);
  const double half = std::min(width, height) / 2.0;
  const double r = circle || half < radius ? half : std::max(radius, 0.0);
  const bool ok =
      drawInto(mask->alpha.data(), CAIRO_FORMAT_A8, width, height, mask->stride, [&](cairo_t* cr) {
        roundedRectangle(cr, 0, 0, width, height, r);
        cairo_set_source_rgba(cr, 1, 1, 1, 1);
        cairo_fill(cr);
      });
  if (!ok) return nullptr;
  return mask;
}

PixelBufferRef drawBorder(int width, int height, double radius, double stroke,
                          const OverlayRGBA& color, bool circle) {
  PixelBufferRef buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  if (!buffer) return nullptr;
  // Cairo's ARGB32 is B, G, R, A premultiplied in memory on little-endian machines: our
  // own layout, so it draws straight into the buffer, whose 64-byte rows always suit it.
  static_assert(std::endian::native == std::endian::little);
  const int minStride = cairo_format_stride_for_width(CAIRO_FORMAT_ARGB32, width);
  if (minStride <= 0 || buffer->stride() < minStride || buffer->stride() % 4 != 0) return nullptr;
  // A fresh buffer isn't cleared.
  for (int row = 0; row < height; ++row)
    std::memset(buffer->data() + static_cast<size_t>(row) * buffer->stride(), 0,
                static_cast<size_t>(width) * 4);

  const double insetWidth = std::max(width - stroke, 0.0);
  const double insetHeight = std::max(height - stroke, 0.0);
  const double half = std::min(insetWidth, insetHeight) / 2;
  const double r = circle ? half : std::clamp(radius - stroke / 2, 0.0, half);
  const bool ok = drawInto(
      buffer->data(), CAIRO_FORMAT_ARGB32, width, height, buffer->stride(), [&](cairo_t* cr) {
        roundedRectangle(cr, stroke / 2, stroke / 2, insetWidth, insetHeight, r);
        cairo_set_source_rgba(cr, color.r, color.g, color.b, color.a);
        cairo_set_line_width(cr, stroke);
        cairo_stroke(cr);
      });
  if (!ok) return nullptr;
  return buffer;
}

bool usableSize(int width, int height) {
  return width > 1 && height > 1 && width <= kMaxSide && height <= kMaxSide;
}

}  // namespace

std::shared_ptr<const AlphaMask> QvnPiPArt::mask(int width, int height, double radius,
                                                 bool circle) {
  if (!usableSize(width, height)) return nullptr;
  if (std::isnan(radius)) radius = 0;
  std::string key = "m:" + std::to_string(width) + "x" + std::to_string(height) + ":" +
                    std::to_string(wholePart(radius)) + ":" + (circle ? "true" : "false");
  Caches& c = caches();
  if (auto found = lookup(c.masks, key)) return found;
  auto drawn = drawMask(width, height, radius, circle);
  if (drawn) store(c.masks, std::move(key), drawn);
  return drawn;
}

PixelBufferRef QvnPiPArt::border(int width, int height, double radius, double stroke,
                                 OverlayRGBA color, bool circle) {
  if (!usableSize(width, height) || !(stroke > 0.3) || !(color.a > 0.004)) return nullptr;
  if (std::isnan(radius)) radius = 0;
  std::string key = "b:" + std::to_string(width) + "x" + std::to_string(height) + ":" +
                    std::to_string(wholePart(radius)) + ":" +
                    std::to_string(wholePart(stroke * 10)) + ":" + colorText(color) + ":" +
                    (circle ? "true" : "false");
  Caches& c = caches();
  if (auto found = lookup(c.borders, key)) return found;
  auto drawn = drawBorder(width, height, radius, stroke, color, circle);
  if (drawn) store(c.borders, std::move(key), drawn);
  return drawn;
}

void QvnPiPArt::emptyCaches() {
  Caches& c = caches();
  std::lock_guard guard(c.lock);
  c.masks.clear();
  c.borders.clear();
}

}  // namespace qvn
