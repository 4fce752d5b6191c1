// What the studio's controls change in the sim's picture: which camera, how far zoomed,
// where focus was set. A plain value, copied between threads.
#pragma once

#include <optional>

namespace qvn {

struct FocusPoint {
  double x = 0.5;  // 0..1 across the picture
  double y = 0.5;  // 0..1 down it
  bool locked = false;
  bool operator==(const FocusPoint&) const = default;
};

struct CameraLook {
  bool back = false;  // the back camera has its own colours and says so in its label
  double zoom = 1;    // into the centre of the scene; the label and frame code stay put
  std::optional<FocusPoint> focus;
  bool operator==(const CameraLook&) const = default;
};

}  // namespace qvn
