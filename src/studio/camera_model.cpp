// CameraModel: construction, the hub wiring, start-up in its fixed order, the toast and the
// status list, sleep and wake, and the end of the app.
#include "studio/camera_model.h"

#include <cstdio>
#include <random>

#include "phones/phone_audio_tap.h"
#include "platform/defaults.h"
#include "platform/net.h"
#include "studio/camera_model_hop.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

std::string drawPin() {
  std::random_device device;
  std::uniform_int_distribution<int> below10000(0, 9999);
  char text[8];
  std::snprintf(text, sizeof text, "%04d", below10000(device));
  return text;
}

std::vector<CameraSlot> emptySlots() {
  std::vector<CameraSlot> rows;
  for (int n = 1; n <= CameraModel::kSlotCount; ++n) rows.push_back(CameraSlot::empty(n));
  return rows;
}

std::vector<int> oneTo(int count) {
  std::vector<int> order;
  for (int n = 1; n <= count; ++n) order.push_back(n);
  return order;
}

}  // namespace

CameraModel::CameraModel(StudioContext context)
    : slots(emptySlots()),
      displayOrder(oneTo(kMinVisibleInputs)),
      panelDetach(context.settings),
      main_(context.main),
      settings_(context.settings),
      hubs_(std::move(context.hubs)),
      localAddress_(context.localAddress ? std::move(context.localAddress)
                                         : std::function<std::string()>(localIPv4Address)),
      anchor_(std::make_shared<Anchor>(Anchor{this})) {
  phonesEnabled = settings_.boolean("qvn.phones.enabled").value_or(false);
  migrateNavigationRail();
  pin = drawPin();
  ip = localAddress_();
  hubs_.signaling->setPin(pin());
  hubs_.signaling->setAcceptNewDevices(acceptNew());
  wireHubs();
  wirePublisher();
  panelRule_ = panel.subscribe([this](StudioPanel value) { panelDidChange(value); });
  // Views that observe only the model still refresh when the account changes.
  hubs_.cloud->onChange = hop([](CameraModel& m) { m.changed.emit(); });
}

// Delayed work holds the model itself; none of it may run once the model is gone.
CameraModel::~CameraModel() {
  toastTask_.cancel();
  stillFlashWork_.cancel();
  persistWork_.cancel();
  audioSaveWork_.cancel();
  for (auto& [slot, check] : pictureChecks_) check.cancel();
}

void CameraModel::wireHubs() {
  auto& h = hubs_;

  h.signaling->onSlotsChanged =
      hop([](CameraModel& m, std::vector<CameraSlot> rows) { m.slotsDidChange(rows); });
  // The signaling queue waits for these answers; the main thread never waits on it.
  h.signaling->isSlotLocallyOccupied = [&main = main_, weak = std::weak_ptr(anchor_)](int slot) {
    bool occupied = false;
    main.sync([&] {
      if (auto alive = weak.lock()) occupied = alive->model->localLive().contains(slot);
    });
    return occupied;
  };
  h.signaling->openSlotLimit = [&main = main_, weak = std::weak_ptr(anchor_)] {
    int limit = kMinVisibleInputs;
    main.sync([&] {
      if (auto alive = weak.lock()) limit = alive->model->visibleInputCount();
    });
    return limit;
  };
  h.signaling->onLog = hop([](CameraModel& m, std::string text) { m.appendLog(text); });
  h.signaling->onVideo = hop([](CameraModel& m, int slot, std::shared_ptr<RemoteVideoTrack> track) {
    if (track) {
      m.tracks.modify([&](auto& t) { t[slot] = track; });
    } else {
      m.tracks.modify([&](auto& t) { t.erase(slot); });
      m.lockedFocus.erase(slot);
    }
  });
  h.signaling->onAudioTap = hop([](CameraModel& m, int slot, std::shared_ptr<PhoneAudioTap> tap) {
    if (tap)
      m.hubs_.recorder->attachTap(std::move(tap), slot);
    else
      m.hubs_.recorder->detachTap(slot);
  });
  h.signaling->onResolution =
      hop([](CameraModel& m, int slot, std::string text, int width, int height) {
        if (slot < 1 || slot > kSlotCount) return;
        const CameraSlot& row = m.slots()[slot - 1];
        if (row.resolution == text && row.receivedWidth == width && row.receivedHeight == height)
          return;
        m.slots.modify([&](auto& rows) {
          CameraSlot& r = rows[slot - 1];
          if (r.resolution != text) r.resolution = text;
          if (r.receivedWidth != width) r.receivedWidth = width;
          if (r.receivedHeight != height) r.receivedHeight = height;
        });
      });

  h.mix->onDissolve = hop([](CameraModel& m, bool value) { m.dissolving = value; });
  h.mix->onBusChanged =
      hop([](CameraModel& m, int program, int preview) { m.busChanged(program, preview); });
  h.frames->onFirstFrame = hop([](CameraModel& m, int slot) {
    if (m.waitingForPicture().contains(slot))
      m.waitingForPicture.modify([&](auto& s) { s.erase(slot); });
  });

  h.recorder->onState =
      hop([](CameraModel& m, bool running, std::optional<std::filesystem::path> file) {
        // A recording started over another: the older movie finishes after the new one has
        // begun, and must not end it in the header.
        const bool older = !running && m.recording() && file != m.recordURL();
        if (!older) {
          m.recording = running;
          m.recordURL = file;
        }
        if (running) return;
        if (!older) m.recordTimer_.cancel();
        if (file && file != m.lastSavedURL_) {
          m.lastSavedURL_ = file;
          m.flash("Recording saved");
          m.library = m.hubs_.mediaLibrary->items();
        }
      });
  h.recorder->onRecovered =
      hop([](CameraModel& m, std::string name) { m.flash("Recovered the recording " + name); });
  h.programOutput->onChange = hop([](CameraModel& m, bool on) { m.programOutOn = on; });
  h.programOutput->onHeadsChanged = hop([](CameraModel& m, int) {
    auto& out = *m.hubs_.programOutput;
    m.extendedCount = out.extendedCount();
    m.extendedScreenIDs = out.extendedScreenIDs();
    m.extendedOutputs = out.extendedOutputs();
    m.programOutOn = out.extendedCount() > 0;
    m.saveSettings();
    m.schedulePersist();
  });

  for (LocalSourceHub* hub : {static_cast<LocalSourceHub*>(h.localCapture.get()),
                              static_cast<LocalSourceHub*>(h.media.get()),
                              static_cast<LocalSourceHub*>(h.screenCapture.get())}) {
    hub->onSlotLive = hop([](CameraModel& m, int, CameraSlot row) { m.attachLocal(row); });
    hub->onSlotOff =
        hop([](CameraModel& m, int slot, std::string deviceId) { m.detachLocal(slot, deviceId); });
  }
  h.ndi->onSlotLive = hop([](CameraModel& m, int, CameraSlot row) { m.attachLocal(row); });
  h.ndi->onSlotOff = hop([](CameraModel& m, int slot, std::string deviceId) {
    m.signalLost.modify([&](auto& lost) { lost.erase(slot); });
    m.detachLocal(slot, deviceId);
  });
  h.ndi->onSignalLost = hop([](CameraModel& m, int slot, std::string reason) {
    m.signalLost.modify([&](auto& lost) { lost[slot] = reason; });
    m.patchLocalSlot(slot, [&](CameraSlot& row) { row.status = reason; });
  });
  h.ndi->onSignalRestored = hop([](CameraModel& m, int slot) {
    m.signalLost.modify([&](auto& lost) { lost.erase(slot); });
    m.patchLocalSlot(slot, [](CameraSlot& row) { row.status = "Live"; });
  });
  h.ndi->onResolution = hop([](CameraModel& m, int slot, std::string text) {
    m.patchLocalSlot(slot, [&](CameraSlot& row) { row.resolution = text; });
  });
}

// ---- Start ---------------------------------------------------------------------------------

void CameraModel::start() {
  // 1
  if (started_) return;
  started_ = true;
  // 2
  ip = localAddress_();
  hubs_.signaling->setPin(pin());
  hubs_.signaling->setAcceptNewDevices(acceptNew());
  // 3
  if (settings_.boolean("qvn.phones.enabled").value_or(false)) startPhoneListener();
  // 4
  loadSettings();
  // 5: the master input starts only when routing asks for it.
  hubs_.masterInput->onLevel =
      hop([](CameraModel& m, std::vector<float> levels) { m.hubs_.meterBus->pushMaster(levels); });
  hubs_.masterInput->stop();
  hubs_.meterBus->pushMaster({});
  // 6
  hubs_.auxOutput->setVolume(auxOutputVolume());
  syncAuxOutput();
  // 7
  hubs_.mix->start();
  // 8
  applyProgramOutput(programOutputID());  // the stored device, nothing new to save
  // 9
  hubs_.mix->setFill(mixFill());
  // 10
  hubs_.virtualCamera->relaunchBlocker = [weak = std::weak_ptr(anchor_)]() {
    auto alive = weak.lock();
    return alive ? alive->model->relaunchBlocker() : std::nullopt;
  };
  hubs_.virtualCamera->refresh();
  // 11
  hubs_.audio->setMonitorVolume(monitorVolume());
  hubs_.audio->setMonitorDevice(outputDeviceID());
  hubs_.monitorMixer->onMixLevel =
      hop([](CameraModel& m, std::vector<float> levels) { m.hubs_.meterBus->pushMix(levels); });
  // 12
  hubs_.externalHub->attach();
  // 13
  if (!hubs_.audio->isRunning()) hubs_.audio->restart();
  hubs_.audio->setMonitorEnabled(monitorOn());
  // 14: media sound reaches the speakers only through the audio engine.
  hubs_.media->setMonitorEnabled(false);
  hubs_.media->routeSoundThroughEngine();
  // 15
  applyMonitorRouting();
  // 16
  refreshDevices();
  // 17
  hubs_.wirelessBrowser->onChange = hop(
      [](CameraModel& m, std::vector<WirelessDisplay> list) { m.nearbyWirelessDisplays = list; });
  // 18
  library = hubs_.mediaLibrary->items();
  hubs_.mediaLibrary->ensureFolders();
  // 19
  installKeyMonitor();
  // 20
  hubs_.localCapture->onDevicesChanged =
      hop([](CameraModel& m) { m.localDevices = m.hubs_.localCapture->listDevices(); });
  // 21: reading the status never raises the system's question.
  if (hubs_.localCapture->authorization() == LocalCaptureHub::Authorization::authorized)
    localDevices = hubs_.localCapture->listDevices();
  // 22
  loadDisplayOrder();
  // 23
  hubs_.cloud->restore();
  // 24-26
  restoreSession();
  applyFirstLaunchAudio();
  loadScenes();
  // 27
  hubs_.overlays->setEnabled(overlaysOn());
  hubs_.overlays->pushToMix(true);
  // 28
  if (auto error = hubs_.stayAwake->start()) QvnLog::line("stay awake: " + *error);
  // 29
  installSleepObservers();
  // 30
  if (!terminateObserved_) {
    terminateObserved_ = true;
    hubs_.lifecycle->observeWillTerminate([weak = std::weak_ptr(anchor_)] {
      if (auto alive = weak.lock()) alive->model->willTerminate();
    });
    hubs_.lifecycle->observeDidResignActive([weak = std::weak_ptr(anchor_)] {
      if (auto alive = weak.lock()) alive->model->persistWorkspace();
    });
  }
  // 31
  appendLog("Ready on " + ip() + ":" + std::to_string(hubs_.signaling->port()) + "  PIN " + pin());
  // 32
  hubs_.updater->showBlocker = [weak = std::weak_ptr(anchor_)]() {
    auto alive = weak.lock();
    return alive ? alive->model->updateBlocker() : std::nullopt;
  };
  hubs_.updater->onNotice = [weak = std::weak_ptr(anchor_)](std::string text) {
    if (auto alive = weak.lock()) alive->model->flash(text);
  };
  hubs_.updater->start();
  // A recording a crash left unfinished is made playable, and the operator told once.
  hubs_.recorder->recoverUnfinished(recordFolder());
}

std::optional<std::string> CameraModel::relaunchBlocker() const {
  if (recording()) return "Stop recording first, then press Reopen Studio.";
  if (isStreamRunning(hubs_.cloud->livePhase()))
    return "End Go Live first, then press Reopen Studio.";
  return std::nullopt;
}

std::optional<std::string> CameraModel::updateBlocker() const {
  if (isStreamRunning(hubs_.cloud->livePhase())) return "The update installs after Go Live ends.";
  if (recording()) return "The update installs after the recording stops.";
  return std::nullopt;
}

void CameraModel::startPhoneListener() {
  if (phonesListening_) return;
  hubs_.signaling->setPin(pin());
  hubs_.signaling->setAcceptNewDevices(acceptNew());
  if (auto error = hubs_.signaling->start()) {
    appendLog("Could not start listening: " + *error);
    return;
  }
  phonesListening_ = true;
  QvnLog::line("phone listener started");
}

void CameraModel::refreshDevices() {
  auto& audio = *hubs_.audioDevices;
  auto foundInputs = audio.inputs();
  if (foundInputs.empty()) foundInputs = audio.inputs();  // a device server can answer late
  auto foundOutputs = audio.outputs();
  auto foundDisplays = hubs_.screens->list();
  if (foundInputs != inputs()) inputs = foundInputs;
  if (foundOutputs != outputs()) outputs = foundOutputs;
  if (foundDisplays != displays()) displays = foundDisplays;
  hubs_.externalHub->reconcileDevices();

  if (!selectedScreenID() && !foundDisplays.empty()) {
    // Prefer an external display: the built-in one is the operator's own screen.
    const DisplayInfo* choice = &foundDisplays.front();
    for (const auto& d : foundDisplays)
      if (!d.builtIn) {
        choice = &d;
        break;
      }
    selectedScreenID = choice->id;
    saveSettings();
  }
}

// ---- Messages ------------------------------------------------------------------------------

void CameraModel::flash(const std::string& text) {
  toast = text;
  toastTask_.cancel();
  toastTask_ = DelayedWork::schedule(main_, kToastSeconds, [this, text] {
    if (toast() == text) toast = std::nullopt;
  });
}

void CameraModel::appendLog(const std::string& line) {
  log.modify([&](std::vector<std::string>& lines) {
    lines.push_back(line);
    if (lines.size() > kLogLimit) lines.erase(lines.begin(), lines.begin() + 50);
  });
}

// ---- Sleep, wake and the end ----------------------------------------------------------------

void CameraModel::installSleepObservers() {
  if (sleepObserved_) return;
  sleepObserved_ = true;
  auto& sleep = *hubs_.sleep;
  sleep.onWillSleep = hop([](CameraModel& m) {
    m.persistWorkspace();
    QvnLog::line("mac sleeping — studio stays running");
  });
  // The session may report one wake twice; the handler is repeatable.
  sleep.onDidWake = hop([](CameraModel& m) { m.handleWake(); });
  if (auto error = sleep.start()) QvnLog::line("sleep watch: " + *error);
}

void CameraModel::handleWake() {
  QvnLog::line("mac woke — restoring studio");
  refreshDevices();
  hubs_.programOutput->applyScreenLayout();
  hubs_.localCapture->restartRunning();
  hubs_.media->resumeAfterSleep();
  applyMonitorRouting();
}

void CameraModel::willTerminate() {
  // The panel windows that close as the studio quits leave the detached set as it was.
  panelDetach.markTerminating();
  persistWorkspace();
  hubs_.stayAwake->stop();
}

}  // namespace qvn
