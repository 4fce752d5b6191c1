#include "studio/studio_panel_detach.h"

#include "platform/defaults.h"
#include "studio/studio_panel.h"

namespace qvn {

namespace {
constexpr const char* kKey = "qvn.panel.detached";
}

StudioPanelDetach::StudioPanelDetach(Defaults& settings) : settings_(settings) {
  std::set<StudioPanel> stored;
  if (auto list = settings_.list(kKey))
    for (const SettingsValue& item : *list)
      if (auto text = item.asText())
        if (auto panel = enumFromText<StudioPanel>(*text)) stored.insert(*panel);
  detached = std::move(stored);
}

void StudioPanelDetach::setDetached(StudioPanel panel, bool on) {
  if (on && !panelInfo(panel).detachable) return;
  if (isDetached(panel) == on) return;
  detached.modify([&](std::set<StudioPanel>& set) {
    if (on)
      set.insert(panel);
    else
      set.erase(panel);
  });
  if (terminating_) return;
  SettingsList list;
  for (StudioPanel p : detached()) list.emplace_back(std::string(enumText(p)));
  settings_.set(kKey, std::move(list));
}

void StudioPanelDetach::bringForward(StudioPanel panel) const {
  if (raiseWindow) raiseWindow(std::string(panelInfo(panel).title));
}

std::string StudioPanelDetach::autosaveName(StudioPanel panel) {
  return "qvn.panel.window." + std::string(enumText(panel));
}

}  // namespace qvn
