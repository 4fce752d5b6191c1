// What a phone's camera says it can do.
#pragma once

namespace qvn {

struct CameraCaps {
  double zoomMin = 1;
  double zoomMax = 10;
  bool hasFocus = true;
  bool hasFlip = true;
  bool operator==(const CameraCaps&) const = default;
};

}  // namespace qvn
