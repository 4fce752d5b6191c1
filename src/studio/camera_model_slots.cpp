// CameraModel: the table of 16 input slots. Two writers feed it, the signaling server for
// phones and `localLive` for every other source; the rows are derived from both.
#include <algorithm>

#include "platform/defaults.h"
#include "studio/camera_model.h"

namespace qvn {

namespace {

constexpr double kNoPictureSeconds = 10.0;

std::set<int> liveIndices(const std::vector<CameraSlot>& rows) {
  std::set<int> live;
  for (const auto& row : rows)
    if (row.live) live.insert(row.index);
  return live;
}

std::optional<int> firstLive(const std::vector<CameraSlot>& rows) {
  for (const auto& row : rows)
    if (row.live) return row.index;
  return std::nullopt;
}

bool validSlot(int slot) {
  return slot >= 1 && slot <= CameraModel::kSlotCount;
}

}  // namespace

// ---- The two writers ------------------------------------------------------------------------

void CameraModel::slotsDidChange(const std::vector<CameraSlot>& incoming) {
  const std::set<int> before = liveIndices(slots());
  std::vector<CameraSlot> result = slots();
  for (CameraSlot row : incoming) {
    if (!validSlot(row.index)) continue;
    const CameraSlot& current = slots()[row.index - 1];
    if (auto label = labels().find(row.index); label != labels().end() && !label->second.empty())
      row.label = label->second;
    if (row.resolution.empty()) row.resolution = current.resolution;
    if (row.receivedWidth == 0) {
      row.receivedWidth = current.receivedWidth;
      row.receivedHeight = current.receivedHeight;
    }
    auto local = localLive().find(row.index);
    if (row.live && row.isPhone() && local != localLive().end()) {
      // A live phone wins the slot over a local source.
      if (auto* hub = hubForKind(local->second.kind)) hub->stopSlot(row.index);
      localLive.modify([&](auto& map) { map.erase(row.index); });
    } else if (local != localLive().end() && local->second.live) {
      const std::string label = row.label;
      row = local->second;
      row.label = label;  // the operator's name stays on the card whatever feeds it
    }
    result[row.index - 1] = row;
  }
  slots = result;
  resortDisplayOrderIfNeeded();

  const std::set<int> after = liveIndices(slots());
  for (int slot : after)
    if (!before.contains(slot)) noteNewInput(slot);
  const std::vector<int> liveAfter(after.begin(), after.end());
  for (int slot : before)
    if (!after.contains(slot)) detachedSlotCleanup(slot, liveAfter);

  if (!focusedSlot() || !validSlot(*focusedSlot()) || !slots()[*focusedSlot() - 1].live)
    focusedSlot = firstLive(slots());
  fillEmptyPreview();
  applyMonitorRouting();
}

void CameraModel::detachedSlotCleanup(int slot, const std::vector<int>& liveAfter) {
  waitingForPicture.modify([&](auto& waiting) { waiting.erase(slot); });
  hubs_.mix->clearIf(slot, liveAfter);
  hubs_.frames->clear(slot);
  hubs_.recorder->detachTap(slot);
  audioLevels.modify([&](auto& levels) { levels.erase(slot); });
  hubs_.meterBus->clear(slot);
  audioPeaks.modify([&](auto& peaks) { peaks.erase(slot); });
  lockedFocus.erase(slot);
  if (focusedSlot() == slot) focusedSlot = firstLive(slots());
  if (audibleSlotOverride() == slot) {
    audibleSlotOverride = std::nullopt;
    saveSettings();
  }
}

void CameraModel::attachLocal(const CameraSlot& row) {
  if (!validSlot(row.index)) return;
  localLive.modify([&](auto& map) { map[row.index] = row; });
  mergeLocalIntoSlots();
  if (!focusedSlot()) focusedSlot = row.index;
  const CameraSlot& shown = slots()[row.index - 1];
  flash(shown.detectedKind() + " on " + shown.inputName());
  schedulePersist();
}

void CameraModel::detachLocal(int slot, const std::optional<std::string>& deviceId) {
  auto entry = localLive().find(slot);
  // A late report of a source that was already replaced in place must not remove the new one.
  if (deviceId && entry != localLive().end() && entry->second.deviceId != *deviceId) return;
  localLive.modify([&](auto& map) { map.erase(slot); });
  imageCrops.modify([&](auto& crops) { crops.erase(slot); });
  hubs_.mix->setImageCrop(slot, ImageCrop{}, true);
  if (imageCropAtEdge()) imageCropAtEdge = false;
  mergeLocalIntoSlots();
  schedulePersist();
}

void CameraModel::mergeLocalIntoSlots() {
  std::vector<CameraSlot> rows = slots();
  const auto& local = localLive();
  for (auto& row : rows) {
    auto entry = local.find(row.index);
    if (entry != local.end() && !(row.live && row.isPhone()))
      row = entry->second;
    else if (entry == local.end() && !row.isPhone())
      row = CameraSlot::empty(row.index);
  }
  for (const auto& [index, entry] : local)
    if (!rows[index - 1].live) rows[index - 1] = entry;
  slots = rows;
  applyLabelsToSlots();
  resortDisplayOrderIfNeeded();
}

void CameraModel::patchLocalSlot(int slot, const std::function<void(CameraSlot&)>& change) {
  if (!localLive().contains(slot)) return;
  localLive.modify([&](auto& map) { change(map[slot]); });
  slots.modify([&](auto& rows) { change(rows[slot - 1]); });
}

LocalSourceHub* CameraModel::hubForKind(const std::string& kind) const {
  if (kind == "usb") return hubs_.localCapture.get();
  if (kind == "ndi") return hubs_.ndi.get();
  if (kind == "screen") return hubs_.screenCapture.get();
  if (kind == "phone") return nullptr;
  return hubs_.media.get();  // every file kind plays on a media deck
}

// ---- Labels, new inputs ------------------------------------------------------------------

void CameraModel::applyLabelsToSlots() {
  slots.modify([&](auto& rows) {
    for (auto& row : rows) {
      auto label = labels().find(row.index);
      row.label = label == labels().end() ? std::string() : label->second;
    }
  });
}

void CameraModel::setLabel(const std::string& text, int slot) {
  if (!validSlot(slot)) return;
  const std::string label = trimmed(text);
  labels.modify([&](auto& map) {
    if (label.empty())
      map.erase(slot);
    else
      map[slot] = label;
  });
  saveSettings();
  slots.modify([&](auto& rows) { rows[slot - 1].label = label; });
  if (localLive().contains(slot)) localLive.modify([&](auto& map) { map[slot].label = label; });
  schedulePersist();
}

bool CameraModel::newInputsStartMuted() const {
  return settings_.boolean("qvn.newInputsMuted").value_or(true);
}

void CameraModel::noteNewInput(int slot) {
  if (!muted().contains(slot) && !hubs_.media->hasDeck(slot))
    muted.modify([&](auto& map) { map[slot] = newInputsStartMuted(); });
  if (hubs_.frames->hasFrame(slot)) return;
  waitingForPicture.modify([&](auto& waiting) { waiting.insert(slot); });
  pictureChecks_[slot].cancel();
  pictureChecks_[slot] = DelayedWork::schedule(main_, kNoPictureSeconds, [this, slot] {
    if (waitingForPicture().contains(slot))
      flash("Input " + std::to_string(slot) + " has no picture yet.");
  });
}

// ---- Free slots ------------------------------------------------------------------------

std::optional<int> CameraModel::nextEmptySlot() const {
  for (int n = 1; n <= visibleInputCount(); ++n)
    if (!slots()[n - 1].live) return n;
  return std::nullopt;
}

std::optional<int> CameraModel::freeSlot() const {
  return liveCount() < kSlotCount ? nextEmptySlot() : std::nullopt;
}

std::optional<int> CameraModel::resolveTargetSlot() {
  if (!addSourceTargetSlot()) return freeSlot();
  const int n = *addSourceTargetSlot();
  addSourceTargetSlot = std::nullopt;
  if (!validSlot(n)) return freeSlot();
  const CameraSlot row = slots()[n - 1];
  if (row.live && row.isPhone()) {
    flash("Source " + std::to_string(n) + " is a live phone — added to another source instead");
    return freeSlot();
  }
  if (row.live) {
    detachLocalCamera(row.deviceId);  // the new source replaces the old one in place
    return n;
  }
  return liveCount() < kSlotCount ? std::optional<int>(n) : std::nullopt;
}

std::string CameraModel::sourcesFullMessage() const {
  if (visibleInputCount() >= kSlotCount) return "All 16 inputs are in use.";
  return "All " + std::to_string(visibleInputCount()) +
         " inputs are in use. Add an input — Studio holds up to 16.";
}

// ---- Optional inputs and display order ---------------------------------------------------

void CameraModel::addOptionalInput() {
  if (visibleInputCount() > kSlotCount - 1) return;
  visibleInputCount = visibleInputCount() + 1;
  settings_.set("qvn.visibleInputs", visibleInputCount());
  if (!displayOrderIsManual()) {
    renumberDisplayOrder();
    return;
  }
  const int added = visibleInputCount();
  if (std::find(displayOrder().begin(), displayOrder().end(), added) == displayOrder().end())
    displayOrder.modify([&](auto& order) { order.push_back(added); });
  storeDisplayOrder();
}

bool CameraModel::canHideOptionalInput() const {
  return visibleInputCount() >= kMinVisibleInputs + 1 && !slots()[visibleInputCount() - 1].live;
}

void CameraModel::hideLastOptionalInput() {
  if (visibleInputCount() < kMinVisibleInputs + 1) return;
  const int n = visibleInputCount();
  if (slots()[n - 1].live) {
    flash("Source " + std::to_string(n) +
          " is in use. Remove that source before hiding the input.");
    return;
  }
  visibleInputCount = n - 1;
  settings_.set("qvn.visibleInputs", visibleInputCount());
  displayOrder.modify([&](auto& order) { std::erase(order, n); });
  if (!displayOrderIsManual())
    renumberDisplayOrder();
  else
    storeDisplayOrder();
}

void CameraModel::loadDisplayOrder() {
  if (auto stored = settings_.integer("qvn.visibleInputs");
      stored && *stored >= kMinVisibleInputs && *stored <= kSlotCount)
    visibleInputCount = static_cast<int>(*stored);

  if (settings_.boolean("qvn.displayOrderManual").value_or(false)) {
    // A stored order counts only as a permutation of 1 to L with L from 12 to 16.
    std::vector<int> order;
    bool integers = true;
    for (const auto& value : settings_.list("qvn.displayOrder").value_or(SettingsList{})) {
      auto n = value.asInt();
      if (!n) integers = false;
      order.push_back(n ? static_cast<int>(*n) : 0);
    }
    const int length = static_cast<int>(order.size());
    std::vector<int> sorted = order;
    std::sort(sorted.begin(), sorted.end());
    std::vector<int> expected(order.size());
    for (int i = 0; i < length; ++i) expected[i] = i + 1;
    if (integers && length >= kMinVisibleInputs && length <= kSlotCount && sorted == expected) {
      displayOrderIsManual = true;
      displayOrder = order;
      visibleInputCount = length;
      settings_.set("qvn.visibleInputs", length);
      return;
    }
  }
  displayOrderIsManual = false;
  renumberDisplayOrder();
}

void CameraModel::renumberDisplayOrder() {
  std::vector<int> order;
  for (int n = 1; n <= visibleInputCount(); ++n) order.push_back(n);
  displayOrder = order;
}

void CameraModel::storeDisplayOrder() {
  SettingsList order;
  for (int n : displayOrder()) order.emplace_back(n);
  settings_.set("qvn.displayOrder", order);
}

void CameraModel::resortDisplayOrderIfNeeded() {
  if (!displayOrderIsManual()) renumberDisplayOrder();
}

void CameraModel::reorderInput(int from, int before) {
  const auto& order = displayOrder();
  if (from == before || std::find(order.begin(), order.end(), from) == order.end() ||
      std::find(order.begin(), order.end(), before) == order.end())
    return;
  displayOrderIsManual = true;
  displayOrder.modify([&](auto& o) {
    std::erase(o, from);
    o.insert(std::find(o.begin(), o.end(), before), from);
  });
}

void CameraModel::commitManualOrder() {
  storeDisplayOrder();
  settings_.set("qvn.displayOrderManual", true);
  schedulePersist();
}

void CameraModel::resetDisplayOrder() {
  displayOrderIsManual = false;
  settings_.remove("qvn.displayOrder");
  settings_.remove("qvn.displayOrderManual");
  renumberDisplayOrder();
}

// ---- Queries ------------------------------------------------------------------------------

std::optional<CameraSlot> CameraModel::heroSlot() const {
  if (programSlot() >= 1 && programSlot() <= kSlotCount && slots()[programSlot() - 1].live)
    return slots()[programSlot() - 1];
  return selectedSlot();
}

std::optional<CameraSlot> CameraModel::selectedSlot() const {
  if (focusedSlot() && validSlot(*focusedSlot()) && slots()[*focusedSlot() - 1].live)
    return slots()[*focusedSlot() - 1];
  if (auto first = firstLive(slots())) return slots()[*first - 1];
  return std::nullopt;
}

std::vector<CameraSlot> CameraModel::liveSlots() const {
  std::vector<CameraSlot> live;
  std::copy_if(slots().begin(), slots().end(), std::back_inserter(live),
               [](const CameraSlot& row) { return row.live; });
  return live;
}

int CameraModel::liveCount() const {
  return static_cast<int>(
      std::count_if(slots().begin(), slots().end(), [](const auto& row) { return row.live; }));
}

bool CameraModel::isStillImageSlot(int slot) const {
  return validSlot(slot) && slots()[slot - 1].kind == "image";
}

void CameraModel::selectInput(int slot) {
  if (validSlot(slot) && slots()[slot - 1].live) focusedSlot = slot;
}

// ---- Adding and removing sources -----------------------------------------------------------

void CameraModel::attachLocalCamera(const std::string& deviceId) {
  localDevices = hubs_.localCapture->listDevices();
  const auto slot = resolveTargetSlot();
  if (!slot) {
    flash(sourcesFullMessage());
    return;
  }
  auto goOn = [this, deviceId, target = *slot] {
    auto error = hubs_.localCapture->start(deviceId, target);
    if (!error) return;  // the session file learns of the camera when it goes live
    if (error->starts_with("Permission needed"))
      hubs_.cloud->setPermissionMessage(*error);
    else
      flash(*error);
  };
  const char* denied = "Permission needed — Camera. Open Settings.";
  switch (hubs_.localCapture->authorization()) {
    case LocalCaptureHub::Authorization::authorized:
      goOn();
      break;
    case LocalCaptureHub::Authorization::denied:
      hubs_.cloud->setPermissionMessage(denied);
      break;
    case LocalCaptureHub::Authorization::notDetermined:
      hubs_.localCapture->requestAccess(
          [this, weak = std::weak_ptr(anchor_), goOn, denied](bool granted) {
            if (!weak.lock()) return;
            if (granted)
              goOn();
            else
              hubs_.cloud->setPermissionMessage(denied);
          });
      break;
  }
}

void CameraModel::detachLocalCamera(const std::string& deviceId) {
  hubs_.localCapture->stopDevice(deviceId);
  hubs_.media->stopDevice(deviceId);
  hubs_.screenCapture->stopDevice(deviceId);
  hubs_.ndi->stopDevice(deviceId);
}

void CameraModel::attachNDI(const NDISourceItem& item) {
  const auto slot = resolveTargetSlot();
  if (!slot) {
    flash(sourcesFullMessage());
    return;
  }
  if (auto error = hubs_.ndi->start(item, *slot))
    flash(*error);
  else
    showAddSource = false;
}

void CameraModel::addScreen(const ScreenCaptureHub::Target& target) {
  const auto slot = resolveTargetSlot();
  if (!slot) {
    flash(sourcesFullMessage());
    return;
  }
  hubs_.screenCapture->start(target, *slot);
  schedulePersist();
}

// ---- Mute --------------------------------------------------------------------------------

bool CameraModel::audioMuted(const CameraSlot& row) const {
  if (hubs_.media->hasDeck(row.index)) return hubs_.media->deckMuted(row.index);
  auto entry = muted().find(row.index);
  return entry != muted().end() && entry->second;
}

void CameraModel::setSourceMuted(const CameraSlot& row, bool value) {
  muted.modify([&](auto& map) { map[row.index] = value; });
  if (hubs_.media->hasDeck(row.index)) hubs_.media->setDeckMuted(row.index, value);
  hubs_.audio->setMuted(value, row.index);
  applyMonitorRouting();
  changed.emit();
  schedulePersist();
}

void CameraModel::toggleMute(std::optional<int> slot) {
  std::optional<CameraSlot> row;
  if (!slot)
    row = heroSlot();
  else if (validSlot(*slot))
    row = slots()[*slot - 1];
  if (row) setSourceMuted(*row, !audioMuted(*row));
}

}  // namespace qvn
