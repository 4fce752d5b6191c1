// What every hub of non-phone sources (cameras, media decks, screens, NDI) has in common:
// it reports a slot live or gone, and stops a source by slot or by device id.
// Callbacks come from the hub's own queue.
#pragma once

#include <functional>
#include <string>

#include "support/camera_slot.h"

namespace qvn {

class LocalSourceHub {
 public:
  virtual ~LocalSourceHub() = default;

  std::function<void(int slot, CameraSlot row)> onSlotLive;
  // The device id says which source went: by the time this arrives, another source may
  // already have taken the slot in its place.
  std::function<void(int slot, std::string deviceId)> onSlotOff;

  // Both stop quietly when nothing matches; `onSlotOff` follows for each source stopped.
  virtual void stopSlot(int slot) = 0;
  virtual void stopDevice(const std::string& deviceId) = 0;
};

}  // namespace qvn
