// Which panels live in windows of their own instead of the rail. One per studio, owned by
// the model; main thread. The set is remembered across launches; the windows that close
// as the studio quits leave it as it was, so the same panels come back detached.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "studio/studio_values.h"
#include "support/observable.h"

namespace qvn {

class Defaults;

class StudioPanelDetach {
 public:
  // Reads the stored set; names that are no panel are dropped.
  explicit StudioPanelDetach(Defaults& settings);

  Observable<std::set<StudioPanel>> detached;

  bool isDetached(StudioPanel panel) const { return detached().count(panel) > 0; }
  // Out of the rail or back into it. Panels that can't leave the rail stay.
  void setDetached(StudioPanel panel, bool on);
  // The quit has begun: from now on changes are not stored.
  void markTerminating() { terminating_ = true; }
  // The panel's window to the front, by its title, through the window layer.
  void bringForward(StudioPanel panel) const;
  // Where the panel's window remembers its frame.
  static std::string autosaveName(StudioPanel panel);

  // Set by the window layer: raises the window with that title; false when there is none.
  std::function<bool(const std::string& title)> raiseWindow;

 private:
  Defaults& settings_;
  bool terminating_ = false;
};

}  // namespace qvn
