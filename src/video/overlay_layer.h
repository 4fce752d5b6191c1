// Finished overlay layers as the mix draws them, and how they enter and leave: plain values
// built by the overlay store and copied onto the mix queue.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/pixel_buffer.h"
#include "support/enum_text.h"
#include "video/pip_layout.h"

namespace qvn {

enum class QvnOverlayMotion { none, fade, slideLeft, slideRight, slideUp, slideDown, scale, wipe };

// A point in fractions of the canvas, y down.
struct NormPoint {
  double x = 0.5;
  double y = 0.5;
  bool operator==(const NormPoint&) const = default;
};

// A running entrance or exit, on the media clock.
struct OverlayMotion {
  QvnOverlayMotion kind = QvnOverlayMotion::none;
  double duration = 0;
  double started = 0;
  bool outgoing = false;

  // 0 (gone) to 1 (in place) at `now`, smoothstepped over the duration held to 0.15..1 s.
  double progress(double now) const;
  // An exit that has run its course: the layer leaves its look.
  bool hasLeft(double now) const;
};

// A place in a layer where a live input shows through.
struct OverlaySourceHole {
  int slot = 0;
  NormRect norm;      // fractions of the layer picture, y down
  double border = 0;  // canvas pixels kept clear of the picture on every side
};

struct OverlayLayer {
  std::string id;
  PixelBufferRef image;  // BGRA premultiplied, canvas pixel scale; never written once handed over
  NormPoint center;
  double rotation = 0;  // degrees, clockwise on screen
  double opacity = 1;
  QvnOverlayMotion motionIn = QvnOverlayMotion::none;
  QvnOverlayMotion motionOut = QvnOverlayMotion::none;
  double motionDuration = 0;
  std::optional<OverlayMotion> motion;
  std::vector<OverlaySourceHole> holes;
  int generation = 0;  // changes when new content should play the entrance again

  // Eased progress of the layer's motion at `now`; 1 at rest.
  double progress(double now) const { return motion ? motion->progress(now) : 1.0; }
  bool leaving() const { return motion && motion->outgoing; }
};

// A move of a layer without a new picture.
struct OverlayPlacement {
  std::string id;
  NormPoint center;
  double rotation = 0;
  double opacity = 1;
};

template <>
struct EnumTexts<QvnOverlayMotion> {
  static constexpr std::array<std::pair<QvnOverlayMotion, std::string_view>, 8> table{{
      {QvnOverlayMotion::none, "none"},
      {QvnOverlayMotion::fade, "fade"},
      {QvnOverlayMotion::slideLeft, "slideLeft"},
      {QvnOverlayMotion::slideRight, "slideRight"},
      {QvnOverlayMotion::slideUp, "slideUp"},
      {QvnOverlayMotion::slideDown, "slideDown"},
      {QvnOverlayMotion::scale, "scale"},
      {QvnOverlayMotion::wipe, "wipe"},
  }};
};

}  // namespace qvn
