#include "studio/studio_panel.h"

#include <array>

namespace qvn {

namespace {

constexpr std::array<StudioPanelInfo, 7> kPanels{{
    {"Source", "The source selected in the Sources strip.", std::nullopt, false, false},
    {"Extend", "Send the Program picture to another display.", 1, false, true},
    {"PiP", "A second source inset over the picture.", 2, false, true},
    {"Overlays", "Titles and graphics. In Studio they are built on Preview and go live with Take.",
     3, false, true},
    {"Audio", "Sources on Program. External Audio rides with them.", 4, false, true},
    {"Record", "Record the Program picture and mix to disk.", 5, true, false},
    {"Workspace", "Save and recall a whole production arrangement.", 6, true, false},
}};

}  // namespace

const StudioPanelInfo& panelInfo(StudioPanel panel) {
  return kPanels[static_cast<size_t>(panel)];
}

const std::vector<StudioPanel>& railPanels() {
  static const std::vector<StudioPanel> panels = [] {
    std::vector<StudioPanel> out;
    for (const auto& [panel, name] : EnumTexts<StudioPanel>::table)
      if (!panelInfo(panel).retired) out.push_back(panel);
    return out;
  }();
  return panels;
}

}  // namespace qvn
