// The rail's panels: what each is called, its key, and whether it may leave the rail for a
// window of its own. Retired panels keep their names for stored settings only.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "studio/studio_values.h"

namespace qvn {

struct StudioPanelInfo {
  std::string_view title;
  std::string_view subtitle;
  std::optional<int> commandKey;  // the digit that, with the command key, opens it
  bool retired = false;
  bool detachable = false;
};

const StudioPanelInfo& panelInfo(StudioPanel panel);
// The panels the rail shows, in order.
const std::vector<StudioPanel>& railPanels();

}  // namespace qvn
