// The window's panels as the model keeps them, and the tally edges of the Sources strip.
#include "platform/defaults.h"
#include "studio/camera_model.h"
#include "studio/studio_panel.h"

namespace qvn {

void CameraModel::togglePanel(StudioPanel p) {
  if (panelInfo(p).retired) return;
  showAudioPanel = false;
  if (panelDetach.isDetached(p)) {
    panelSideEffects(p);
    panelDetach.bringForward(p);
    return;
  }
  if (inspectorCollapsed()) {
    inspectorCollapsed = false;
    panel = p;
  } else if (panel() == p) {
    // A second press of the same key closes the panel.
    panel = StudioPanel::inspector;
    sourceSettingsOpen = false;
    return;
  } else {
    panel = p;
  }
  panelSideEffects(p);
}

void CameraModel::showPanel(StudioPanel p) {
  if (panelInfo(p).retired) return;
  showAudioPanel = false;
  inspectorCollapsed = false;
  panel = p;
  panelSideEffects(p);
  if (p == StudioPanel::inspector) sourceSettingsOpen = true;
}

void CameraModel::panelSideEffects(StudioPanel p) {
  if (p == StudioPanel::extendOutput) {
    refreshDevices();
    hubs_.wirelessBrowser->start();
  } else if (p == StudioPanel::audio) {
    refreshDevices();
    hubs_.monitorMixer->kickMonitor();
  }
}

void CameraModel::panelDidChange(StudioPanel value) {
  if (value != StudioPanel::inspector) sourceSettingsOpen = false;
  if (value == storedPanel_) return;
  storedPanel_ = value;
  settings_.set("qvn.panel", std::string(enumText(value)));
}

std::optional<QvnColor> CameraModel::tallyColor(int slot) const {
  if (studioMode()) {
    if (slot == programSlot()) return Qvn::live;
    if (slot == previewSlot()) return Qvn::green;
    return std::nullopt;
  }
  if (auto hero = heroSlot(); hero && hero->index == slot) return Qvn::green;
  return std::nullopt;
}

}  // namespace qvn
