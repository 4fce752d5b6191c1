#include "video/canvas_painter.h"

#include <pixman.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace qvn {

namespace {

pixman_image_t* wrap(const PixelBuffer& buffer, bool opaque) {
  // BGRA bytes in memory are pixman's a8r8g8b8 on a little-endian machine.
  return pixman_image_create_bits(
      opaque ? PIXMAN_x8r8g8b8 : PIXMAN_a8r8g8b8, buffer.width(), buffer.height(),
      reinterpret_cast<uint32_t*>(const_cast<uint8_t*>(buffer.data())), buffer.stride());
}

pixman_color_t premultiplied(const OverlayRGBA& c) {
  auto channel = [&](double v) { return static_cast<uint16_t>(std::lround(v * c.a * 0xffff)); };
  return {channel(c.r), channel(c.g), channel(c.b),
          static_cast<uint16_t>(std::lround(c.a * 0xffff))};
}

}  // namespace

// The canvas's own wrapper, the wrappers of the pictures drawn lately, and a one-pixel
// mask whose alpha a fade rewrites: pictures come back from their pools tick after tick, so
// after warm-up drawing creates no pixman objects at all.
struct CanvasPainter::Image {
  struct Source {
    const std::uint8_t* data = nullptr;
    int width = 0, height = 0, stride = 0;
    bool opaque = false;
    pixman_image_t* image = nullptr;
  };
  static constexpr size_t kSources = 8;

  pixman_image_t* image = nullptr;
  pixman_image_t* fadeMask = nullptr;
  std::uint32_t fadeAlpha = 0;
  std::array<Source, kSources> sources{};
  size_t nextSource = 0;

  ~Image() {
    for (auto& s : sources)
      if (s.image) pixman_image_unref(s.image);
    if (fadeMask) pixman_image_unref(fadeMask);
    if (image) pixman_image_unref(image);
  }

  // A wrapper is only reused for the same memory with the same layout, which is then the
  // memory of a picture alive right now.
  pixman_image_t* source(const PixelBuffer& picture, bool opaque) {
    for (auto& s : sources)
      if (s.image && s.data == picture.data() && s.width == picture.width() &&
          s.height == picture.height() && s.stride == picture.stride() && s.opaque == opaque)
        return s.image;
    pixman_image_t* made = wrap(picture, opaque);
    if (!made) return nullptr;
    // Edge pixels repeat outward, so a scaled picture's border doesn't fade into the canvas.
    pixman_image_set_repeat(made, PIXMAN_REPEAT_PAD);
    Source& slot = sources[nextSource++ % kSources];
    if (slot.image) pixman_image_unref(slot.image);
    slot = {picture.data(), picture.width(), picture.height(), picture.stride(), opaque, made};
    return made;
  }
};

CanvasPainter::CanvasPainter(PixelBufferRef canvas)
    : canvas_(std::move(canvas)), image_(std::make_unique<Image>()) {
  image_->image = wrap(*canvas_, false);
}

CanvasPainter::~CanvasPainter() = default;
CanvasPainter::CanvasPainter(CanvasPainter&&) noexcept = default;
CanvasPainter& CanvasPainter::operator=(CanvasPainter&&) noexcept = default;

void CanvasPainter::fill(const OverlayRGBA& color) {
  const pixman_color_t c = premultiplied(color);
  const pixman_box32_t box{0, 0, canvas_->width(), canvas_->height()};
  pixman_image_fill_boxes(PIXMAN_OP_SRC, image_->image, &c, 1, &box);
}

void CanvasPainter::draw(const PixelBuffer& picture, const Placement& placement,
                         const PixelRect& clip, bool opaque) {
  if (picture.format() != PixelFormat::bgra || placement.scale <= 0) return;
  // The destination is where the scaled picture lands, limited to the clip and the canvas.
  const double left = std::max({placement.x, clip.x, 0.0});
  const double top = std::max({placement.y, clip.y, 0.0});
  const double right = std::min({placement.x + picture.width() * placement.scale,
                                 clip.x + clip.width, double(canvas_->width())});
  const double bottom = std::min({placement.y + picture.height() * placement.scale,
                                  clip.y + clip.height, double(canvas_->height())});
  const int x0 = static_cast<int>(std::lround(left)), y0 = static_cast<int>(std::lround(top));
  const int x1 = static_cast<int>(std::lround(right)), y1 = static_cast<int>(std::lround(bottom));
  if (x1 <= x0 || y1 <= y0) return;

  pixman_image_t* source = image_->source(picture, opaque);
  if (!source) return;
  // Destination pixel (x, y) samples the picture at ((x - px) / s, (y - py) / s).
  const double inv = 1.0 / placement.scale;
  pixman_transform_t transform;
  pixman_transform_init_identity(&transform);
  transform.matrix[0][0] = pixman_double_to_fixed(inv);
  transform.matrix[1][1] = pixman_double_to_fixed(inv);
  transform.matrix[0][2] = pixman_double_to_fixed(-placement.x * inv);
  transform.matrix[1][2] = pixman_double_to_fixed(-placement.y * inv);
  pixman_image_set_transform(source, &transform);
  const bool unscaled = std::abs(placement.scale - 1.0) < 1e-9 &&
                        placement.x == std::floor(placement.x) &&
                        placement.y == std::floor(placement.y);
  pixman_image_set_filter(source, unscaled ? PIXMAN_FILTER_NEAREST : PIXMAN_FILTER_BILINEAR,
                          nullptr, 0);
  pixman_image_composite32(opaque ? PIXMAN_OP_SRC : PIXMAN_OP_OVER, source, nullptr, image_->image,
                           x0, y0, 0, 0, x0, y0, x1 - x0, y1 - y0);
}

void CanvasPainter::blendOver(const CanvasPainter& other, double alpha, int offsetX) {
  const int width = canvas_->width() - std::max(offsetX, 0);
  if (width <= 0 || alpha <= 0) return;
  pixman_image_t* mask = nullptr;
  if (alpha < 1) {
    if (!image_->fadeMask) {
      image_->fadeMask =
          pixman_image_create_bits(PIXMAN_a8r8g8b8, 1, 1, &image_->fadeAlpha, sizeof(uint32_t));
      pixman_image_set_repeat(image_->fadeMask, PIXMAN_REPEAT_NORMAL);
    }
    image_->fadeAlpha = static_cast<uint32_t>(std::lround(alpha * 255)) << 24;
    mask = image_->fadeMask;
  }
  pixman_image_composite32(PIXMAN_OP_OVER, other.image_->image, mask, image_->image, 0, 0, 0, 0,
                           std::max(offsetX, 0), 0, width, canvas_->height());
}

}  // namespace qvn
