#include "video/bus_look.h"

#include <algorithm>

namespace qvn {

namespace {

const OverlayLayer* findLayer(const std::vector<OverlayLayer>& layers, const std::string& id) {
  auto it = std::find_if(layers.begin(), layers.end(), [&](auto& l) { return l.id == id; });
  return it == layers.end() ? nullptr : &*it;
}

}  // namespace

BusLook BusLook::settled() const {
  BusLook look = *this;
  std::erase_if(look.layers, [](const OverlayLayer& l) { return l.leaving(); });
  for (auto& layer : look.layers) layer.motion.reset();
  return look;
}

void BusLook::mergeLayers(bool on, const std::vector<OverlayLayer>& incoming, double now) {
  overlaysOn = on;
  std::vector<OverlayLayer> result;
  result.reserve(layers.size() + incoming.size());
  for (const auto& layer : layers) {
    if (findLayer(incoming, layer.id)) continue;
    OverlayLayer& gone = result.emplace_back(layer);
    if (!gone.leaving())
      gone.motion = OverlayMotion{gone.motionOut, gone.motionDuration, now, true};
  }
  for (const auto& layer : incoming) {
    OverlayLayer& added = result.emplace_back(layer);
    const OverlayLayer* held = findLayer(layers, layer.id);
    if (held && held->generation == layer.generation)
      added.motion = held->motion;
    else
      added.motion = OverlayMotion{layer.motionIn, layer.motionDuration, now, false};
  }
  layers = std::move(result);
}

void BusLook::place(bool on, const std::vector<OverlayPlacement>& placements) {
  overlaysOn = on;
  for (const auto& moved : placements)
    for (auto& layer : layers)
      if (layer.id == moved.id) {
        layer.center = moved.center;
        layer.rotation = moved.rotation;
        layer.opacity = moved.opacity;
      }
}

void BusLook::dropLeftLayers(double now) {
  std::erase_if(layers,
                [now](const OverlayLayer& l) { return l.motion && l.motion->hasLeft(now); });
}

}  // namespace qvn
