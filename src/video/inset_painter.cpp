#include "video/inset_painter.h"

#include <algorithm>
#include <cmath>

#include "video/pip_art.h"

namespace qvn {

bool InsetPainter::Art::matches(const Art& o) const {
  return width == o.width && height == o.height && radius == o.radius && stroke == o.stroke &&
         shadow == o.shadow && circle == o.circle && color == o.color;
}

const InsetPainter::Art& InsetPainter::art(const Art& wanted, bool shaped) {
  for (const Art& kept : arts_)
    if (kept.width > 0 && kept.matches(wanted)) return kept;
  Art& made = arts_[nextArt_++ % kKept];
  made = wanted;
  if (shaped)
    made.mask = QvnPiPArt::mask(wanted.width, wanted.height, wanted.radius, wanted.circle);
  made.border = QvnPiPArt::border(wanted.width, wanted.height, wanted.radius, wanted.stroke,
                                  wanted.color, wanted.circle);
  if (wanted.shadow > 0) {
    // A shadow needs the shape even when the inset is a plain rectangle.
    auto shape = made.mask
                     ? made.mask
                     : QvnPiPArt::mask(wanted.width, wanted.height, wanted.radius, wanted.circle);
    if (shape) made.shadowMask = std::make_shared<AlphaMask>(blurred(*shape, wanted.shadow));
  }
  return made;
}

CanvasPainter* InsetPainter::scratch(int width, int height) {
  for (auto& kept : scratches_)
    if (kept && kept->canvas()->width() == width && kept->canvas()->height() == height)
      return kept.get();
  auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height);
  if (!buffer) return nullptr;
  auto& place = scratches_[nextScratch_++ % kKept];
  place = std::make_unique<CanvasPainter>(std::move(buffer));
  return place.get();
}

void InsetPainter::paint(CanvasPainter& target, const PixelBuffer& picture,
                         const QvnPiPLayout& layout, const PixelRect& rect, double unit) {
  const int iw = static_cast<int>(std::lround(rect.width));
  const int ih = static_cast<int>(std::lround(rect.height));
  CanvasPainter* inset = scratch(iw, ih);
  if (!inset) return;

  // The source always fills the inset, with the layout's own zoom and pan.
  const ImageCrop crop{std::clamp(layout.zoom, 1.0, 8.0), std::clamp(layout.panX, -1.0, 1.0),
                       std::clamp(layout.panY, -1.0, 1.0)};
  const PixelRect frame{0, 0, double(iw), double(ih)};
  auto placement = fittedPlacement(picture.width(), picture.height(), frame, crop, true);
  if (!placement) return;
  inset->clear();
  inset->draw(picture, *placement, frame);

  const double radius = unit * layout.cornerRadius;
  const bool shaped = layout.circle || radius > 0.5;
  const bool shadowed = layout.shadowRadius > 0.5 && layout.shadowOpacity > 0.004;
  const Art& looks =
      art({iw, ih, radius, unit * layout.borderWidth, shadowed ? unit * layout.shadowRadius : 0,
           layout.circle, layout.borderColor, nullptr, nullptr, nullptr},
          shaped);
  if (looks.mask) inset->keepInside(*looks.mask);
  if (looks.shadowMask) {
    const int margin = blurMargin(looks.shadow);
    target.drawCoverage(*looks.shadowMask, int(std::lround(rect.x)) - margin,
                        int(std::lround(rect.y + 0.35 * looks.shadow)) - margin,
                        {0, 0, 0, layout.shadowOpacity});
  }
  if (looks.border) inset->draw(*looks.border, {1, 0, 0}, frame);

  // Fade and turn take inset and frame together, never the shadow.
  const double alpha = layout.opacity < 0.999 ? std::max(layout.opacity, 0.0) : 1.0;
  Affine toCanvas{1, 0, 0, 1, std::round(rect.x), std::round(rect.y)};
  if (std::abs(layout.rotation) > 0.01)
    toCanvas = Affine{1, 0, 0, 1, -iw / 2.0, -ih / 2.0}.then(
        Affine::rotated(layout.rotation, rect.x + rect.width / 2, rect.y + rect.height / 2));
  target.drawTransformed(*inset->canvas(), toCanvas, alpha, iw);
}

}  // namespace qvn
