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
#include <type_traits>
#include <vector>

#include "platform/defaults.h"
#include "platform/dispatch.h"
#include "platform/files.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"

namespace qvn::test {

// How a recorded argument is written in the trace.
template <class T>
std::string word(const T& v) {
  if constexpr (std::is_same_v<T, bool>) {
    return v ? "true" : "false";
  } else if constexpr (std::is_arithmetic_v<T>) {
    std::ostringstream out;
    out << v;
    return out.str();
  } else if constexpr (requires { v.has_value(); }) {
    return v ? *v : "none";
  } else if constexpr (requires { v.begin(); } && !std::is_convertible_v<T, std::string>) {
    std::string out = "[";
    for (const auto& item : v) out += (out.size() > 1 ? "," : "") + word(item);
    return out + "]";
  } else {
    return v;
  }
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

// A hub stand-in that records each call as "<hub>.<function> args".
template <class Hub>
struct Rec : Hub {
  Rec(Trace& trace, const char* hubName) : t(trace), name(hubName) {}
  template <class... A>
  void rec(const char* fn, const A&... args) const {
    t(std::string(name) + "." + fn, args...);
  }
  Trace& t;
  const char* name;
};

// One recorded function: its name, its parameter list, and the arguments to record; and a hub
// made of them.
// clang-format off
#define QVN_REC(ret, fn, params, ...) ret fn params override { rec(#fn __VA_OPT__(, ) __VA_ARGS__); }
#define QVN_GET(ret, fn, value) ret fn() const override { return rec(#fn), value; }
#define QVN_HUB(Name, Base, ...) struct Name final : Rec<Base> { using Rec::Rec; __VA_ARGS__ };

// The hubs of local sources share the two ways to stop one.
template <class Hub>
struct RecLocal : Rec<Hub> {
  using Rec<Hub>::Rec;
  using Rec<Hub>::rec;
  QVN_REC(void, stopSlot, (int slot), slot)
  QVN_REC(void, stopDevice, (const std::string& id), id)
};
#define QVN_LOCAL(Name, Base, ...) struct Name final : RecLocal<Base> { using RecLocal::RecLocal; __VA_ARGS__ };

QVN_HUB(RecSignaling, SignalingServer, std::optional<std::string> startError;
  QVN_REC(void, setPin, (std::string pin), pin) QVN_REC(void, setAcceptNewDevices, (bool on), on)
  QVN_REC(void, setAudioEnabled, (int audible, std::set<int> muted), audible, muted.size())
  std::optional<std::string> start() override { return rec("start"), startError; })
QVN_HUB(RecMix, MixControl, QVN_REC(void, start, ()) QVN_REC(void, setFill, (bool fill), fill)
  QVN_REC(void, setCanvas, (int w, int h), word(w) + "x" + word(h))
  QVN_REC(void, setTransitionDuration, (double s), s)
  QVN_REC(void, clearIf, (int slot, std::vector<int> live), slot, live)
  QVN_REC(void, setImageCrop, (int slot, ImageCrop c, bool snap), slot, c.zoom, c.panX, c.panY, snap)
  QVN_REC(void, setHoldPreview, (bool on), on) QVN_REC(void, setPreviewVisible, (bool on), on)
  QVN_REC(void, setPreview, (int slot), slot)
  QVN_REC(void, switchTo, (int slot, MixTransition kind), slot, std::string(enumText(kind)))
  QVN_REC(void, takePreview, (MixTransition kind, bool swap), std::string(enumText(kind)), swap)
  QVN_REC(void, setManual, (double p, MixTransition kind), p, std::string(enumText(kind)))
  void endManual(bool commit, bool swap, std::function<void(bool)> done) override {
    rec("endManual", commit, swap); if (done) done(commit); }
  QVN_REC(void, setPiP, (bool on, int slot, const QvnPiPLayout& layout, Bus bus), on, slot,
          layout.x, layout.y, std::string(bus == Bus::both ? "both" : bus == Bus::program ? "program" : "preview")))
QVN_HUB(RecFrames, FrameHub, std::set<int> withFrame; QVN_REC(void, clear, (int slot), slot)
  bool hasFrame(int slot) const override { return rec("hasFrame", slot), withFrame.contains(slot); })
QVN_LOCAL(RecLocalCapture, LocalCaptureHub, std::vector<Device> devices{{"cam-1", "Desk Cam"}};
  std::vector<Device> listDevices() override { return rec("listDevices"), devices; }
  QVN_GET(Authorization, authorization, Authorization::authorized)
  void requestAccess(std::function<void(bool)> answer) override { rec("requestAccess"), answer(true); }
  std::optional<std::string> start(const std::string& id, int slot) override { return rec("start", id, slot), std::nullopt; }
  QVN_REC(void, restartRunning, ()))
QVN_LOCAL(RecMedia, MediaSourceHub, std::map<int, bool> decks;  // slot to the deck's own mute flag
  bool hasDeck(int slot) const override { return rec("hasDeck", slot), decks.contains(slot); }
  bool deckMuted(int slot) const override { return rec("deckMuted", slot), decks.contains(slot) && decks.at(slot); }
  void setDeckMuted(int slot, bool m) override { rec("setDeckMuted", slot, m), decks[slot] = m; }
  QVN_REC(void, routeSoundThroughEngine, ()) QVN_REC(void, setMonitorEnabled, (bool on), on)
  QVN_REC(void, setVolume, (double volume), volume) QVN_REC(void, resumeAfterSleep, ()))
QVN_LOCAL(RecScreenCapture, ScreenCaptureHub, QVN_REC(void, start, (const Target& target, int slot), target.id, slot))
QVN_LOCAL(RecNDI, NDIHub, std::optional<std::string> start(const NDISourceItem& source, int slot) override {
  return rec("start", source.name, slot), std::nullopt; })
QVN_HUB(RecRecorder, SessionRecorder, std::optional<std::filesystem::path> file;
  std::optional<std::filesystem::path> start(int slot, RecordAudioSource audio, const RecordOptions&,
                                             const std::optional<std::string>& workspace) override {
    return rec("start", slot, int(audio.kind), workspace), file; }
  QVN_REC(void, stop, ()) QVN_REC(void, detachTap, (int slot), slot)
  void attachTap(std::shared_ptr<PCMTap> tap, int slot) override { rec("attachTap", bool(tap), slot); }
  QVN_REC(void, recoverUnfinished, (const std::filesystem::path& folder), folder.filename().string())
  QVN_REC(void, followAudioSlot, (int slot), slot))
QVN_HUB(RecPublisher, GoLivePublisher, bool starts = true;
  QVN_REC(void, setProgramSlot, (int slot), slot) QVN_REC(void, stop, ())
  bool start(const std::string& url, const std::string& key, int slot, const StreamConfig& c) override {
    return rec("start", url + "/" + key, slot, word(c.width) + "x" + word(c.height)), starts; }
  void setPreferredSize(std::optional<std::pair<int, int>> size) override {
    rec("setPreferredSize", size ? word(size->first) + "x" + word(size->second) : "none"); }
  long networkDrops() const override { return 0; })
QVN_HUB(RecProgramOutput, ProgramOutput, QVN_GET(int, extendedCount, 0)
  QVN_GET(std::vector<std::string>, extendedScreenIDs, std::vector<std::string>{})
  QVN_GET(std::vector<ExtendedOutput>, extendedOutputs, std::vector<ExtendedOutput>{})
  QVN_REC(void, applyScreenLayout, ()) QVN_REC(void, followProgram, ()))
QVN_HUB(RecVirtualCamera, VirtualCameraController, QVN_REC(void, refresh, ()))
QVN_HUB(RecAudio, QvnAudioEngine, QVN_GET(bool, isRunning, false) QVN_REC(void, restart, ())
  QVN_REC(void, setMonitorEnabled, (bool on), on) QVN_REC(void, setMonitorVolume, (double v), v)
  QVN_REC(void, setMonitorDevice, (const std::optional<std::string>& id), id)
  QVN_REC(void, setProgramOutput, (const std::optional<std::string>& id), id)
  QVN_REC(void, setMuted, (bool m, int source), m, source) QVN_REC(void, suppressWebRTCPlayout, ())
  QVN_REC(void, setProgramSlot, (int slot), slot))
QVN_HUB(RecAudioDevices, QvnAudioDevices,
  std::vector<QvnAudioDevice> inputs() override { return rec("inputs"), std::vector<QvnAudioDevice>{}; }
  std::vector<QvnAudioDevice> outputs() override { return rec("outputs"), std::vector<QvnAudioDevice>{}; }
  std::string canonicalUID(const std::string& id) override { return rec("canonicalUID", id), id; })
QVN_HUB(RecMasterInput, QvnMasterAudioInput, QVN_REC(void, stop, ()))
QVN_HUB(RecMonitorMixer, QvnMonitorMixer, QVN_REC(void, setVolume, (double v), v)
  QVN_REC(void, kickMonitor, ()))
QVN_HUB(RecWirelessBrowser, WirelessDisplayBrowser, QVN_REC(void, start, ()))
QVN_HUB(RecAuxOutput, QvnAuxOutput, QVN_REC(void, setVolume, (double v), v))
QVN_HUB(RecExternalHub, QvnExternalHub, std::set<std::string> inputDevices;
  QVN_REC(void, attach, ()) QVN_REC(void, reconcileDevices, ())
  bool usesInputDevice(const std::string& id) const override { return rec("usesInputDevice", id), inputDevices.contains(id); })
QVN_HUB(RecMeterBus, QvnMeterBus, QVN_REC(void, pushMaster, (std::vector<float> levels), levels)
  QVN_REC(void, pushMix, (std::vector<float> levels), levels) QVN_REC(void, clear, (int slot), slot))
QVN_HUB(RecMediaLibrary, QvnMediaLibrary, QVN_REC(void, ensureFolders, ())
  std::vector<LibraryItem> items() override { return rec("items"), std::vector<LibraryItem>{}; })
QVN_HUB(RecOverlays, OverlayStore, bool isEnabled = false;
  bool enabled() const override { return rec("enabled"), isEnabled; }
  void setEnabled(bool on) override { rec("setEnabled", on), isEnabled = on; }
  QVN_REC(void, setStudioMode, (bool on), on) QVN_REC(void, setEditProgram, (bool on), on)
  QVN_REC(void, didTake, ())
  QVN_REC(void, pushToMix, (bool rerender), rerender) QVN_REC(void, migrateLegacyOverlaysIfNeeded, ()))
// The account's phases move as the real one's do; a session comes when the test answers
// `starts`, and an end finishes when it answers `ends` (at once with `endsAtOnce`).
QVN_HUB(RecCloud, QvnCloudAccount, bool token = true; bool endsAtOnce = true;
  std::vector<std::function<void(std::optional<QvnCloud::Session>)>> starts;
  std::vector<std::function<void()>> ends;
  QVN_REC(void, restore, ()) QVN_REC(void, setPermissionMessage, (std::optional<std::string> text), text)
  bool hasAccessToken() override { return token; }
  std::string dashboardHost() const override { return "cloud.test"; }
  std::string dashboardURL() const override { return "https://cloud.test/dashboard"; }
  QVN_REC(void, loadDestinations, ()) QVN_REC(void, toggle, (const std::string& id, bool on), id, on)
  QVN_REC(void, loadEmbedLink, ()) QVN_REC(void, createEmbedLink, ())
  QVN_REC(void, endLiveBlocking, (double timeout), timeout)
  void startLive(std::function<void(std::optional<QvnCloud::Session>)> done) override {
    rec("startLive"), starts.push_back(std::move(done)); }
  void markLive() override { rec("markLive"), livePhase = LivePhase::live, publishing = true; }
  void noteReconnecting() override { rec("noteReconnecting"), livePhase = LivePhase::connecting, publishing = false; }
  void failLive(const std::string& m) override { rec("failLive", m), liveFailure = m, livePhase = LivePhase::error; }
  void endLive(std::function<void()> done) override {
    rec("endLive");
    auto finish = [this, done] {
      if (livePhase() != LivePhase::error) livePhase = LivePhase::ended;
      publishing = false;
      done();
    };
    if (endsAtOnce) finish(); else ends.push_back(finish);
  })
QVN_HUB(RecUpdater, QvnAutoUpdater, QVN_REC(void, start, ()))
QVN_HUB(RecTelemetry, QvnTelemetry, QVN_REC(void, heartbeatAtQuit, (double timeout), timeout))
QVN_HUB(RecScreens, Screens, std::vector<DisplayInfo> displays;
  std::vector<DisplayInfo> list() override { return rec("list"), displays; })
QVN_HUB(RecKeys, KeyMonitor, QVN_REC(void, install, (Handler)))
QVN_HUB(RecSleep, SleepWatcher, std::optional<std::string> start() override { return rec("start"), std::nullopt; })
QVN_HUB(RecStayAwake, StayAwake, QVN_REC(void, stop, ())
  std::optional<std::string> start() override { return rec("start"), std::nullopt; })
// Records the observers and hands them to `app`, which fires them (the shell needs it).
QVN_HUB(RecLifecycle, AppLifecycle,
  std::shared_ptr<ManualAppLifecycle> app = std::make_shared<ManualAppLifecycle>();
  void observeWillTerminate(std::function<void()> f) override { rec("observeWillTerminate"), app->observeWillTerminate(std::move(f)); }
  void observeDidResignActive(std::function<void()> f) override { rec("observeDidResignActive"), app->observeDidResignActive(std::move(f)); })
#undef QVN_REC
#undef QVN_GET
#undef QVN_HUB
#undef QVN_LOCAL

#define QVN_RECORDING_HUBS(X) \
  X(signaling, RecSignaling) X(mix, RecMix) X(frames, RecFrames) X(localCapture, RecLocalCapture) \
  X(media, RecMedia) X(screenCapture, RecScreenCapture) X(ndi, RecNDI) X(recorder, RecRecorder) X(publisher, RecPublisher) \
  X(programOutput, RecProgramOutput) X(virtualCamera, RecVirtualCamera) \
  X(wirelessBrowser, RecWirelessBrowser) X(audio, RecAudio) X(audioDevices, RecAudioDevices) \
  X(masterInput, RecMasterInput) X(monitorMixer, RecMonitorMixer) X(auxOutput, RecAuxOutput) \
  X(externalHub, RecExternalHub) X(meterBus, RecMeterBus) X(mediaLibrary, RecMediaLibrary) \
  X(overlays, RecOverlays) X(cloud, RecCloud) X(updater, RecUpdater) X(telemetry, RecTelemetry) \
  X(screens, RecScreens) X(keys, RecKeys) X(sleep, RecSleep) X(stayAwake, RecStayAwake) \
  X(lifecycle, RecLifecycle)
// clang-format on

struct RecordingHubs {
  explicit RecordingHubs(Trace& trace) : t(trace) {}
  Trace& t;
#define QVN_DECLARE_HUB(name, Type) std::shared_ptr<Type> name = std::make_shared<Type>(t, #name);
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
