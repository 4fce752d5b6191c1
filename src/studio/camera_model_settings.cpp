// CameraModel: the settings it loads at start and saves after every change of a setting.
#include <algorithm>
#include <charconv>
#include <sstream>
#include <type_traits>

#include "golive/go_live_format.h"
#include "platform/defaults.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr double kAudioSaveSeconds = 0.4;

// Slot numbers are decimal text keys; anything else is dropped when read.
std::optional<int> slotKey(const std::string& key) {
  int value = 0;
  auto [end, error] = std::from_chars(key.data(), key.data() + key.size(), value);
  if (error != std::errc() || end != key.data() + key.size()) return std::nullopt;
  return value;
}

template <class T, class Read>
std::map<int, T> readSlotDict(const std::optional<SettingsDict>& dict, Read read) {
  std::map<int, T> out;
  if (!dict) return out;
  for (const auto& [key, value] : *dict) {
    auto slot = slotKey(key);
    auto v = read(value);
    if (slot && v) out[*slot] = *v;
  }
  return out;
}

template <class T, class Write>
SettingsDict slotDict(const std::map<int, T>& map, Write write) {
  SettingsDict dict;
  for (const auto& [slot, value] : map) dict[std::to_string(slot)] = write(value);
  return dict;
}

template <class E>
SettingsValue textOf(E value) {
  return std::string(enumText(value));
}

// Levels are stored in single precision, as faders produce them.
SettingsValue single(double value) {
  return static_cast<float>(value);
}

// Each reads one key into a property and leaves the property alone when the key is absent
// or holds another type (or an unknown enumeration text).
void load(const Defaults& s, const char* key, Observable<bool>& property) {
  if (auto value = s.boolean(key)) property = *value;
}
void load(const Defaults& s, const char* key, Observable<double>& property) {
  if (auto value = s.real(key)) property = *value;
}
void load(const Defaults& s, const char* key, Observable<int>& property) {
  if (auto value = s.integer(key)) property = static_cast<int>(*value);
}
void load(const Defaults& s, const char* key, Observable<std::string>& property) {
  if (auto value = s.text(key)) property = *value;
}
void load(const Defaults& s, const char* key, Observable<std::optional<std::string>>& property) {
  if (auto value = s.text(key)) property = *value;
}
template <class E>
requires std::is_enum_v<E>
void load(const Defaults& s, const char* key, Observable<E>& property) {
  if (auto text = s.text(key))
    if (auto value = enumFromText<E>(*text)) property = *value;
}

// Values stored as JSON text in bytes.
std::optional<std::string> bytesText(const Defaults& s, const char* key) {
  auto bytes = s.bytes(key);
  if (!bytes) return std::nullopt;
  return std::string(bytes->begin(), bytes->end());
}

const char* yesNo(bool value) {
  return value ? "true" : "false";
}

}  // namespace

void CameraModel::migrateNavigationRail() {
  if (settings_.boolean("qvn.nav.railMigrated").value_or(false)) return;
  settings_.set("qvn.nav.railMigrated", true);
  settings_.set("qvn.sidebarCollapsed", true);
}

void CameraModel::scheduleAudioSave() {
  audioSaveWork_.cancel();
  audioSaveWork_ = DelayedWork::schedule(main_, kAudioSaveSeconds, [this] { saveSettings(); });
}

void CameraModel::saveSettings() {
  if (applyingSettings_) return;
  auto& s = settings_;
  // An optional that is none is removed rather than stored.
  auto setOrRemove = [&s]<class T>(const char* key, const std::optional<T>& value) {
    if (value)
      s.set(key, *value);
    else
      s.remove(key);
  };
  s.set("qvn.mixFill", mixFill());
  s.set("qvn.canvasSize", textOf(canvasSize()));
  s.set("qvn.transitionSeconds", dissolveSeconds());
  s.set("qvn.mixTransition", textOf(mixTransition()));
  s.set("qvn.studioMode", studioMode());
  s.set("qvn.afterTake", afterTakeSwap());
  s.set("qvn.pipEnabled", pipEnabled());
  s.set("qvn.pipSlot", pipSlot());
  s.set("qvn.pipCorner", textOf(pipCorner()));
  s.set("qvn.monitorOn", monitorOn());
  s.set("qvn.monitorVolume", single(monitorVolume()));
  setOrRemove("qvn.audibleSlotOverride", audibleSlotOverride());
  s.set("qvn.monitorFinalOutput", monitorFinalOutput());
  s.set("qvn.goLiveMixAudio", goLiveMixAudio());
  const std::string options = recordOptions().toJSON();
  s.set("qvn.recordOptions", SettingsBytes(options.begin(), options.end()));
  s.set("qvn.recordAudioChoice", textOf(recordAudioChoice()));
  s.set("qvn.auxOutputOn", auxOutputOn());
  setOrRemove("qvn.auxOutputDeviceID", auxOutputDeviceID());
  s.set("qvn.auxOutputVolume", single(auxOutputVolume()));
  setOrRemove("qvn.masterAudioDeviceID", masterAudioDeviceID());
  s.set("qvn.masterAudioVolume", single(masterAudioVolume()));
  s.set("qvn.masterAudioMuted", masterAudioMuted());
  s.set("qvn.slotAudioSource", slotDict(slotAudioSource(), textOf<SlotAudioSource>));
  s.set("qvn.cueMixerOn", cueMixerOn());
  s.set("qvn.duckingOn", duckingOn());
  s.set("qvn.duckThreshold", single(duckThreshold()));
  s.set("qvn.duckPrioritySlot", duckPrioritySlot());
  s.set("qvn.cueGains", slotDict(cueGains(), single));
  setOrRemove("qvn.outputDeviceID", outputDeviceID());
  setOrRemove("qvn.programOutputID", programOutputID());
  s.set("qvn.programAlwaysOnTop", programAlwaysOnTop());
  setOrRemove("qvn.selectedScreenID", selectedScreenID());
  setOrRemove("qvn.selectedMicID", selectedMicID());
  s.set("qvn.labels", slotDict(labels(), [](const std::string& t) { return SettingsValue(t); }));
  s.set("qvn.slotMuted", slotDict(muted(), [](bool m) { return SettingsValue(m); }));
  using Kind = RecordAudioSource::Kind;
  const auto& source = audioSource();
  const char* sourceText = source.kind == Kind::mac      ? "mac"
                           : source.kind == Kind::camera ? "camera"
                           : source.kind == Kind::none   ? "none"
                                                         : "mix";
  s.set("qvn.audioSource", sourceText);
  setOrRemove("qvn.audioSourceMicID",
              source.kind == Kind::mac ? source.micID : std::optional<std::string>());
  s.set("qvn.overlaysOn", overlaysOn());
  s.set("qvn.lowerThirdOn", lowerThirdOn());
  s.set("qvn.lowerThirdName", lowerThirdName());
  s.set("qvn.lowerThirdTitle", lowerThirdTitle());
  s.set("qvn.logoOn", logoOn());
  s.set("qvn.logoCorner", textOf(logoCorner()));
  s.set("qvn.logoName", logoName());
  setOrRemove("qvn.logoBookmark", logoBookmark());
  const std::string look = overlayLook().toJSON();
  s.set("qvn.overlayLook", SettingsBytes(look.begin(), look.end()));
  SettingsList screenIDs;
  SettingsDict screenNames;
  for (const auto& out : extendedOutputs()) {
    screenIDs.emplace_back(out.screenID);
    screenNames[out.screenID] = out.name;
  }
  s.set("qvn.extendedScreenIDs", screenIDs);
  s.set("qvn.extendedScreenNames", screenNames);
}

void CameraModel::loadSettings() {
  applyingSettings_ = true;
  auto& s = settings_;
  // 1
  load(s, "qvn.mixFill", mixFill);
  load(s, "qvn.canvasSize", canvasSize);
  load(s, "qvn.streamOutput", streamOutput);
  hubs_.publisher->setPreferredSize(GoLiveFormat::choiceSize(streamOutput()));
  load(s, "qvn.inspectorCollapsed", inspectorCollapsed);
  if (auto text = s.text("qvn.panel")) {
    // The retired panels load as the inspector.
    auto value = enumFromText<StudioPanel>(*text);
    if (value == StudioPanel::record || value == StudioPanel::workspace)
      value = StudioPanel::inspector;
    if (value) panel = *value;
  }
  load(s, "qvn.workspace.currentID", currentWorkspaceID);
  if (auto json = bytesText(s, "qvn.recordOptions"))
    if (auto options = RecordOptions::fromJSON(*json)) recordOptions = *options;
  load(s, "qvn.recordAudioChoice", recordAudioChoice);
  // 2
  const auto canvas = canvasPixels(canvasSize());
  hubs_.mix->setCanvas(canvas.width, canvas.height);
  // 3
  if (auto seconds = s.real("qvn.transitionSeconds")) {
    dissolveSeconds = std::clamp(*seconds, 0.1, 5.0);
    hubs_.mix->setTransitionDuration(dissolveSeconds());
  }
  load(s, "qvn.mixTransition", mixTransition);
  // 4
  load(s, "qvn.studioMode", studioMode);
  applyStudioMode();
  load(s, "qvn.afterTake", afterTakeSwap);
  // 5
  loadPiPSettings();
  // 6-13
  loadAudioSettings();
  // 14
  syncPiPToBothPictures();
  // 15-17
  loadOverlaySettings();
  // 18
  std::ostringstream line;
  line << "settings loaded cueMixer=" << yesNo(cueMixerOn()) << " duck=" << yesNo(duckingOn())
       << " overlays=" << yesNo(overlaysOn())
       << " canvas=" << (canvasSize() == MixCanvasSize::uhd ? "uhd" : "hd");
  QvnLog::line(line.str());
  // 19
  applyingSettings_ = false;
}

void CameraModel::loadPiPSettings() {
  auto& s = settings_;
  load(s, "qvn.pipEnabled", pipEnabled);
  load(s, "qvn.pipSlot", pipSlot);
  load(s, "qvn.pipCorner", pipCorner);
  std::optional<QvnPiPLayout> stored;
  if (auto json = bytesText(s, "qvn.pipLayout")) stored = QvnPiPLayout::fromJSON(*json);
  pipLayout = stored ? *stored : QvnPiPLayout::inCorner(pipCorner());
}

void CameraModel::loadAudioSettings() {
  auto& s = settings_;
  auto canonical = [this](const std::string& id) { return hubs_.audioDevices->canonicalUID(id); };

  // 6
  load(s, "qvn.monitorOn", monitorOn);
  load(s, "qvn.monitorVolume", monitorVolume);
  // 7: a stored final-output choice only counts with an audible override.
  auto override = s.integer("qvn.audibleSlotOverride");
  auto finalOutput = s.boolean("qvn.monitorFinalOutput");
  if (override && *override >= 1 && finalOutput) {
    audibleSlotOverride = static_cast<int>(*override);
    monitorFinalOutput = *finalOutput;
  } else {
    audibleSlotOverride = std::nullopt;
    monitorFinalOutput = true;
    applyMonitorRouting();
  }
  // 8: the stream always carries the mix; the master input waits for routing.
  goLiveMixAudio = true;
  hubs_.masterInput->stop();
  hubs_.meterBus->pushMaster({});
  // 9
  load(s, "qvn.auxOutputOn", auxOutputOn);
  load(s, "qvn.auxOutputDeviceID", auxOutputDeviceID);
  load(s, "qvn.auxOutputVolume", auxOutputVolume);
  syncAuxOutput();
  load(s, "qvn.masterAudioDeviceID", masterAudioDeviceID);
  load(s, "qvn.masterAudioVolume", masterAudioVolume);
  load(s, "qvn.masterAudioMuted", masterAudioMuted);
  if (auto dict = s.dict("qvn.slotAudioSource"))
    slotAudioSource = readSlotDict<SlotAudioSource>(dict, [](const SettingsValue& v) {
      auto text = v.asText();
      return text ? enumFromText<SlotAudioSource>(*text) : std::nullopt;
    });
  load(s, "qvn.cueMixerOn", cueMixerOn);
  load(s, "qvn.duckingOn", duckingOn);
  load(s, "qvn.duckThreshold", duckThreshold);
  load(s, "qvn.duckPrioritySlot", duckPrioritySlot);
  applyCueMix();
  // 10
  if (auto dict = s.dict("qvn.cueGains"))
    cueGains = readSlotDict<double>(dict, [](const SettingsValue& v) { return v.asReal(); });
  // 11: older stores kept the monitor device as an integer.
  if (auto text = s.text("qvn.outputDeviceID")) {
    outputDeviceID = canonical(*text);
  } else if (auto number = s.integer("qvn.outputDeviceID")) {
    outputDeviceID = canonical(std::to_string(*number));
    s.set("qvn.outputDeviceID", *outputDeviceID());
  }
  if (auto text = s.text("qvn.programOutputID")) programOutputID = canonical(*text);
  load(s, "qvn.programAlwaysOnTop", programAlwaysOnTop);
  load(s, "qvn.selectedScreenID", selectedScreenID);
  load(s, "qvn.selectedMicID", selectedMicID);
  // 12
  if (auto dict = s.dict("qvn.labels"))
    labels = readSlotDict<std::string>(dict, [](const SettingsValue& v) { return v.asText(); });
  if (auto dict = s.dict("qvn.slotMuted"))
    muted = readSlotDict<bool>(dict, [](const SettingsValue& v) { return v.asBool(); });
  applyLabelsToSlots();
  // 13: only "none" is honoured; every other stored source records the mix.
  if (auto text = s.text("qvn.audioSource"))
    audioSource = *text == "none" ? RecordAudioSource{RecordAudioSource::Kind::none, std::nullopt}
                                  : RecordAudioSource{};
  hubs_.masterInput->stop();
  hubs_.monitorMixer->setVolume(monitorVolume());
  hubs_.media->setVolume(monitorVolume());
  hubs_.audio->suppressWebRTCPlayout();
  hubs_.audio->setMonitorDevice(outputDeviceID());
}

void CameraModel::loadOverlaySettings() {
  auto& s = settings_;
  // 15
  load(s, "qvn.overlaysOn", overlaysOn);
  load(s, "qvn.lowerThirdOn", lowerThirdOn);
  load(s, "qvn.lowerThirdName", lowerThirdName);
  load(s, "qvn.lowerThirdTitle", lowerThirdTitle);
  load(s, "qvn.logoOn", logoOn);
  load(s, "qvn.logoCorner", logoCorner);
  load(s, "qvn.logoName", logoName);
  if (auto bookmark = s.bytes("qvn.logoBookmark")) {
    logoBookmark = *bookmark;
    // On this system a bookmark is the file's path; it resolves while the file is there.
    std::filesystem::path file(std::string(bookmark->begin(), bookmark->end()));
    std::error_code error;
    if (std::filesystem::exists(file, error)) logoURL = file;
  }
  // 16
  if (auto json = bytesText(s, "qvn.overlayLook"))
    if (auto look = OverlayLook::fromJSON(*json)) overlayLook = *look;
  // 17
  applyCueMix();
  hubs_.overlays->migrateLegacyOverlaysIfNeeded();
  hubs_.overlays->setEnabled(overlaysOn());
  hubs_.overlays->pushToMix(true);
}

}  // namespace qvn
