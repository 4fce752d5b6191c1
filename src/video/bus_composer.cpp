#include "video/bus_composer.h"

#include "platform/pixel_convert.h"
#include "video/mix_geometry.h"
#include "video/overlay_geometry.h"
#include "video/standby_picture.h"

namespace qvn {

BusComposer::BusComposer(std::shared_ptr<FrameHub> frames) : frames_(std::move(frames)) {}

void BusComposer::compose(CanvasPainter& target, int slot, BusLook& look, double now,
                          Motion motion) {
  drawBackgroundAndSource(target, slot);
  // An inset showing the input already filling the frame is not drawn.
  if (look.pipOn && look.pipSlot >= 1 && look.pipSlot != slot) drawInset(target, look);
  if (!look.overlaysOn || look.layers.empty()) return;
  if (motion == Motion::live) look.dropLeftLayers(now);
  drawLayers(target, look, now, motion);
}

void BusComposer::composeBlend(CanvasPainter& target, CanvasPainter& scratch, Side from, Side to,
                               MixTransition kind, double p, double now) {
  if (p >= 1) {
    compose(target, to.slot, to.look, now, to.motion);
    return;
  }
  compose(target, from.slot, from.look, now, from.motion);
  compose(scratch, to.slot, to.look, now, to.motion);
  if (kind == MixTransition::slide)
    target.blendOver(scratch, 1.0, int((1 - p) * target.canvas()->width()));
  else
    target.blendOver(scratch, p);
}

void BusComposer::drawBackgroundAndSource(CanvasPainter& target, int slot) {
  const PixelRect frame{0, 0, double(target.canvas()->width()), double(target.canvas()->height())};
  if (auto placed = placeSource(slot, frame, std::nullopt))
    target.drawOnBackground(*placed->picture, placed->placement, kMixBackground);
  else
    target.fill(kMixBackground);  // a slot without a picture shows the background
}

std::optional<BusComposer::PlacedSource> BusComposer::placeSource(
    int slot, const PixelRect& frame, std::optional<bool> fillOverride) {
  if (slot < 1) return std::nullopt;
  PixelBufferRef picture = asBGRA(slot, frames_->buffer(slot));
  if (!picture) return std::nullopt;
  const double w = picture->width(), h = picture->height();
  const ImageCrop shown = crops_.shown(slot);
  auto placement =
      fittedPlacement(w, h, frame, shown, fillsFrame(w, h, shown, fillOverride, fill_));
  if (!placement) return std::nullopt;
  return PlacedSource{std::move(picture), *placement};
}

void BusComposer::drawSource(CanvasPainter& target, int slot, const PixelRect& frame,
                             std::optional<bool> fillOverride) {
  if (auto placed = placeSource(slot, frame, fillOverride))
    target.draw(*placed->picture, placed->placement, frame);
}

void BusComposer::drawInset(CanvasPainter& target, const BusLook& look) {
  PixelBufferRef picture = asBGRA(look.pipSlot, frames_->buffer(look.pipSlot));
  if (!picture) return;
  const NormRect r = look.pipLayout.rect(canvas_.width, canvas_.height,
                                         sourceAspect(picture->width(), picture->height()));
  // Too small an inset (4 canvas pixels or less a side) is not drawn.
  if (r.width * canvas_.width <= 4 || r.height * canvas_.height <= 4) return;
  const double tw = target.canvas()->width(), th = target.canvas()->height();
  inset_.paint(target, *picture, look.pipLayout, {r.x * tw, r.y * th, r.width * tw, r.height * th},
               th / 1080.0);
}

void BusComposer::drawLayers(CanvasPainter& target, const BusLook& look, double now,
                             Motion motion) {
  const PixelRect frame{0, 0, double(target.canvas()->width()), double(target.canvas()->height())};
  const double unit = frame.width / canvas_.width;
  for (const OverlayLayer& layer : look.layers) {
    if (layer.opacity <= 0.004 || !layer.image) continue;
    if (motion == Motion::settled && layer.leaving()) continue;
    const bool moving = motion == Motion::live && layer.motion;
    const LayerDraw draw =
        placeOverlay(layer, frame, unit, moving ? layer.motion->kind : QvnOverlayMotion::none,
                     moving ? layer.progress(now) : 1.0);
    drawLayer(target, layer.image, draw);
    for (const OverlaySourceHole& hole : layer.holes)
      if (hole.slot >= 1)
        drawSource(target, hole.slot, sourceHoleRect(layer, hole, frame, unit), true);
  }
}

void BusComposer::drawLayer(CanvasPainter& target, const PixelBufferRef& image,
                            const LayerDraw& draw) {
  // A turned or scaled layer is laid down from its kept turned picture; a wipe cuts the
  // picture before it turns, so a wiping one is turned afresh.
  if (!draw.toCanvas.isTranslation() && draw.keepWidth >= image->width())
    if (const auto turned = turnedLayers_.turned(image, draw.toCanvas); turned.picture) {
      target.drawTransformed(*turned.picture, turned.toCanvas, draw.alpha, turned.picture->width());
      return;
    }
  target.drawTransformed(*image, draw.toCanvas, draw.alpha, draw.keepWidth);
}

// Inputs that deliver 4:2:0 pictures are converted once per new picture into a recycled
// buffer: the same picture drawn on both buses, in an inset or in a hole is converted once.
PixelBufferRef BusComposer::asBGRA(int slot, const PixelBufferRef& picture) {
  if (!picture || picture->format() == PixelFormat::bgra) return picture;
  Conversion& c = conversions_[slot];
  if (c.from == picture) return c.to;
  if (!c.pool) c.pool = std::make_unique<QvnPixelBufferPool>(PixelFormat::bgra, 3);
  auto bgra = c.pool->make(picture->width(), picture->height());
  if (!bgra) return nullptr;
  const bool ok = picture->format() == PixelFormat::nv12 ? nv12ToBGRA(*picture, *bgra)
                                                         : i420ToBGRA(*picture, *bgra);
  c.from = ok ? picture : nullptr;
  c.to = ok ? bgra : nullptr;
  return c.to;
}

}  // namespace qvn
