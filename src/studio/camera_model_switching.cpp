// CameraModel: Program and Preview as the operator drives them. Single style puts an input
// on Program at once; Studio style builds the next shot on Preview and takes it. The engine
// holds the truth and reports back through the bus callbacks, so `programSlot` lags a take
// by a moment: code that needs the new Program at once uses the slot it passed.
#include <algorithm>

#include "studio/camera_model.h"
#include "studio/camera_model_hop.h"
#include "support/qvn_log.h"

namespace qvn {

bool CameraModel::isLive(int slot) const {
  return slot >= 1 && slot <= kSlotCount && slots()[slot - 1].live;
}

std::vector<int> CameraModel::liveInDisplayOrder() const {
  std::vector<int> live;
  for (int slot : displayOrder())
    if (isLive(slot)) live.push_back(slot);
  return live;
}

// ---- Choosing inputs ----------------------------------------------------------------------

void CameraModel::selectCamera(int slot) {
  if (studioMode())
    setPreview(slot);
  else
    take(slot, mixTransition());
}

void CameraModel::setPreview(int slot) {
  if (!isLive(slot)) return;
  if (slot != previewSlot()) QvnLog::line("preview ← input " + std::to_string(slot));
  hubs_.mix->setPreview(slot);
  previewSlot = slot;
}

void CameraModel::take(int slot, MixTransition kind) {
  if (!isLive(slot)) return;
  QvnLog::line("program ← input " + std::to_string(slot) + " (" + std::string(enumText(kind)) +
               ")");
  if (auto hero = heroSlot();
      hero && kind != MixTransition::instant && hero->index >= 1 && hero->index != slot)
    dissolving = true;
  hubs_.mix->switchTo(slot, kind);
  hubs_.audio->setProgramSlot(slot);
  focusedSlot = slot;
  applyMonitorRouting();
  schedulePersist();
}

bool CameraModel::canTake() const {
  return studioMode() && previewSlot() >= 1 && !waitingForPicture().contains(previewSlot()) &&
         isLive(previewSlot());
}

void CameraModel::takePreview(MixTransition kind) {
  if (!studioMode() || !isLive(previewSlot())) return;
  const int taken = previewSlot();
  if (waitingForPicture().contains(taken)) {
    flash("Input " + std::to_string(taken) + " has no picture yet");
    return;
  }
  setEditProgram(false);
  if (kind != MixTransition::instant && programSlot() >= 1) dissolving = true;
  hubs_.mix->takePreview(kind, afterTakeSwap());
  didCommitTake(taken);
  tBarAtTop = !tBarAtTop();  // the UI eases it over the transition's time
}

void CameraModel::didCommitTake(int slot) {
  hubs_.overlays->didTake();
  programPiP = currentPiP();
  hubs_.audio->setProgramSlot(slot);
  focusedSlot = slot;
  applyMonitorRouting();
  schedulePersist();
}

// ---- The T-bar ----------------------------------------------------------------------------

void CameraModel::moveTBar(double progress) {
  if (!canTake()) return;
  setEditProgram(false);
  tBarProgress = std::clamp(progress, 0.0, 1.0);
  hubs_.mix->setManual(tBarProgress(), mixTransition());
}

void CameraModel::releaseTBar() {
  const int taken = previewSlot();
  // Exactly half way takes.
  hubs_.mix->endManual(tBarProgress() >= 0.5, afterTakeSwap(),
                       hop([taken](CameraModel& m, bool committed) {
                         m.tBarProgress = 0.0;
                         if (!committed) return;  // the bar falls back, nothing changes on air
                         m.tBarAtTop = !m.tBarAtTop();
                         m.didCommitTake(taken);
                       }));
}

// ---- What the engine reports ----------------------------------------------------------------

void CameraModel::busChanged(int program, int preview) {
  programSlot = program;
  previewSlot = preview;
  fillEmptyPreview();
  hubs_.recorder->followAudioSlot(program);
  hubs_.publisher->setProgramSlot(program);
  hubs_.audio->setProgramSlot(program);
  applyMonitorRouting();
  hubs_.programOutput->followProgram();
}

void CameraModel::fillEmptyPreview() {
  if (!studioMode()) return;
  const std::vector<int> live = liveInDisplayOrder();
  if (live.empty()) return;
  if (previewSlot() >= 1 && std::ranges::find(live, previewSlot()) != live.end()) return;
  auto other = std::ranges::find_if(live, [&](int slot) { return slot != programSlot(); });
  setPreview(other != live.end() ? *other : live.front());
}

namespace {

// The element after (or before) `current` in `list`, round the end; the first when absent.
int stepThrough(const std::vector<int>& list, std::optional<int> current, bool forward) {
  auto at = current ? std::ranges::find(list, *current) : list.end();
  if (at == list.end()) return list.front();
  const auto n = static_cast<std::ptrdiff_t>(list.size());
  const std::ptrdiff_t i = (at - list.begin() + (forward ? 1 : n - 1)) % n;
  return list[static_cast<size_t>(i)];
}

}  // namespace

void CameraModel::cycleHero(bool forward) {
  const std::vector<int> live = liveInDisplayOrder();
  if (live.empty()) return;
  const auto hero = heroSlot();
  take(stepThrough(live, hero ? std::optional(hero->index) : std::nullopt, forward),
       mixTransition());
}

void CameraModel::cyclePreview(bool forward) {
  const std::vector<int> live = liveInDisplayOrder();
  if (live.empty()) return;
  setPreview(
      stepThrough(live, previewSlot() >= 1 ? std::optional(previewSlot()) : std::nullopt, forward));
}

// ---- Working style --------------------------------------------------------------------------

void CameraModel::chooseStudioMode(bool on) {
  studioMode = on;
  saveSettings();
  applyStudioMode();
}

void CameraModel::applyStudioMode() {
  const bool studio = studioMode();
  hubs_.mix->setHoldPreview(studio);
  hubs_.mix->setPreviewVisible(studio);
  if (!studio) setEditProgram(false);
  if (!studio) {
    // What was on air stays on air; the Preview edit is dropped.
    if (auto onAir = programPiP()) {
      applyPiPState(*onAir);
      programPiP = std::nullopt;
    }
  } else {
    programPiP = currentPiP();
  }
  hubs_.overlays->setStudioMode(studio);
  followOverlayStore();
  if (!applyingSettings_) saveSettings();
  pushPiP();
  fillEmptyPreview();
}

void CameraModel::setEditProgram(bool on) {
  if (editProgram() == on) return;
  editProgram = on;
  applyEditProgram();
}

void CameraModel::applyEditProgram() {
  if (!studioMode()) return;
  if (auto other = programPiP()) {
    // The edited inset is now the other bus's.
    programPiP = currentPiP();
    applyPiPState(*other);
  }
  hubs_.overlays->setEditProgram(editProgram());
  followOverlayStore();
  if (!applyingSettings_) saveSettings();
  pushPiP();
  QvnLog::line(editProgram() ? "editing Program" : "editing Preview");
}

// The overlay switch shows the store's state for the bus now edited; the settings saved
// next keep it.
void CameraModel::followOverlayStore() {
  overlaysOn = hubs_.overlays->enabled();
}

MixControl::Bus CameraModel::editBus() const {
  if (!studioMode()) return MixControl::Bus::both;
  return editProgram() ? MixControl::Bus::program : MixControl::Bus::preview;
}

std::string CameraModel::editTargetName() const {
  return !studioMode() || editProgram() ? "Program" : "Preview";
}

void CameraModel::setProgramOutput(const std::optional<std::string>& deviceID) {
  applyProgramOutput(deviceID);
  saveSettings();
}

// Program's sound plays on the chosen device; the same device as an external input's would
// feed it back into itself.
void CameraModel::applyProgramOutput(const std::optional<std::string>& deviceID) {
  std::optional<std::string> id;
  if (deviceID) id = hubs_.audioDevices->canonicalUID(*deviceID);
  programOutputID = id;
  hubs_.audio->setProgramOutput(id);
  programFeedbackWarning = id && hubs_.externalHub->usesInputDevice(*id);
}

void CameraModel::setDissolveSeconds(double seconds) {
  dissolveSeconds = std::clamp(seconds, 0.1, 5.0);
  hubs_.mix->setTransitionDuration(dissolveSeconds());
  saveSettings();
}

}  // namespace qvn
