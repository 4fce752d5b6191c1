// The one central object of the studio: the input table, Program and Preview as the operator
// sees them, settings, and the start of everything. Created once by the app, lives to the
// end of the process. All of it is main-thread state: every hub callback hops to the main
// queue first and holds the model weakly, so a callback that arrives after the model is
// gone does nothing.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "audio/audio_types.h"
#include "golive/go_live_check.h"
#include "golive/stream_output.h"
#include "outputs/record_options.h"
#include "phones/camera_caps.h"
#include "platform/dispatch.h"
#include "studio/key_action.h"
#include "studio/studio_hubs.h"
#include "studio/studio_panel_detach.h"
#include "studio/studio_values.h"
#include "support/observable.h"
#include "support/qvn_palette.h"

namespace qvn {

class Defaults;

struct StudioContext {
  MainQueue& main;
  Defaults& settings;
  StudioHubs hubs;
  // Where phones should dial; the machine's own address unless a test says otherwise.
  std::function<std::string()> localAddress;
};

class CameraModel {
 public:
  static constexpr int kSlotCount = 16;
  static constexpr int kMinVisibleInputs = 12;
  static constexpr double kToastSeconds = 2.4;
  static constexpr size_t kLogLimit = 200;

  explicit CameraModel(StudioContext context);
  ~CameraModel();
  CameraModel(const CameraModel&) = delete;
  CameraModel& operator=(const CameraModel&) = delete;

  // ---- Lifecycle ------------------------------------------------------------------------
  // Brings the studio up in its fixed order; one-way and idempotent.
  void start();
  void startPhoneListener();
  void refreshDevices();
  // The toast: shown 2.4 s; a later one replaces it and restarts the time.
  void flash(const std::string& text);
  // The in-memory status list: at most 200 lines; past that the oldest 50 go.
  void appendLog(const std::string& line);
  // Writes the session file now, or 0.3 s after the last of a burst of requests.
  void persistWorkspace();
  void schedulePersist();

  // ---- Settings -------------------------------------------------------------------------
  void loadSettings();
  void saveSettings();
  void scheduleAudioSave();
  void migrateNavigationRail();

  // ---- Input slots ----------------------------------------------------------------------
  void slotsDidChange(const std::vector<CameraSlot>& incoming);
  void attachLocal(const CameraSlot& row);
  // A local source left the slot. With a device id, only if that source still holds it.
  void detachLocal(int slot, const std::optional<std::string>& deviceId = std::nullopt);
  void mergeLocalIntoSlots();
  void patchLocalSlot(int slot, const std::function<void(CameraSlot&)>& change);
  void applyLabelsToSlots();
  void setLabel(const std::string& text, int slot);
  void noteNewInput(int slot);
  std::optional<int> nextEmptySlot() const;
  std::optional<int> freeSlot() const;
  std::optional<int> resolveTargetSlot();
  std::string sourcesFullMessage() const;
  void addOptionalInput();
  void hideLastOptionalInput();
  bool canHideOptionalInput() const;
  void loadDisplayOrder();
  void reorderInput(int from, int before);
  void commitManualOrder();
  void resetDisplayOrder();
  void resortDisplayOrderIfNeeded();
  std::optional<CameraSlot> heroSlot() const;
  std::vector<CameraSlot> liveSlots() const;
  int liveCount() const;
  std::optional<CameraSlot> selectedSlot() const;
  bool isStillImageSlot(int slot) const;
  void selectInput(int slot);
  void attachLocalCamera(const std::string& deviceId);
  void detachLocalCamera(const std::string& deviceId);
  void attachNDI(const NDISourceItem& item);
  void addScreen(const ScreenCaptureHub::Target& target);
  void toggleMute(std::optional<int> slot = std::nullopt);
  void setSourceMuted(const CameraSlot& row, bool value);
  bool audioMuted(const CameraSlot& row) const;
  bool newInputsStartMuted() const;
  bool isLive(int slot) const;
  // The live inputs in the order the operator sees them.
  std::vector<int> liveInDisplayOrder() const;

  // ---- Program and Preview --------------------------------------------------------------
  // The generic "this input": Preview in Studio style, Program in Single style.
  void selectCamera(int slot);
  void setPreview(int slot);
  // Straight to Program; a row that isn't live does nothing.
  void take(int slot, MixTransition kind);
  // Take: Preview to Program. Refused (with a toast) while Preview has shown no picture.
  void takePreview(MixTransition kind);
  bool canTake() const;
  // The T-bar: held at a progress, then let go; half way or more takes.
  void moveTBar(double progress);
  void releaseTBar();
  void didCommitTake(int slot);
  void cycleHero(bool forward);
  void cyclePreview(bool forward);
  void fillEmptyPreview();
  // The style switch's own action; `applyStudioMode` follows any change of the style.
  void chooseStudioMode(bool on);
  void applyStudioMode();
  // Studio style: edit Program directly instead of Preview. Runs `applyEditProgram` when
  // the flag really changes.
  void setEditProgram(bool on);
  void applyEditProgram();
  MixControl::Bus editBus() const;
  std::string editTargetName() const;
  void setDissolveSeconds(double seconds);
  void setProgramOutput(const std::optional<std::string>& deviceID);
  // Keys and menu items; true when the action was taken up.
  bool perform(const QvnKeyAction& action);
  // A still of the input's newest picture, saved to the stills folder.
  // Slot 0 (Program) as "Mix", an input as "Source-{n}", saved as a PNG in Stills.
  void captureStill(int slot);
  // Every live input and Program.
  void captureAllStills();

  // ---- Window ---------------------------------------------------------------------------
  // A panel's key: opens it, or closes it back to the inspector when it is already open; a
  // detached panel's window comes forward instead. Retired panels do nothing.
  void togglePanel(StudioPanel panel);
  // Opens the panel in the rail, unfolding the rail if need be.
  void showPanel(StudioPanel panel);
  // A card's tally edge: Program and Preview in Studio style, the hero in Single style.
  std::optional<QvnColor> tallyColor(int slot) const;

  // ---- Picture-in-picture ---------------------------------------------------------------
  PiPState currentPiP() const;
  void applyPiPState(const PiPState& state);
  void setPiP(std::optional<bool> enabled, std::optional<int> slot = std::nullopt,
              std::optional<PiPCorner> corner = std::nullopt);
  void pushPiP();
  // Both buses start alike after a restore.
  void syncPiPToBothPictures();
  bool canSwapPiP() const;
  void swapPiP();

  // ---- Recording ------------------------------------------------------------------------
  // Program to a movie with the chosen sound; refused with a toast when there is nothing
  // to record or the file can't be written.
  void startRecord();
  void stopRecord();
  void toggleRecording();
  // "12.3 GB free" for the recordings folder's disk; none when it can't be read.
  std::optional<std::string> recordFreeSpaceLabel() const;
  std::filesystem::path recordFolder() const;

  // ---- Go Live --------------------------------------------------------------------------
  // Opens the sheet; while no stream runs, it starts fresh and reloads the destinations.
  void toggleGoLive();
  // The sheet's start button: the checklist, the session, then the publisher.
  void confirmGoLive();
  void stopLive();
  // The sheet's cancel while starting: the session ends and the sheet closes.
  void cancelGoLive();
  void resetGoLive();
  QvnOutputInfo plannedGoLiveOutput() const;
  // Refused while a stream runs.
  void setStreamOutput(StreamOutputChoice choice);
  // While live, what single destinations' failures mean for the operator; none when all run.
  std::optional<std::string> destinationErrorLimitation() const;
  // A check's state, and its detail unless it is empty and the check running.
  void mark(const std::string& id, GoLiveCheck::State state, const std::string& detail = "");

  // ---- Observable state -----------------------------------------------------------------
  // Input slots
  Observable<std::vector<CameraSlot>> slots;
  Observable<int> visibleInputCount{kMinVisibleInputs};
  Observable<std::vector<int>> displayOrder;
  Observable<std::optional<int>> draggingSlot;
  Observable<bool> displayOrderIsManual{false};
  Observable<std::optional<int>> focusedSlot;
  Observable<std::map<int, CameraSlot>> localLive;
  Observable<std::map<int, std::string>> labels;
  Observable<std::map<int, bool>> muted;
  Observable<std::map<int, std::string>> signalLost;
  Observable<std::optional<int>> addSourceTargetSlot;
  // Program and Preview
  Observable<std::set<int>> waitingForPicture;
  Observable<int> programSlot{0};
  Observable<int> previewSlot{0};
  Observable<bool> studioMode{true};
  Observable<MixTransition> mixTransition{MixTransition::fade};
  Observable<double> dissolveSeconds{0.55};
  Observable<bool> dissolving{false};
  Observable<bool> afterTakeSwap{true};
  Observable<bool> editProgram{false};
  Observable<double> tBarProgress{0.0};
  Observable<bool> tBarAtTop{false};
  Observable<bool> pipEnabled{false};
  Observable<int> pipSlot{0};
  Observable<PiPCorner> pipCorner{PiPCorner::bottomRight};
  Observable<QvnPiPLayout> pipLayout;
  Observable<std::optional<PiPState>> programPiP;
  // Mix
  Observable<bool> mixFill{true};
  Observable<MixCanvasSize> canvasSize{MixCanvasSize::hd};
  Observable<StreamOutputChoice> streamOutput{StreamOutputChoice::canvas};
  Observable<std::map<int, ImageCrop>> imageCrops;
  Observable<bool> imageCropAtEdge{false};
  // Scenes and session
  Observable<std::vector<StudioScene>> scenes;
  Observable<std::optional<StudioScene>> sceneToDelete;
  Observable<std::optional<std::string>> currentWorkspaceID;
  Observable<std::optional<MissingFilePrompt>> missingPrompt;
  Observable<std::map<int, SlotRestore>> slotRestores;
  // Recording
  Observable<RecordOptions> recordOptions;
  Observable<RecordAudioChoice> recordAudioChoice{RecordAudioChoice::mix};
  Observable<bool> recording{false};
  Observable<std::int64_t> recordFileSize{0};
  Observable<double> recordElapsed{0};
  Observable<std::optional<std::filesystem::path>> recordURL;
  // Audio
  Observable<RecordAudioSource> audioSource;
  Observable<std::optional<std::string>> selectedMicID;
  Observable<bool> monitorOn{true};
  Observable<double> monitorVolume{1.0};
  Observable<bool> monitorFinalOutput{true};
  Observable<std::optional<std::string>> masterAudioDeviceID;
  Observable<double> masterAudioVolume{1.0};
  Observable<bool> masterAudioMuted{false};
  Observable<std::map<int, SlotAudioSource>> slotAudioSource;
  Observable<bool> goLiveMixAudio{true};
  Observable<bool> auxOutputOn{false};
  Observable<std::optional<std::string>> auxOutputDeviceID;
  Observable<double> auxOutputVolume{1.0};
  Observable<std::optional<int>> audibleSlotOverride;
  Observable<bool> cueMixerOn{false};
  Observable<std::map<int, double>> cueGains;
  Observable<bool> duckingOn{false};
  Observable<double> duckThreshold{0.18};
  Observable<int> duckPrioritySlot{0};
  Observable<double> duckFactor{1.0};
  Observable<std::optional<std::string>> outputDeviceID;
  Observable<std::optional<std::string>> programOutputID;
  Observable<bool> programFeedbackWarning{false};
  Observable<std::map<int, std::vector<float>>> audioLevels;
  Observable<std::map<int, std::vector<float>>> audioPeaks;
  Observable<std::vector<QvnAudioDevice>> inputs;
  Observable<std::vector<QvnAudioDevice>> outputs;
  // Overlays and the legacy look
  Observable<bool> overlaysOn{false};
  Observable<bool> lowerThirdOn{false};
  Observable<std::string> lowerThirdName;
  Observable<std::string> lowerThirdTitle;
  Observable<bool> logoOn{false};
  Observable<PiPCorner> logoCorner{PiPCorner::topRight};
  Observable<std::string> logoName;
  Observable<std::pair<int, int>> logoPixelSize;
  Observable<std::optional<std::vector<std::uint8_t>>> logoBookmark;
  Observable<std::optional<std::filesystem::path>> logoURL;
  Observable<OverlayLook> overlayLook;
  // Program output
  Observable<bool> programOutOn{false};
  Observable<int> extendedCount{0};
  Observable<std::vector<std::string>> extendedScreenIDs;
  Observable<std::vector<ExtendedOutput>> extendedOutputs;
  Observable<bool> programAlwaysOnTop{true};
  Observable<std::optional<std::string>> selectedScreenID;
  Observable<std::vector<DisplayInfo>> displays;
  Observable<std::vector<WirelessDisplay>> nearbyWirelessDisplays;
  // Phones
  Observable<std::map<int, std::shared_ptr<RemoteVideoTrack>>> tracks;
  Observable<std::map<int, double>> zoom;
  Observable<std::map<int, CameraCaps>> caps;
  Observable<std::optional<std::pair<double, double>>> focusPoint;
  Observable<std::optional<int>> focusPointSlot;
  std::set<int> lockedFocus;
  // Stills, library and sources
  Observable<bool> stillFlash{false};
  Observable<std::optional<std::filesystem::path>> lastStillURL;
  Observable<std::vector<LibraryItem>> library;
  Observable<std::vector<LocalCaptureHub::Device>> localDevices;
  Observable<std::vector<ScreenCaptureHub::Target>> screenTargets;
  Observable<std::optional<std::string>> screenListError;
  Observable<std::vector<NDISourceItem>> ndiSources;
  Observable<bool> ndiRuntimeReady{false};
  Observable<std::optional<std::string>> ndiRuntimeError;
  // Go Live sheet
  Observable<bool> showGoLiveSheet{false};
  Observable<std::vector<GoLiveCheck>> goLiveChecks;
  Observable<bool> goLiveStarting{false};
  // Window
  Observable<StudioPage> page{StudioPage::studio};
  Observable<StudioPanel> panel{StudioPanel::inspector};
  Observable<bool> sourceSettingsOpen{false};
  Observable<bool> inspectorCollapsed{false};
  Observable<bool> showSettings{false};
  Observable<bool> showAddSource{false};
  Observable<bool> showMediaBrowser{false};
  Observable<bool> showAudioPanel{false};
  Observable<bool> revealNetwork{false};
  Observable<SettingsTab> settingsTab{SettingsTab::output};
  StudioPanelDetach panelDetach;
  // Phones' pairing
  Observable<std::string> pin;
  Observable<std::string> ip;
  Observable<bool> acceptNew{true};
  Observable<bool> phonesEnabled{false};
  // Messages
  Observable<std::vector<std::string>> log;
  Observable<std::optional<std::string>> toast;

  // Fires for changes that aren't one property's, such as any change of the account.
  Signal<> changed;

  // Not observable.
  bool phonesListening() const { return phonesListening_; }
  bool isStarted() const { return started_; }
  bool isApplyingSettings() const { return applyingSettings_; }

 private:
  struct Anchor;
  // Wraps model work as a hub callback that hops to the main queue (camera_model.cpp).
  template <class F>
  auto hop(F work);
  void wireHubs();
  void installSleepObservers();
  void handleWake();
  void willTerminate();
  void detachedSlotCleanup(int slot, const std::vector<int>& liveAfter);
  void renumberDisplayOrder();
  void storeDisplayOrder();
  LocalSourceHub* hubForKind(const std::string& kind) const;
  std::optional<std::string> relaunchBlocker() const;
  std::optional<std::string> updateBlocker() const;
  void loadPiPSettings();
  void wirePublisher();
  void goLiveSessionReady(const QvnCloud::Session& session, const QvnOutputInfo& planned);
  void failGoLiveStart(const std::string& id, const std::string& detail);
  void loadAudioSettings();
  void loadOverlaySettings();
  void busChanged(int program, int preview);
  void followOverlayStore();
  void applyProgramOutput(const std::optional<std::string>& deviceID);
  int swapPartner() const;
  bool performCommand(QvnKeyCommand command);

  // Operations whose subsystems are not built yet; start-up calls them in their places.
  void applyMonitorRouting();
  void syncAuxOutput();
  void applyCueMix();
  void installKeyMonitor();
  void restoreSession();
  void applyFirstLaunchAudio();
  void loadScenes();
  bool recallSceneForKey(int functionKey);
  bool performDeckAction(QvnDeckAction action);
  void flip(int slot);
  void panelDidChange(StudioPanel value);
  void panelSideEffects(StudioPanel panel);

  MainQueue& main_;
  Defaults& settings_;
  StudioHubs hubs_;
  std::function<std::string()> localAddress_;
  std::shared_ptr<Anchor> anchor_;

  bool started_ = false;
  // Counts Go Live starts and cancels, so a session that arrives after a cancel is ended.
  int goLiveAttempt_ = 0;
  bool phonesListening_ = false;
  bool applyingSettings_ = false;
  bool terminateObserved_ = false;
  bool sleepObserved_ = false;
  DelayedWork toastTask_;
  DelayedWork stillFlashWork_;
  DelayedWork persistWork_;
  DelayedWork audioSaveWork_;
  RepeatingTimer recordTimer_;
  std::optional<std::filesystem::path> lastSavedURL_;  // the last movie said to be saved
  std::map<int, DelayedWork> pictureChecks_;
  StudioPanel storedPanel_ = StudioPanel::inspector;
  Subscription panelRule_;
};

}  // namespace qvn
