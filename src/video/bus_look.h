// What a bus adds over its source: the inset and the overlay layers. A value owned by the
// mix queue and copied freely.
#pragma once

#include <vector>

#include "video/overlay_layer.h"
#include "video/pip_layout.h"

namespace qvn {

struct BusLook {
  bool overlaysOn = false;
  std::vector<OverlayLayer> layers;  // bottom first
  bool pipOn = false;
  int pipSlot = 0;
  QvnPiPLayout pipLayout;

  // The look as it will stand when every motion has ended: leaving layers gone, the others
  // at rest.
  BusLook settled() const;

  // New layers from the overlay store at `now`: layers no longer named start their exit
  // (and stay below the new ones until it ends), new ones their entrance; a layer kept with
  // the same generation keeps the motion it has.
  void mergeLayers(bool on, const std::vector<OverlayLayer>& incoming, double now);
  // Moves the layers named in `placements`; the others stay.
  void place(bool on, const std::vector<OverlayPlacement>& placements);
  // Removes the layers whose exit has ended; the only way a layer leaves a look.
  void dropLeftLayers(double now);
};

}  // namespace qvn
