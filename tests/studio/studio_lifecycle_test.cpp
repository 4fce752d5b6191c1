// The studio's start, its hub callbacks, the toast and status list, sleep and wake, and quit.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "studio/recording_hubs.h"
#include "studio/studio_shell.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

using StudioLifecycle = StudioFixture;

long occurrences(const std::string& text, const std::string& part) {
  long n = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

TEST_F(StudioLifecycle, StartBringsTheStudioUpInItsFixedOrderOnce) {
  CameraModel& m = build();
  trace.calls.clear();
  m.start();
  const std::vector<std::string> expected{
      "signaling.setPin " + m.pin(), "signaling.setAcceptNewDevices true",
      // settings, before any engine starts
      "publisher.setPreferredSize none", "mix.setCanvas 1920x1080", "mix.setHoldPreview true",
      "mix.setPreviewVisible true", "overlays.setStudioMode true", "overlays.enabled",
      "mix.setPiP false 0 0.84 0.79 preview", "masterInput.stop", "meterBus.pushMaster []",
      "masterInput.stop", "monitorMixer.setVolume 1", "media.setVolume 1",
      "audio.suppressWebRTCPlayout", "audio.setMonitorDevice none",
      "mix.setPiP false 0 0.84 0.79 both", "overlays.migrateLegacyOverlaysIfNeeded",
      "overlays.setEnabled false", "overlays.pushToMix true",
      // engines and hubs
      "masterInput.stop", "meterBus.pushMaster []", "auxOutput.setVolume 1", "mix.start",
      "audio.setProgramOutput none", "mix.setFill true", "virtualCamera.refresh",
      "audio.setMonitorVolume 1", "audio.setMonitorDevice none", "externalHub.attach",
      "audio.isRunning", "audio.restart", "audio.setMonitorEnabled true",
      "media.setMonitorEnabled false", "media.routeSoundThroughEngine",
      // devices: an empty input list is asked for once more
      "audioDevices.inputs", "audioDevices.inputs", "audioDevices.outputs", "screens.list",
      "externalHub.reconcileDevices", "mediaLibrary.items", "mediaLibrary.ensureFolders",
      "keys.install", "localCapture.authorization", "localCapture.listDevices", "cloud.restore",
      "overlays.setEnabled false", "overlays.pushToMix true", "stayAwake.start", "sleep.start",
      "lifecycle.observeWillTerminate", "lifecycle.observeDidResignActive", "updater.start",
      "recorder.recoverUnfinished Recordings"};
  EXPECT_EQ(trace.calls, expected);
  EXPECT_EQ(m.log().back(), "Ready on 10.0.0.7:8765  PIN " + m.pin());
  EXPECT_FALSE(m.phonesListening());  // the phone setting is off by default

  const auto log = m.log();
  m.start();
  EXPECT_EQ(trace.calls, expected);
  EXPECT_EQ(m.log(), log);
  hubs.lifecycle->app->willTerminate();  // one observer: one stop
  EXPECT_EQ(trace.count("stayAwake.stop"), 1);

  // What start hands to the virtual camera and the updater asks the model.
  EXPECT_EQ(hubs.virtualCamera->relaunchBlocker(), std::nullopt);
  hubs.cloud->livePhase = LivePhase::live;
  EXPECT_EQ(hubs.virtualCamera->relaunchBlocker(), "End Go Live first, then press Reopen Studio.");
  m.recording = true;
  EXPECT_EQ(hubs.virtualCamera->relaunchBlocker(),
            "Stop recording first, then press Reopen Studio.");
  hubs.cloud->livePhase = LivePhase::idle;
  EXPECT_EQ(hubs.updater->showBlocker(), "The update installs after the recording stops.");
  hubs.cloud->livePhase = LivePhase::stopping;
  EXPECT_EQ(hubs.updater->showBlocker(), "The update installs after Go Live ends.");
  m.recording = false;
  hubs.cloud->livePhase = LivePhase::ended;
  EXPECT_EQ(hubs.updater->showBlocker(), std::nullopt);
  hubs.updater->onNotice("Update ready");
  EXPECT_EQ(m.toast(), "Update ready");
}

TEST_F(StudioLifecycle, PhoneListenerFollowsTheStoredSettingAndReportsAFailure) {
  store->set("qvn.phones.enabled", true);
  CameraModel& m = build();
  trace.calls.clear();
  m.start();
  const auto at = [&](const std::string& call) {
    return std::ranges::find(trace.calls, call) - trace.calls.begin();
  };
  EXPECT_LT(at("signaling.start"), at("mix.setCanvas 1920x1080"));
  EXPECT_TRUE(m.phonesListening());
  m.startPhoneListener();
  EXPECT_EQ(trace.count("signaling.start"), 1);

  hubs.signaling->startError = "Address already in use";
  CameraModel& failed = start();
  EXPECT_FALSE(failed.phonesListening());
  EXPECT_THAT(failed.log(), Contains("Could not start listening: Address already in use"));
  EXPECT_EQ(failed.log().back(), "Ready on 10.0.0.7:8765  PIN " + failed.pin());
}

TEST_F(StudioLifecycle, HubCallbacksRunOnTheMainQueueAndNeverAfterTheModelIsGone) {
  CameraModel& m = start();
  std::thread hub([&] {
    hubs.signaling->onLog("phone 1 paired");
    hubs.signaling->onSlotsChanged(phoneRows({1}));
    hubs.mix->onDissolve(true);
    hubs.localCapture->onSlotLive(2, localRow(2, "usb", "cam-1"));
  });
  hub.join();
  EXPECT_THAT(m.log(), Not(Contains("phone 1 paired")));
  main.drain();
  EXPECT_THAT(m.log(), Contains("phone 1 paired"));
  EXPECT_TRUE(m.dissolving());
  EXPECT_TRUE(m.slots()[1].live);
  // The signaling queue's two questions, answered on the main thread.
  EXPECT_TRUE(hubs.signaling->isSlotLocallyOccupied(2));
  EXPECT_FALSE(hubs.signaling->isSlotLocallyOccupied(1));
  m.addOptionalInput();
  EXPECT_EQ(hubs.signaling->openSlotLimit(), 13);

  // The model leaves a toast, a delayed save and a picture check on the clock.
  ASSERT_GT(main.pendingCount(), 0u);
  model.reset();
  trace.calls.clear();
  hubs.signaling->onLog("late");
  hubs.signaling->onSlotsChanged(phoneRows({}));
  hubs.localCapture->onSlotOff(2, "cam-1");
  hubs.ndi->onSignalLost(2, "No signal");
  hubs.recorder->onState(false, fs::path("/tmp/x.mp4"));
  hubs.sleep->onWillSleep();
  hubs.sleep->onDidWake();
  hubs.cloud->onChange();
  hubs.updater->onNotice("Update ready");
  hubs.lifecycle->app->didResignActive();
  hubs.lifecycle->app->willTerminate();
  EXPECT_EQ(hubs.signaling->openSlotLimit(), 12);
  EXPECT_FALSE(hubs.signaling->isSlotLocallyOccupied(2));
  EXPECT_EQ(hubs.virtualCamera->relaunchBlocker(), std::nullopt);
  EXPECT_EQ(hubs.updater->showBlocker(), std::nullopt);
  main.advance(30);
  EXPECT_TRUE(trace.calls.empty()) << testing::PrintToString(trace.calls);
  EXPECT_FALSE(fs::exists(sessionFile()));
}

TEST_F(StudioLifecycle, LogKeepsTheNewestLinesAndALaterToastGetsItsFullTime) {
  CameraModel& m = build();
  for (int i = 0; i < 200; ++i) m.appendLog("line " + std::to_string(i));
  m.appendLog("line 200");
  ASSERT_EQ(m.log().size(), 151u);
  EXPECT_EQ(m.log().front(), "line 50");
  EXPECT_EQ(m.log().back(), "line 200");

  m.flash("first");
  main.advance(2.0);
  m.flash("second");
  main.advance(2.3);  // well past the end of the first toast's time
  EXPECT_EQ(m.toast(), "second");
  main.advance(0.2);
  EXPECT_EQ(m.toast(), std::nullopt);
}

TEST_F(StudioLifecycle, SleepSavesTheSessionAndEachWakeRestoresTheStudio) {
  hubs.screens->displays = {{"1", "Built-in", true}, {"7", "Projector", false}};
  CameraModel& m = start();
  EXPECT_EQ(m.selectedScreenID(), "7");  // an external display is preferred

  trace.calls.clear();
  hubs.sleep->onWillSleep();
  EXPECT_FALSE(fs::exists(sessionFile()));
  main.drain();
  EXPECT_TRUE(fs::exists(sessionFile()));
  EXPECT_THAT(logFileText(), HasSubstr("mac sleeping — studio stays running"));
  EXPECT_TRUE(trace.calls.empty());  // nothing is stopped

  hubs.sleep->onDidWake();
  hubs.sleep->onDidWake();
  main.drain();
  for (const char* call :
       {"screens.list", "externalHub.reconcileDevices", "programOutput.applyScreenLayout",
        "localCapture.restartRunning", "media.resumeAfterSleep"})
    EXPECT_EQ(trace.count(call), 2) << call;
  EXPECT_EQ(occurrences(logFileText(), "mac woke — restoring studio"), 2);
}

TEST_F(StudioLifecycle, QuitDuringARecordingIsNotBlockedAndSavesTheSession) {
  const std::string corrupt = "{\"inputs\": [";
  ASSERT_FALSE(writeFileAtomically(sessionFile(), corrupt));
  StudioShell shell(context(), hubs.lifecycle->app);
  shell.launch();
  hubs.recorder->onState(true, std::nullopt);
  main.drain();
  ASSERT_TRUE(shell.model().recording());

  trace.calls.clear();
  bool written = false;
  trace.probe = [&](const std::string&) {
    if (!written && nlohmann::json::accept(readFile(sessionFile()).value_or(""))) {
      written = true;
      trace.calls.push_back("(session written)");
    }
  };
  shell.terminate();
  trace.probe = nullptr;
  EXPECT_EQ(trace.calls,
            (std::vector<std::string>{"cloud.endLiveBlocking 2", "telemetry.heartbeatAtQuit 1",
                                      "(session written)", "stayAwake.stop", "stayAwake.stop"}));

  std::vector<fs::path> aside;
  for (const auto& entry : fs::directory_iterator(sessionFile().parent_path()))
    if (entry.path().filename().string().starts_with("session.json.bad-"))
      aside.push_back(entry.path());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(readFile(aside[0]), corrupt);
  EXPECT_TRUE(store->contains("qvn.nav.railMigrated"));
}

}  // namespace
}  // namespace qvn::test
