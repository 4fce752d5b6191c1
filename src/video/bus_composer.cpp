#include "video/bus_composer.h"

#include "platform/pixel_convert.h"
#include "video/mix_geometry.h"
#include "video/standby_picture.h"

namespace qvn {

BusComposer::BusComposer(std::shared_ptr<FrameHub> frames) : frames_(std::move(frames)) {}

// Composes a bus straight at the target's size: the background, then the source fitted.
void BusComposer::compose(CanvasPainter& target, int slot, const BusLook&) {
  target.fill(kMixBackground);
  const auto& canvas = *target.canvas();
  if (slot >= 1)
    drawSource(target, slot, {0, 0, double(canvas.width()), double(canvas.height())}, std::nullopt);
}

void BusComposer::drawSource(CanvasPainter& target, int slot, const PixelRect& frame,
                             std::optional<bool> fillOverride) {
  PixelBufferRef picture = asBGRA(slot, frames_->buffer(slot));
  if (!picture) return;
  const double w = picture->width(), h = picture->height();
  auto crop = crops_.find(slot);
  const ImageCrop shown = crop == crops_.end() ? ImageCrop{} : crop->second;
  const bool fill = fillsFrame(w, h, shown, fillOverride, fill_);
  auto placement = fittedPlacement(w, h, frame, shown, fill);
  if (!placement) return;
  target.draw(*picture, *placement, frame, false);
}

// Inputs that deliver 4:2:0 pictures are converted once per tick into a recycled buffer.
PixelBufferRef BusComposer::asBGRA(int slot, const PixelBufferRef& picture) {
  if (!picture || picture->format() == PixelFormat::bgra) return picture;
  auto& pool = conversionPools_[slot];
  if (!pool) pool = std::make_unique<QvnPixelBufferPool>(PixelFormat::bgra, 3);
  auto bgra = pool->make(picture->width(), picture->height());
  if (!bgra) return nullptr;
  const bool ok = picture->format() == PixelFormat::nv12 ? nv12ToBGRA(*picture, *bgra)
                                                         : i420ToBGRA(*picture, *bgra);
  return ok ? bgra : nullptr;
}

}  // namespace qvn
