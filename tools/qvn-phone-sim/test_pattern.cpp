#include "test_pattern.h"

#include <pango/pangocairo.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "frame_code.h"
#include "platform/pixel_convert.h"

namespace qvn {
namespace {

struct YUV {
  std::uint8_t y, u, v;
};

// 75% bars in BT.709 limited range: white, yellow, cyan, green, magenta, red, blue.
constexpr YUV kBars[] = {{180, 128, 128}, {168, 44, 136}, {145, 147, 44}, {133, 63, 52},
                         {63, 193, 204},  {51, 109, 212}, {28, 212, 120}};
constexpr int kBarCount = 7;
constexpr YUV kBlack = {16, 128, 128};
constexpr YUV kWhite = {235, 128, 128};
constexpr YUV kYellow = {210, 16, 146};
constexpr double kBarsEnd = 0.7;   // of the scene's height; the ramp is below
constexpr double kBoxHalf = 0.12;  // of the picture's shorter side

// Where pixel `at` of `size` falls in the scene, 0..1 unzoomed, zooming into the centre.
double sceneAt(int at, int size, double zoom) {
  return 0.5 + ((at + 0.5) / size - 0.5) / zoom;
}

int even(double v) {
  return int(std::lround(v)) & ~1;
}

void fillRect(PixelBuffer& p, int left, int top, int right, int bottom, YUV colour) {
  left = std::max(left, 0);
  top = std::max(top, 0);
  right = std::min(right, p.width());
  bottom = std::min(bottom, p.height());
  if (right <= left || bottom <= top) return;
  for (int y = top; y < bottom; ++y)
    std::memset(p.data(0) + y * p.stride(0) + left, colour.y, size_t(right - left));
  for (int y = top / 2; y < (bottom + 1) / 2; ++y) {
    std::memset(p.data(1) + y * p.stride(1) + left / 2, colour.u,
                size_t((right + 1) / 2 - left / 2));
    std::memset(p.data(2) + y * p.stride(2) + left / 2, colour.v,
                size_t((right + 1) / 2 - left / 2));
  }
}

// White text on a dark box, in I420 of even size; none when Pango can't lay it out.
PixelBufferRef renderLabel(const std::string& text, int fontPixels) {
  cairo_surface_t* probe = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 1, 1);
  cairo_t* probeContext = cairo_create(probe);
  PangoLayout* layout = pango_cairo_create_layout(probeContext);
  PangoFontDescription* font = pango_font_description_from_string("Sans Bold");
  pango_font_description_set_absolute_size(font, fontPixels * PANGO_SCALE);
  pango_layout_set_font_description(layout, font);
  pango_font_description_free(font);
  pango_layout_set_text(layout, text.c_str(), -1);
  int textWidth = 0, textHeight = 0;
  pango_layout_get_pixel_size(layout, &textWidth, &textHeight);
  const int pad = fontPixels / 3;
  auto bgra = PixelBuffer::make(PixelFormat::bgra, (textWidth + 2 * pad + 1) & ~1,
                                (textHeight + 2 * pad + 1) & ~1);
  PixelBufferRef label;
  if (bgra) {
    cairo_surface_t* surface = cairo_image_surface_create_for_data(
        bgra->data(), CAIRO_FORMAT_ARGB32, bgra->width(), bgra->height(), bgra->stride());
    cairo_t* context = cairo_create(surface);
    cairo_set_source_rgb(context, 0.1, 0.1, 0.12);
    cairo_paint(context);
    cairo_set_source_rgb(context, 1, 1, 1);
    cairo_move_to(context, pad, pad);
    pango_cairo_update_layout(context, layout);
    pango_cairo_show_layout(context, layout);
    cairo_destroy(context);
    cairo_surface_flush(surface);
    cairo_surface_destroy(surface);
    label = PixelBuffer::make(PixelFormat::i420, bgra->width(), bgra->height());
    if (label && !bgraToI420(*bgra, *label)) label.reset();
  }
  g_object_unref(layout);
  cairo_destroy(probeContext);
  cairo_surface_destroy(probe);
  return label;
}

}  // namespace

TestPattern::TestPattern(std::string name) : name_(std::move(name)) {}
TestPattern::~TestPattern() = default;

void TestPattern::prepare(const PixelBuffer& picture, const CameraLook& look) {
  const int width = picture.width();
  if (width == preparedWidth_ && look.back == preparedLook_.back && look.zoom == preparedLook_.zoom)
    return;
  preparedWidth_ = width;
  preparedLook_ = look;
  barY_.resize(size_t(width));
  rampY_.resize(size_t(width));
  barU_.resize(size_t(width / 2));
  barV_.resize(size_t(width / 2));
  for (int x = 0; x < width; ++x) {
    // Bars change on even columns, where the chroma pairs change too.
    const double u = std::clamp(sceneAt(x & ~1, width, look.zoom), 0.0, 1.0);
    int bar = std::min(int(u * kBarCount), kBarCount - 1);
    if (look.back) bar = kBarCount - 1 - bar;
    barY_[size_t(x)] = kBars[bar].y;
    if (x % 2 == 0) {
      barU_[size_t(x / 2)] = kBars[bar].u;
      barV_[size_t(x / 2)] = kBars[bar].v;
    }
    rampY_[size_t(x)] = std::uint8_t(16 + std::lround(219 * (look.back ? 1 - u : u)));
  }
}

void TestPattern::draw(PixelBuffer& p, double phase, std::uint32_t code, const CameraLook& look) {
  prepare(p, look);
  const size_t width = size_t(p.width());
  for (int y = 0; y < p.height(); ++y)
    std::memcpy(p.data(0) + y * p.stride(0),
                sceneAt(y, p.height(), look.zoom) < kBarsEnd ? barY_.data() : rampY_.data(), width);
  for (int y = 0; y < p.planeHeight(1); ++y) {
    const bool bars = sceneAt(2 * y, p.height(), look.zoom) < kBarsEnd;
    if (bars) {
      std::memcpy(p.data(1) + y * p.stride(1), barU_.data(), width / 2);
      std::memcpy(p.data(2) + y * p.stride(2), barV_.data(), width / 2);
    } else {
      std::memset(p.data(1) + y * p.stride(1), 128, width / 2);
      std::memset(p.data(2) + y * p.stride(2), 128, width / 2);
    }
  }
  drawBox(p, phase, look.zoom);
  if (look.focus) drawFocus(p, *look.focus);
  drawLabel(p, look);
  drawFrameCode(p, code);
}

void TestPattern::drawBox(PixelBuffer& p, double phase, double zoom) {
  const double across = phase < 0.5 ? 2 * phase : 2 - 2 * phase;
  const double x = p.width() * (0.5 + (0.1 + 0.8 * across - 0.5) * zoom);
  const double y = p.height() * (0.5 + (0.4 - 0.5) * zoom);
  const double half = kBoxHalf * std::min(p.width(), p.height()) * zoom;
  fillRect(p, int(x - half), int(y - half), int(x + half), int(y + half), kBlack);
  const double inner = half * 0.7;
  fillRect(p, int(x - inner), int(y - inner), int(x + inner), int(y + inner), kWhite);
}

void TestPattern::drawFocus(PixelBuffer& p, const FocusPoint& focus) {
  const int x = int(focus.x * p.width()), y = int(focus.y * p.height());
  const int half = std::max(8, p.height() / 16);
  const int line = std::max(2, p.height() / 180);
  const YUV colour = focus.locked ? kYellow : kWhite;
  fillRect(p, x - half, y - half, x + half, y - half + line, colour);
  fillRect(p, x - half, y + half - line, x + half, y + half, colour);
  fillRect(p, x - half, y - half, x - half + line, y + half, colour);
  fillRect(p, x + half - line, y - half, x + half, y + half, colour);
}

void TestPattern::drawLabel(PixelBuffer& p, const CameraLook& look) {
  std::string text = name_ + "  ·  " + (look.back ? "BACK" : "FRONT");
  if (look.zoom != 1) {
    char zoom[32];
    std::snprintf(zoom, sizeof zoom, "  ·  %.1f×", look.zoom);
    text += zoom;
  }
  const int fontSize = std::max(12, std::min(p.width(), p.height()) / 20);
  if (text != labelText_ || fontSize != labelFontSize_) {
    label_ = renderLabel(text, fontSize);
    labelText_ = text;
    labelFontSize_ = fontSize;
  }
  if (!label_) return;
  const int left = even(p.height() / 40.0);
  const int top = even(p.height() - label_->height() - p.height() / 40.0);
  if (top < 0) return;
  for (int plane = 0; plane < 3; ++plane) {
    const int shift = plane == 0 ? 0 : 1;
    const int columns = std::min(label_->planeWidth(plane), p.planeWidth(plane) - (left >> shift));
    for (int y = 0; y < label_->planeHeight(plane); ++y)
      if (columns > 0)
        std::memcpy(p.data(plane) + ((top >> shift) + y) * p.stride(plane) + (left >> shift),
                    label_->data(plane) + y * label_->stride(plane), size_t(columns));
  }
}

}  // namespace qvn
