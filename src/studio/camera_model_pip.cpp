// CameraModel: the picture-in-picture inset as the operator edits it. The edited inset goes
// to the bus being edited; in Studio style the one on air is kept apart in `programPiP`
// while the two differ.
#include "studio/camera_model.h"

namespace qvn {

PiPState CameraModel::currentPiP() const {
  return {pipEnabled(), pipSlot(), pipLayout()};
}

void CameraModel::applyPiPState(const PiPState& state) {
  pipEnabled = state.on;
  pipSlot = state.slot;
  pipLayout = state.layout;
}

void CameraModel::pushPiP() {
  hubs_.mix->setPiP(pipEnabled(), pipSlot(), pipLayout().clamped(), editBus());
}

void CameraModel::syncPiPToBothPictures() {
  hubs_.mix->setPiP(pipEnabled(), pipSlot(), pipLayout().clamped(), MixControl::Bus::both);
  if (studioMode()) programPiP = currentPiP();
}

void CameraModel::setPiP(std::optional<bool> enabled, std::optional<int> slot,
                         std::optional<PiPCorner> corner) {
  if (enabled) {
    pipEnabled = *enabled;
    saveSettings();
  }
  if (slot) pipSlot = *slot;
  if (corner) {
    pipCorner = *corner;
    // The inset moves to the corner and keeps its size.
    QvnPiPLayout layout = pipLayout();
    const double edge = layout.width / 2 + 0.02;
    const bool left = *corner == PiPCorner::topLeft || *corner == PiPCorner::bottomLeft;
    const bool top = *corner == PiPCorner::topLeft || *corner == PiPCorner::topRight;
    layout.x = left ? edge : 1 - edge;
    layout.y = top ? 0.21 : 0.79;
    pipLayout = layout.clamped();
  }
  pushPiP();
  schedulePersist();
}

// The input on air that the inset would change places with: the hero, else Program.
int CameraModel::swapPartner() const {
  if (auto hero = heroSlot(); hero && hero->index >= 1) return hero->index;
  return programSlot();
}

bool CameraModel::canSwapPiP() const {
  const int partner = swapPartner();
  return pipEnabled() && pipSlot() >= 1 && partner >= 1 && pipSlot() != partner &&
         isLive(pipSlot());
}

void CameraModel::swapPiP() {
  const int onAir = swapPartner();
  const int inset = pipSlot();
  if (!pipEnabled() || onAir < 1 || inset < 1 || onAir == inset) {
    flash("Turn on picture-in-picture with a second input first");
    return;
  }
  if (!isLive(inset)) {
    flash("PiP input is no longer live");
    return;
  }
  pipSlot = onAir;
  pushPiP();
  take(inset, mixTransition());
  flash("Swapped Program and PiP");
}

}  // namespace qvn
