#include "video/canvas_painter.h"

#include <pixman.h>

#include "platform/bgra_scaler.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace qvn {

namespace {

pixman_image_t* wrap(const PixelBuffer& buffer) {
  // BGRA bytes in memory are pixman's a8r8g8b8 on a little-endian machine.
  return pixman_image_create_bits(PIXMAN_a8r8g8b8, buffer.width(), buffer.height(),
                                  reinterpret_cast<uint32_t*>(const_cast<uint8_t*>(buffer.data())),
                                  buffer.stride());
}

pixman_transform_t pixmanTransform(const Affine& m) {
  pixman_transform_t t;
  pixman_transform_init_identity(&t);
  t.matrix[0][0] = pixman_double_to_fixed(m.a);
  t.matrix[0][1] = pixman_double_to_fixed(m.c);
  t.matrix[0][2] = pixman_double_to_fixed(m.tx);
  t.matrix[1][0] = pixman_double_to_fixed(m.b);
  t.matrix[1][1] = pixman_double_to_fixed(m.d);
  t.matrix[1][2] = pixman_double_to_fixed(m.ty);
  return t;
}

// Destination pixels a picture of that size covers through `m`, limited to the canvas.
pixman_box32_t coveredBox(double width, double height, const Affine& m, int canvasW, int canvasH) {
  double minX = 1e18, minY = 1e18, maxX = -1e18, maxY = -1e18;
  for (auto [x, y] : {std::pair{0.0, 0.0}, {width, 0.0}, {0.0, height}, {width, height}}) {
    double cx, cy;
    m.apply(x, y, cx, cy);
    minX = std::min(minX, cx), maxX = std::max(maxX, cx);
    minY = std::min(minY, cy), maxY = std::max(maxY, cy);
  }
  auto clampTo = [](double v, int limit) {
    return static_cast<int32_t>(std::clamp(v, 0.0, double(limit)));
  };
  return {clampTo(std::floor(minX), canvasW), clampTo(std::floor(minY), canvasH),
          clampTo(std::ceil(maxX), canvasW), clampTo(std::ceil(maxY), canvasH)};
}

pixman_color_t premultiplied(const OverlayRGBA& c) {
  auto channel = [&](double v) { return static_cast<uint16_t>(std::lround(v * c.a * 0xffff)); };
  return {channel(c.r), channel(c.g), channel(c.b),
          static_cast<uint16_t>(std::lround(c.a * 0xffff))};
}

// The same colour as one BGRA pixel in memory.
std::uint32_t pixelOf(const OverlayRGBA& colour) {
  const pixman_color_t c = premultiplied(colour);
  return uint32_t(c.alpha >> 8) << 24 | uint32_t(c.red >> 8) << 16 | uint32_t(c.green >> 8) << 8 |
         uint32_t(c.blue >> 8);
}

}  // namespace

// The canvas's own wrapper, the wrappers of the pictures drawn lately, and a one-pixel
// mask whose alpha a fade rewrites: pictures come back from their pools tick after tick, so
// after warm-up drawing creates no pixman objects at all.
struct CanvasPainter::Image {
  struct Source {
    const std::uint8_t* data = nullptr;
    int width = 0, height = 0, stride = 0;
    pixman_format_code_t format = PIXMAN_a8r8g8b8;
    pixman_image_t* image = nullptr;
  };
  static constexpr size_t kSources = 16;
  // The widest picture a wipe can cut; wider ones are drawn whole.
  static constexpr int kWipeRow = 8192;

  pixman_image_t* image = nullptr;
  pixman_image_t* fadeMask = nullptr;
  std::uint32_t fadeAlpha = 0;
  pixman_image_t* solidPixel = nullptr;
  std::uint32_t solidValue = 0;
  // One row of coverage per picture column, stretched over every row: a wipe with alpha.
  pixman_image_t* wipeMask = nullptr;
  std::array<std::uint8_t, kWipeRow> wipeRow{};
  BGRAScaler scaler;
  std::array<Source, kSources> sources{};
  size_t nextSource = 0;

  ~Image() {
    for (auto& s : sources)
      if (s.image) pixman_image_unref(s.image);
    if (fadeMask) pixman_image_unref(fadeMask);
    if (wipeMask) pixman_image_unref(wipeMask);
    if (solidPixel) pixman_image_unref(solidPixel);
    if (image) pixman_image_unref(image);
  }

  // A wrapper is only reused for the same memory with the same layout, which is then the
  // memory of a picture alive right now.
  pixman_image_t* source(const PixelBuffer& picture) {
    return cached(picture.data(), picture.width(), picture.height(), picture.stride(),
                  PIXMAN_a8r8g8b8);
  }
  pixman_image_t* source(const AlphaMask& mask) {
    return cached(mask.alpha.data(), mask.width, mask.height, mask.stride, PIXMAN_a8);
  }

  pixman_image_t* cached(const std::uint8_t* data, int width, int height, int stride,
                         pixman_format_code_t format) {
    for (auto& s : sources)
      if (s.image && s.data == data && s.width == width && s.height == height &&
          s.stride == stride && s.format == format)
        return s.image;
    pixman_image_t* made = pixman_image_create_bits(
        format, width, height, reinterpret_cast<uint32_t*>(const_cast<uint8_t*>(data)), stride);
    if (!made) return nullptr;
    Source& slot = sources[nextSource++ % kSources];
    if (slot.image) pixman_image_unref(slot.image);
    slot = {data, width, height, stride, format, made};
    return made;
  }

  // A one-pixel picture of `color`, repeated everywhere.
  pixman_image_t* solid(const OverlayRGBA& color) {
    if (!solidPixel) {
      solidPixel = pixman_image_create_bits(PIXMAN_a8r8g8b8, 1, 1, &solidValue, sizeof(uint32_t));
      pixman_image_set_repeat(solidPixel, PIXMAN_REPEAT_NORMAL);
    }
    solidValue = pixelOf(color);
    return solidPixel;
  }

  pixman_image_t* fade(double alpha) {
    if (!fadeMask) {
      fadeMask = pixman_image_create_bits(PIXMAN_a8r8g8b8, 1, 1, &fadeAlpha, sizeof(uint32_t));
      pixman_image_set_repeat(fadeMask, PIXMAN_REPEAT_NORMAL);
    }
    fadeAlpha = static_cast<uint32_t>(std::lround(std::clamp(alpha, 0.0, 1.0) * 255)) << 24;
    return fadeMask;
  }

  // The wipe row for a picture `width` wide keeping `keep` columns at `alpha`.
  pixman_image_t* wipe(int width, double keep, double alpha) {
    if (!wipeMask) {
      wipeMask = pixman_image_create_bits(PIXMAN_a8, kWipeRow, 1,
                                          reinterpret_cast<uint32_t*>(wipeRow.data()), kWipeRow);
      if (!wipeMask) return nullptr;
      pixman_image_set_repeat(wipeMask, PIXMAN_REPEAT_PAD);
    }
    const double level = std::clamp(alpha, 0.0, 1.0) * 255;
    for (int x = 0; x < std::min(width, kWipeRow); ++x) {
      const double covered = std::clamp(keep - x, 0.0, 1.0);  // the cut column is partial
      wipeRow[size_t(x)] = static_cast<std::uint8_t>(std::lround(level * covered));
    }
    return wipeMask;
  }
};

CanvasPainter::CanvasPainter(PixelBufferRef canvas)
    : canvas_(std::move(canvas)), image_(std::make_unique<Image>()) {
  image_->image = wrap(*canvas_);
}

CanvasPainter::~CanvasPainter() = default;
CanvasPainter::CanvasPainter(CanvasPainter&&) noexcept = default;
CanvasPainter& CanvasPainter::operator=(CanvasPainter&&) noexcept = default;

void CanvasPainter::fill(const OverlayRGBA& color) {
  const pixman_color_t c = premultiplied(color);
  const pixman_box32_t box{0, 0, canvas_->width(), canvas_->height()};
  pixman_image_fill_boxes(PIXMAN_OP_SRC, image_->image, &c, 1, &box);
}

namespace {

// Target pixels a scaled picture covers, limited to the clip and the canvas.
BGRAScaler::Box landing(const PixelBuffer& picture, const Placement& p, const PixelRect& clip,
                        const PixelBuffer& canvas) {
  const double left = std::max({p.x, clip.x, 0.0});
  const double top = std::max({p.y, clip.y, 0.0});
  const double right =
      std::min({p.x + picture.width() * p.scale, clip.x + clip.width, double(canvas.width())});
  const double bottom =
      std::min({p.y + picture.height() * p.scale, clip.y + clip.height, double(canvas.height())});
  return {int(std::lround(left)), int(std::lround(top)), int(std::lround(right)),
          int(std::lround(bottom))};
}

}  // namespace

void CanvasPainter::draw(const PixelBuffer& picture, const Placement& placement,
                         const PixelRect& clip) {
  if (placement.scale <= 0) return;
  image_->scaler.draw(picture, *canvas_, {placement.scale, placement.x},
                      {placement.scale, placement.y}, landing(picture, placement, clip, *canvas_),
                      BGRAScaler::Mode::over);
}

void CanvasPainter::drawOnBackground(const PixelBuffer& picture, const Placement& placement,
                                     const OverlayRGBA& background) {
  const int w = canvas_->width(), h = canvas_->height();
  BGRAScaler::Box box = landing(picture, placement, {0, 0, double(w), double(h)}, *canvas_);
  if (placement.scale <= 0 || box.right <= box.left || box.bottom <= box.top) box = {0, 0, 0, 0};
  // The bars beside and above the picture; the picture paints the rest.
  const pixman_color_t c = premultiplied(background);
  const pixman_box32_t bars[] = {{0, 0, w, box.top},
                                 {0, box.bottom, w, h},
                                 {0, box.top, box.left, box.bottom},
                                 {box.right, box.top, w, box.bottom}};
  // One box a call: several at once would build a region on the heap.
  for (const pixman_box32_t& bar : bars)
    if (bar.x2 > bar.x1 && bar.y2 > bar.y1)
      pixman_image_fill_boxes(PIXMAN_OP_SRC, image_->image, &c, 1, &bar);
  if (box.right > box.left)
    image_->scaler.draw(picture, *canvas_, {placement.scale, placement.x},
                        {placement.scale, placement.y}, box, BGRAScaler::Mode::overColour,
                        pixelOf(background));
}

void CanvasPainter::clear() {
  const pixman_color_t none{0, 0, 0, 0};
  const pixman_box32_t box{0, 0, canvas_->width(), canvas_->height()};
  pixman_image_fill_boxes(PIXMAN_OP_SRC, image_->image, &none, 1, &box);
}

void CanvasPainter::drawTransformed(const PixelBuffer& picture, const Affine& toCanvas,
                                    double alpha, double keepWidth) {
  if (picture.format() != PixelFormat::bgra || alpha <= 0 || keepWidth <= 0) return;
  const pixman_box32_t box =
      coveredBox(picture.width(), picture.height(), toCanvas, canvas_->width(), canvas_->height());
  if (box.x2 <= box.x1 || box.y2 <= box.y1) return;
  pixman_image_t* source = image_->source(picture);
  if (!source) return;
  const pixman_transform_t transform = pixmanTransform(toCanvas.inverted());
  pixman_image_set_transform(source, &transform);
  pixman_image_set_repeat(source, PIXMAN_REPEAT_NONE);
  const bool whole = toCanvas.isTranslation() && toCanvas.tx == std::floor(toCanvas.tx) &&
                     toCanvas.ty == std::floor(toCanvas.ty);
  pixman_image_set_filter(source, whole ? PIXMAN_FILTER_NEAREST : PIXMAN_FILTER_BILINEAR, nullptr,
                          0);
  pixman_image_t* mask = nullptr;
  if (keepWidth < picture.width() && picture.width() <= Image::kWipeRow)
    mask = image_->wipe(picture.width(), keepWidth, alpha);
  if (mask) {
    pixman_image_set_transform(mask, &transform);
    pixman_image_set_filter(mask, PIXMAN_FILTER_NEAREST, nullptr, 0);
  } else if (alpha < 0.999) {
    mask = image_->fade(alpha);
  }
  pixman_image_composite32(PIXMAN_OP_OVER, source, mask, image_->image, box.x1, box.y1, box.x1,
                           box.y1, box.x1, box.y1, box.x2 - box.x1, box.y2 - box.y1);
}

void CanvasPainter::drawCoverage(const AlphaMask& mask, int x, int y, const OverlayRGBA& color) {
  if (mask.width <= 0 || mask.height <= 0 || color.a <= 0) return;
  pixman_image_t* coverage = image_->source(mask);
  if (!coverage) return;
  pixman_image_set_transform(coverage, nullptr);
  pixman_image_set_repeat(coverage, PIXMAN_REPEAT_NONE);
  pixman_image_set_filter(coverage, PIXMAN_FILTER_NEAREST, nullptr, 0);
  pixman_image_composite32(PIXMAN_OP_OVER, image_->solid(color), coverage, image_->image, 0, 0, 0,
                           0, x, y, mask.width, mask.height);
}

void CanvasPainter::keepInside(const AlphaMask& mask) {
  pixman_image_t* coverage = image_->source(mask);
  if (!coverage) return;
  pixman_image_set_transform(coverage, nullptr);
  pixman_image_set_repeat(coverage, PIXMAN_REPEAT_NONE);
  pixman_image_set_filter(coverage, PIXMAN_FILTER_NEAREST, nullptr, 0);
  pixman_image_composite32(PIXMAN_OP_IN_REVERSE, coverage, nullptr, image_->image, 0, 0, 0, 0, 0, 0,
                           canvas_->width(), canvas_->height());
}

void CanvasPainter::blendOver(const CanvasPainter& other, double alpha, int offsetX) {
  const int width = canvas_->width() - std::max(offsetX, 0);
  if (width <= 0 || alpha <= 0) return;
  pixman_image_t* mask = alpha < 1 ? image_->fade(alpha) : nullptr;
  pixman_image_composite32(PIXMAN_OP_OVER, other.image_->image, mask, image_->image, 0, 0, 0, 0,
                           std::max(offsetX, 0), 0, width, canvas_->height());
}

}  // namespace qvn
