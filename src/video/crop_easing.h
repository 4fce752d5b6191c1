// The crop of each input: the one asked for and the one drawn, which approaches it by a
// share of the distance on every tick. Owned by the mix queue.
#pragma once

#include <map>

#include "video/mix_types.h"

namespace qvn {

class CropEasing {
 public:
  // Zoom is held to 1..8 and pan to -1..1; the identity crop is not stored. `snap` shows the
  // crop at once instead of easing towards it.
  void setTarget(int slot, ImageCrop crop, bool snap);
  // One tick of easing: 24% of the remaining distance, landing when within 0.002.
  void step();
  // The crop drawn now; the identity when none is set.
  ImageCrop shown(int slot) const;

  static bool isIdentity(const ImageCrop& crop);

 private:
  std::map<int, ImageCrop> target_;
  std::map<int, ImageCrop> shown_;
};

}  // namespace qvn
