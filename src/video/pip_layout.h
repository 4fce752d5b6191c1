// The inset's geometry and style: a plain value stored with the studio and handed to the mix.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "support/enum_text.h"
#include "video/overlay_rgba.h"

namespace qvn {

enum class QvnPiPAspect { source, wide, classic, square, vertical };
enum class PiPCorner { topLeft, topRight, bottomLeft, bottomRight };

// A rectangle in fractions of the canvas, y down.
struct NormRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  bool operator==(const NormRect&) const = default;
};

// Width over height of a source picture; 16:9 for a source without a usable size (either
// side 1 or less).
double sourceAspect(int width, int height);

struct QvnPiPLayout {
  double x = 0.84;  // centre, fraction of canvas width
  double y = 0.79;  // centre, fraction of canvas height (y down)
  double width = 0.28;
  QvnPiPAspect aspect = QvnPiPAspect::source;
  double rotation = 0;  // degrees
  double opacity = 1;
  double cornerRadius = 0;  // canvas pixels
  double borderWidth = 3;   // canvas pixels
  OverlayRGBA borderColor{1, 1, 1, 0.85};
  double shadowRadius = 0;
  double shadowOpacity = 0;
  bool circle = false;
  double zoom = 1;
  double panX = 0;
  double panY = 0;

  QvnPiPLayout clamped() const;
  // Where the inset lands on a canvas of that many pixels. `sourceAspect` is the slot's own
  // shape, used for `QvnPiPAspect::source`; 0.01 or less means unknown and counts as 16:9.
  NormRect rect(int canvasWidth, int canvasHeight, double sourceAspect) const;
  // The default inset placed in a corner of the canvas.
  static QvnPiPLayout inCorner(PiPCorner corner);

  // JSON with the field names as keys; every key is required, so a stored layout that
  // lacks one is rejected whole.
  std::string toJSON() const;
  static std::optional<QvnPiPLayout> fromJSON(std::string_view json);

  bool operator==(const QvnPiPLayout&) const = default;
};

// The inset that is on air.
struct PiPState {
  bool on = false;
  int slot = 0;
  QvnPiPLayout layout;
  bool operator==(const PiPState&) const = default;
};

template <>
struct EnumTexts<QvnPiPAspect> {
  static constexpr std::array<std::pair<QvnPiPAspect, std::string_view>, 5> table{{
      {QvnPiPAspect::source, "source"},
      {QvnPiPAspect::wide, "wide"},
      {QvnPiPAspect::classic, "classic"},
      {QvnPiPAspect::square, "square"},
      {QvnPiPAspect::vertical, "vertical"},
  }};
};

template <>
struct EnumTexts<PiPCorner> {
  static constexpr std::array<std::pair<PiPCorner, std::string_view>, 4> table{{
      {PiPCorner::topLeft, "topLeft"},
      {PiPCorner::topRight, "topRight"},
      {PiPCorner::bottomLeft, "bottomLeft"},
      {PiPCorner::bottomRight, "bottomRight"},
  }};
};

}  // namespace qvn
