// Where a picture lands on the canvas: the pure geometry of fitting, filling, zoom and pan.
// Canvas pixels with y down.
#pragma once

#include <optional>

#include "video/mix_types.h"

namespace qvn {

struct PixelRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;
  bool operator==(const PixelRect&) const = default;
};

// A picture drawn at `scale` with its top-left corner at (x, y).
struct Placement {
  double scale = 1;
  double x = 0;
  double y = 0;
  bool operator==(const Placement&) const = default;
};

// A picture's pixels to canvas pixels, both y down: x' = a·x + c·y + tx, y' = b·x + d·y + ty.
struct Affine {
  double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;

  // Turned `degrees` clockwise on screen about the origin, then moved by (dx, dy).
  static Affine rotated(double degrees, double dx = 0, double dy = 0);
  Affine then(const Affine& next) const;
  Affine inverted() const;
  void apply(double x, double y, double& outX, double& outY) const;
  bool isTranslation() const { return a == 1 && b == 0 && c == 0 && d == 1; }
};

// Whether a picture fills its frame (cut at the edges) rather than fits it (bars beside it).
// `fillOverride` forces filling when true; absent, the engine's fill setting fills pictures
// that are not portrait (height at most 1.02 times the width). A crop in use always fills.
bool fillsFrame(double width, double height, const ImageCrop& crop,
                std::optional<bool> fillOverride, bool engineFill);

// The placement of a width×height picture in `frame`; none for a picture of 1 pixel or
// less on a side, which is passed through unplaced. Pan is relative: 1 moves the picture by
// half of what overflows the frame; a positive panX moves it right, a positive panY up.
std::optional<Placement> fittedPlacement(double width, double height, const PixelRect& frame,
                                         const ImageCrop& crop, bool fill);

// The Preview picture's size for a canvas: the canvas itself when asked for or when it is
// at most 1920×1080, else scaled into 1920×1080 with even sides.
struct PixelSize {
  int width = 0;
  int height = 0;
  bool operator==(const PixelSize&) const = default;
};
PixelSize previewSize(int canvasWidth, int canvasHeight, bool fullSize);

}  // namespace qvn
