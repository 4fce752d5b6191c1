#include "video/crop_easing.h"

#include <algorithm>
#include <cmath>
#include <iterator>

namespace qvn {

namespace {

ImageCrop cropOr(const std::map<int, ImageCrop>& crops, int slot) {
  auto it = crops.find(slot);
  return it == crops.end() ? ImageCrop{} : it->second;
}

}  // namespace

bool CropEasing::isIdentity(const ImageCrop& crop) {
  return crop.zoom <= 1.0005 && std::abs(crop.panX) < 0.0005 && std::abs(crop.panY) < 0.0005;
}

void CropEasing::setTarget(int slot, ImageCrop crop, bool snap) {
  crop.zoom = std::clamp(crop.zoom, 1.0, 8.0);
  crop.panX = std::clamp(crop.panX, -1.0, 1.0);
  crop.panY = std::clamp(crop.panY, -1.0, 1.0);
  if (isIdentity(crop)) {
    target_.erase(slot);
    if (snap) shown_.erase(slot);
    return;
  }
  target_[slot] = crop;
  if (snap) shown_[slot] = crop;
}

void CropEasing::step() {
  auto approach = [](const ImageCrop& s, const ImageCrop& t) {
    auto near = [](double from, double to) { return from + (to - from) * 0.24; };
    ImageCrop n{near(s.zoom, t.zoom), near(s.panX, t.panX), near(s.panY, t.panY)};
    const bool landed = std::abs(n.zoom - t.zoom) < 0.002 && std::abs(n.panX - t.panX) < 0.002 &&
                        std::abs(n.panY - t.panY) < 0.002;
    return landed ? t : n;
  };
  // Slots with a target, then slots only still settling back to the identity. Walked in
  // place: a settled tick allocates nothing.
  for (const auto& [slot, target] : target_) {
    const ImageCrop n = approach(cropOr(shown_, slot), target);
    if (isIdentity(n))
      shown_.erase(slot);
    else
      shown_[slot] = n;
  }
  for (auto it = shown_.begin(); it != shown_.end();) {
    if (target_.count(it->first)) {
      ++it;
      continue;
    }
    it->second = approach(it->second, ImageCrop{});
    it = isIdentity(it->second) ? shown_.erase(it) : std::next(it);
  }
}

ImageCrop CropEasing::shown(int slot) const {
  return cropOr(shown_, slot);
}

}  // namespace qvn
