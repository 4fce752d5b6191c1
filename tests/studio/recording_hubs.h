// Recording stand-ins for every hub the studio talks to, and a fixture that builds a model
// on them. Every call lands in one shared Trace as a short line ("mix.setCanvas 1920x1080"),
// so a test sees what the model asked and in which order. Questions the model asks are
// answered from plain public fields; callbacks are fired by calling the hub's property.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "platform/defaults.h"
#include "platform/dispatch.h"
#include "platform/files.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"

namespace qvn::test {

inline std::string word(bool v) {
  return v ? "true" : "false";
}
inline std::string word(int v) {
  return std::to_string(v);
}
inline std::string word(double v) {
  std::ostringstream out;
  out << v;
  return out.str();
}
inline std::string word(const std::string& v) {
  return v;
}
inline std::string word(const std::optional<std::string>& v) {
  return v ? *v : "none";
}
template <class T>
std::string word(const std::vector<T>& items) {
  std::string out = "[";
  for (const auto& item : items) out += (out.size() > 1 ? "," : "") + word(item);
  return out + "]";
}

struct Trace {
  std::vector<std::string> calls;
  // Runs just before a call is recorded, so a test can act at that exact moment.
  std::function<void(const std::string& call)> probe;

  template <class... A>
  void operator()(std::string call, const A&... args) {
    ((call += " " + word(args)), ...);
    if (probe) probe(call);
    calls.push_back(std::move(call));
  }
  long count(const std::string& call) const { return std::ranges::count(calls, call); }
  bool has(const std::string& call) const { return count(call) > 0; }
};

struct Recorder {
  explicit Recorder(Trace& trace) : t(trace) {}
  Trace& t;
};

struct RecSignaling final : SignalingServer, Recorder {
  using Recorder::Recorder;
  std::optional<std::string> startError;
  void setPin(std::string pin) override { t("signaling.setPin", pin); }
  void setAcceptNewDevices(bool accept) override { t("signaling.setAcceptNewDevices", accept); }
  std::optional<std::string> start() override { return t("signaling.start"), startError; }
};

struct RecMix final : MixControl, Recorder {
  using Recorder::Recorder;
  void start() override { t("mix.start"); }
  void setFill(bool fill) override { t("mix.setFill", fill); }
  void setCanvas(int w, int h) override { t("mix.setCanvas", word(w) + "x" + word(h)); }
  void setTransitionDuration(double s) override { t("mix.setTransitionDuration", s); }
  void clearIf(int slot, std::vector<int> live) override { t("mix.clearIf", slot, live); }
  void setImageCrop(int slot, ImageCrop c, bool snap) override {
    t("mix.setImageCrop", slot, c.zoom, c.panX, c.panY, snap);
  }
};

struct RecFrames final : FrameHub, Recorder {
  using Recorder::Recorder;
  std::set<int> withFrame;
  bool hasFrame(int slot) const override {
    return t("frames.hasFrame", slot), withFrame.contains(slot);
  }
  void clear(int slot) override { t("frames.clear", slot); }
};

template <class Hub>
struct RecLocal : Hub, Recorder {
  RecLocal(Trace& trace, std::string hubName) : Recorder(trace), name(std::move(hubName)) {}
  std::string name;
  void stopSlot(int slot) override { t(name + ".stopSlot", slot); }
  void stopDevice(const std::string& id) override { t(name + ".stopDevice", id); }
};

struct RecLocalCapture final : RecLocal<LocalCaptureHub> {
  explicit RecLocalCapture(Trace& trace) : RecLocal(trace, "localCapture") {}
  std::vector<Device> devices{{"cam-1", "Desk Cam"}};
  Authorization access = Authorization::authorized;
  bool grant = true;
  std::optional<std::string> startError;
  std::vector<Device> listDevices() override { return t("localCapture.listDevices"), devices; }
  Authorization authorization() const override { return t("localCapture.authorization"), access; }
  void requestAccess(std::function<void(bool)> answer) override {
    t("localCapture.requestAccess");
    answer(grant);
  }
  std::optional<std::string> start(const std::string& id, int slot) override {
    return t("localCapture.start", id, slot), startError;
  }
  void restartRunning() override { t("localCapture.restartRunning"); }
};

struct RecMedia final : RecLocal<MediaSourceHub> {
  explicit RecMedia(Trace& trace) : RecLocal(trace, "media") {}
  std::map<int, bool> decks;  // slot to the deck's own mute flag
  bool hasDeck(int slot) const override { return t("media.hasDeck", slot), decks.contains(slot); }
  bool deckMuted(int slot) const override {
    return t("media.deckMuted", slot), decks.contains(slot) && decks.at(slot);
  }
  void setDeckMuted(int slot, bool m) override {
    t("media.setDeckMuted", slot, m), decks[slot] = m;
  }
  void routeSoundThroughEngine() override { t("media.routeSoundThroughEngine"); }
  void setMonitorEnabled(bool on) override { t("media.setMonitorEnabled", on); }
  void setVolume(double volume) override { t("media.setVolume", volume); }
  void resumeAfterSleep() override { t("media.resumeAfterSleep"); }
};

struct RecScreenCapture final : RecLocal<ScreenCaptureHub> {
  explicit RecScreenCapture(Trace& trace) : RecLocal(trace, "screenCapture") {}
  void start(const Target& target, int slot) override { t("screenCapture.start", target.id, slot); }
};

struct RecNDI final : RecLocal<NDIHub> {
  explicit RecNDI(Trace& trace) : RecLocal(trace, "ndi") {}
  std::optional<std::string> startError;
  std::optional<std::string> start(const NDISourceItem& source, int slot) override {
    return t("ndi.start", source.name, slot), startError;
  }
};

struct RecRecorder final : SessionRecorder, Recorder {
  using Recorder::Recorder;
  void detachTap(int slot) override { t("recorder.detachTap", slot); }
};

struct RecProgramOutput final : ProgramOutput, Recorder {
  using Recorder::Recorder;
  std::vector<ExtendedOutput> heads;
  int extendedCount() const override {
    return t("programOutput.extendedCount"), static_cast<int>(heads.size());
  }
  std::vector<std::string> extendedScreenIDs() const override {
    std::vector<std::string> ids;
    for (const auto& head : heads) ids.push_back(head.screenID);
    return t("programOutput.extendedScreenIDs"), ids;
  }
  std::vector<ExtendedOutput> extendedOutputs() const override {
    return t("programOutput.extendedOutputs"), heads;
  }
  void applyScreenLayout() override { t("programOutput.applyScreenLayout"); }
};

struct RecVirtualCamera final : VirtualCameraController, Recorder {
  using Recorder::Recorder;
  void refresh() override { t("virtualCamera.refresh"); }
};

struct RecWireless final : WirelessDisplayBrowser {
  explicit RecWireless(Trace&) {}
};

struct RecAudio final : QvnAudioEngine, Recorder {
  using Recorder::Recorder;
  bool running = false;
  bool isRunning() const override { return t("audio.isRunning"), running; }
  void restart() override { t("audio.restart"); }
  void setMonitorEnabled(bool on) override { t("audio.setMonitorEnabled", on); }
  void setMonitorVolume(double v) override { t("audio.setMonitorVolume", v); }
  void setMonitorDevice(const std::optional<std::string>& id) override {
    t("audio.setMonitorDevice", id);
  }
  void setProgramOutput(const std::optional<std::string>& id) override {
    t("audio.setProgramOutput", id);
  }
  void setMuted(bool m, int source) override { t("audio.setMuted", m, source); }
  void suppressWebRTCPlayout() override { t("audio.suppressWebRTCPlayout"); }
};

struct RecAudioDevices final : QvnAudioDevices, Recorder {
  using Recorder::Recorder;
  std::vector<QvnAudioDevice> inputList, outputList;
  std::map<std::string, std::string> canonical;  // absent ids are already canonical
  std::vector<QvnAudioDevice> inputs() override { return t("audioDevices.inputs"), inputList; }
  std::vector<QvnAudioDevice> outputs() override { return t("audioDevices.outputs"), outputList; }
  std::string canonicalUID(const std::string& id) override {
    t("audioDevices.canonicalUID", id);
    return canonical.contains(id) ? canonical.at(id) : id;
  }
};

struct RecMasterInput final : QvnMasterAudioInput, Recorder {
  using Recorder::Recorder;
  void stop() override { t("masterInput.stop"); }
};

struct RecMonitorMixer final : QvnMonitorMixer, Recorder {
  using Recorder::Recorder;
  void setVolume(double v) override { t("monitorMixer.setVolume", v); }
};

struct RecAuxOutput final : QvnAuxOutput, Recorder {
  using Recorder::Recorder;
  void setVolume(double v) override { t("auxOutput.setVolume", v); }
};

struct RecExternalHub final : QvnExternalHub, Recorder {
  using Recorder::Recorder;
  void attach() override { t("externalHub.attach"); }
  void reconcileDevices() override { t("externalHub.reconcileDevices"); }
};

struct RecMeterBus final : QvnMeterBus, Recorder {
  using Recorder::Recorder;
  void pushMaster(std::vector<float> levels) override { t("meterBus.pushMaster", levels); }
  void pushMix(std::vector<float> levels) override { t("meterBus.pushMix", levels); }
  void clear(int slot) override { t("meterBus.clear", slot); }
};

struct RecMediaLibrary final : QvnMediaLibrary, Recorder {
  using Recorder::Recorder;
  std::vector<LibraryItem> list;
  std::vector<LibraryItem> items() override { return t("mediaLibrary.items"), list; }
  void ensureFolders() override { t("mediaLibrary.ensureFolders"); }
};

struct RecOverlays final : OverlayStore, Recorder {
  using Recorder::Recorder;
  void setEnabled(bool on) override { t("overlays.setEnabled", on); }
  void pushToMix(bool rerender) override { t("overlays.pushToMix", rerender); }
  void migrateLegacyOverlaysIfNeeded() override { t("overlays.migrateLegacyOverlaysIfNeeded"); }
};

struct RecCloud final : QvnCloudAccount, Recorder {
  using Recorder::Recorder;
  LivePhase phase = LivePhase::idle;
  bool isPublishing = false;
  std::optional<std::string> permissionMessage;
  void restore() override { t("cloud.restore"); }
  LivePhase livePhase() const override { return t("cloud.livePhase"), phase; }
  bool publishing() const override { return t("cloud.publishing"), isPublishing; }
  void setPermissionMessage(std::optional<std::string> text) override {
    t("cloud.setPermissionMessage", text), permissionMessage = text;
  }
  void endLiveBlocking(double timeout) override { t("cloud.endLiveBlocking", timeout); }
};

struct RecUpdater final : QvnAutoUpdater, Recorder {
  using Recorder::Recorder;
  void start() override { t("updater.start"); }
};

struct RecTelemetry final : QvnTelemetry, Recorder {
  using Recorder::Recorder;
  void heartbeatAtQuit(double timeout) override { t("telemetry.heartbeatAtQuit", timeout); }
};

struct RecScreens final : Screens, Recorder {
  using Recorder::Recorder;
  std::vector<DisplayInfo> displays;
  std::vector<DisplayInfo> list() override { return t("screens.list"), displays; }
};

struct RecKeys final : KeyMonitor, Recorder {
  using Recorder::Recorder;
  void install(Handler) override { t("keys.install"); }
};

struct RecSleep final : SleepWatcher, Recorder {
  using Recorder::Recorder;
  std::optional<std::string> start() override { return t("sleep.start"), std::nullopt; }
};

struct RecStayAwake final : StayAwake, Recorder {
  using Recorder::Recorder;
  std::optional<std::string> start() override { return t("stayAwake.start"), std::nullopt; }
  void stop() override { t("stayAwake.stop"); }
};

// Records the observers and hands them to `app`, which fires them (the shell needs it).
struct RecLifecycle final : AppLifecycle, Recorder {
  using Recorder::Recorder;
  std::shared_ptr<ManualAppLifecycle> app = std::make_shared<ManualAppLifecycle>();
  void observeWillTerminate(std::function<void()> handler) override {
    t("lifecycle.observeWillTerminate"), app->observeWillTerminate(std::move(handler));
  }
  void observeDidResignActive(std::function<void()> handler) override {
    t("lifecycle.observeDidResignActive"), app->observeDidResignActive(std::move(handler));
  }
};

// clang-format off
#define QVN_RECORDING_HUBS(X) \
  X(signaling, RecSignaling) \
  X(mix, RecMix) \
  X(frames, RecFrames) \
  X(localCapture, RecLocalCapture) \
  X(media, RecMedia) \
  X(screenCapture, RecScreenCapture) \
  X(ndi, RecNDI) \
  X(recorder, RecRecorder) \
  X(programOutput, RecProgramOutput) \
  X(virtualCamera, RecVirtualCamera) \
  X(wirelessBrowser, RecWireless) \
  X(audio, RecAudio) \
  X(audioDevices, RecAudioDevices) \
  X(masterInput, RecMasterInput) \
  X(monitorMixer, RecMonitorMixer) \
  X(auxOutput, RecAuxOutput) \
  X(externalHub, RecExternalHub) \
  X(meterBus, RecMeterBus) \
  X(mediaLibrary, RecMediaLibrary) \
  X(overlays, RecOverlays) \
  X(cloud, RecCloud) \
  X(updater, RecUpdater) \
  X(telemetry, RecTelemetry) \
  X(screens, RecScreens) \
  X(keys, RecKeys) \
  X(sleep, RecSleep) \
  X(stayAwake, RecStayAwake) \
  X(lifecycle, RecLifecycle)
// clang-format on

struct RecordingHubs {
  explicit RecordingHubs(Trace& trace) : t(trace) {}
  Trace& t;
#define QVN_DECLARE_HUB(name, Type) std::shared_ptr<Type> name = std::make_shared<Type>(t);
  QVN_RECORDING_HUBS(QVN_DECLARE_HUB)
#undef QVN_DECLARE_HUB

  StudioHubs all() const {
    StudioHubs hubs;
#define QVN_ASSIGN_HUB(name, Type) hubs.name = name;
    QVN_RECORDING_HUBS(QVN_ASSIGN_HUB)
#undef QVN_ASSIGN_HUB
    return hubs;
  }
};

// What the signaling server reports: all 16 rows, the phones in `live` connected.
inline std::vector<CameraSlot> phoneRows(const std::set<int>& live) {
  std::vector<CameraSlot> rows;
  for (int n = 1; n <= CameraModel::kSlotCount; ++n) {
    rows.push_back(CameraSlot::empty(n));
    if (!live.contains(n)) continue;
    rows.back().live = true;
    rows.back().status = "Live";
    rows.back().title = "Phone " + word(n);
    rows.back().deviceId = "phone-" + word(n);
  }
  return rows;
}

// A non-phone source as its hub reports it live.
inline CameraSlot localRow(int slot, std::string kind, std::string deviceId) {
  CameraSlot row = CameraSlot::empty(slot);
  row.live = true;
  row.status = "Live";
  row.kind = std::move(kind);
  row.title = deviceId;
  row.deviceId = std::move(deviceId);
  return row;
}

// A model on recording hubs, a virtual-clock main queue and a settings store in a fresh
// folder that also holds the session file and the log. Fill `store` before `build()` to
// give the model a history.
class StudioFixture : public ::testing::Test {
 protected:
  StudioFixture() {
    char pattern[] = "/tmp/qvn-studio-XXXXXX";
    if (::mkdtemp(pattern)) root = pattern;
    setAppPaths(AppPaths::underRoot(root));
    store = std::make_unique<Defaults>(appPaths().settingsFile());
  }
  ~StudioFixture() override {
    model.reset();
    store.reset();
    QvnLog::flush();
    setAppPaths(savedPaths);
    std::filesystem::remove_all(root);
  }

  StudioContext context() {
    return {main, *store, hubs.all(), [] { return "10.0.0.7"; }};
  }
  // A new model on the current store; an earlier one is dropped first.
  CameraModel& build() {
    model.reset();
    model = std::make_unique<CameraModel>(context());
    return *model;
  }
  CameraModel& start() {
    build().start();
    return *model;
  }
  std::string logFileText() {
    QvnLog::flush();
    return readFile(appPaths().logFile()).value_or("");
  }
  std::filesystem::path sessionFile() const { return appPaths().dataDir / "session.json"; }

  AppPaths savedPaths = appPaths();
  std::filesystem::path root;
  ManualMainQueue main;
  std::unique_ptr<Defaults> store;
  Trace trace;
  RecordingHubs hubs{trace};
  std::unique_ptr<CameraModel> model;
};

}  // namespace qvn::test
