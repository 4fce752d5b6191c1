// A straight (not premultiplied) colour with components 0 to 1, as stored in documents.
#pragma once

namespace qvn {

struct OverlayRGBA {
  double r = 1.0;
  double g = 1.0;
  double b = 1.0;
  double a = 1.0;
  bool operator==(const OverlayRGBA&) const = default;
};

}  // namespace qvn
