// The settings the studio loads at start and saves after each change.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "studio/recording_hubs.h"

namespace qvn::test {
namespace {

using ::testing::DoubleEq;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

using StudioSettings = StudioFixture;

SettingsBytes bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}
double single(double value) {
  return static_cast<float>(value);
}

TEST_F(StudioSettings, AFreshStoreKeepsTheInitialValuesAndOnlyMigrates) {
  CameraModel& m = start();
  ASSERT_TRUE(store->synchronize());
  const auto onDisk = nlohmann::json::parse(readFile(store->file()).value_or("{}"));
  std::vector<std::string> keys;
  for (const auto& [key, value] : onDisk.items()) keys.push_back(key);
  EXPECT_THAT(keys, ElementsAre("qvn.nav.railMigrated", "qvn.sidebarCollapsed"));
  EXPECT_EQ(store->boolean("qvn.sidebarCollapsed"), true);

  EXPECT_TRUE(m.mixFill());
  EXPECT_EQ(m.canvasSize(), MixCanvasSize::hd);
  EXPECT_EQ(m.dissolveSeconds(), 0.55);
  EXPECT_EQ(m.mixTransition(), MixTransition::fade);
  EXPECT_EQ(m.pipLayout(), QvnPiPLayout::inCorner(PiPCorner::bottomRight));
  EXPECT_DOUBLE_EQ(m.pipLayout().width, 0.28);
  EXPECT_EQ(m.monitorVolume(), 1.0);
  EXPECT_TRUE(m.monitorFinalOutput());
  EXPECT_EQ(m.duckThreshold(), 0.18);
  EXPECT_TRUE(m.programAlwaysOnTop());
  EXPECT_EQ(m.audioSource(), RecordAudioSource{});
  EXPECT_EQ(m.overlayLook(), OverlayLook{});
  EXPECT_EQ(m.recordOptions(), RecordOptions{});
  EXPECT_EQ(m.panel(), StudioPanel::inspector);
  EXPECT_EQ(m.visibleInputCount(), 12);

  // Migrated once: the sidebar is the user's again.
  store->set("qvn.sidebarCollapsed", false);
  start();
  EXPECT_EQ(store->boolean("qvn.sidebarCollapsed"), false);
}

TEST_F(StudioSettings, SavedSettingsLoadBackIntoANewStudioWithTheirTypes) {
  const auto logo = root / "logo.png";
  ASSERT_FALSE(writeFileAtomically(logo, "png"));
  OverlayLook look;
  look.lowerX = 0.25;
  look.nameFont = "Inter-Bold";
  look.logoX = 0.5;
  CameraModel& a = start();
  a.mixFill = false;
  a.canvasSize = MixCanvasSize::uhd;
  a.dissolveSeconds = 1.25;
  a.mixTransition = MixTransition::slide;
  a.studioMode = false;
  a.afterTakeSwap = false;
  a.pipEnabled = true;
  a.pipSlot = 5;
  a.pipCorner = PiPCorner::topLeft;
  a.monitorOn = false;
  a.monitorVolume = 0.7;
  a.audibleSlotOverride = 3;
  a.monitorFinalOutput = false;
  a.goLiveMixAudio = false;
  a.auxOutputOn = true;
  a.auxOutputDeviceID = "aux-1";
  a.auxOutputVolume = 0.3;
  a.masterAudioDeviceID = "mic-2";
  a.masterAudioVolume = 0.6;
  a.masterAudioMuted = true;
  const std::map<int, SlotAudioSource> sources{{2, SlotAudioSource::master},
                                               {11, SlotAudioSource::own}};
  const std::map<int, bool> muted{{1, true}, {2, false}};
  a.slotAudioSource = sources;
  a.cueMixerOn = true;
  a.duckingOn = true;
  a.duckThreshold = 0.25;
  a.duckPrioritySlot = 4;
  a.cueGains.set({{1, 0.5}, {12, 1.1}});
  a.outputDeviceID = "out-A";
  a.programOutputID = "prog-B";
  a.programAlwaysOnTop = false;
  a.selectedScreenID = "screen-9";
  a.selectedMicID = "mic-3";
  a.labels = {{3, "Host"}, {14, "Wide"}};
  a.muted = muted;
  a.audioSource = RecordAudioSource{RecordAudioSource::Kind::none, std::nullopt};
  a.overlaysOn = true;
  a.lowerThirdOn = true;
  a.lowerThirdName = "Ada";
  a.lowerThirdTitle = "Host";
  a.logoOn = true;
  a.logoCorner = PiPCorner::bottomLeft;
  a.logoName = "logo.png";
  a.logoBookmark = bytesOf(logo.string());
  a.overlayLook = look;
  a.extendedOutputs.set({{"scr-2", "Projector"}});
  a.saveSettings();

  auto& s = *store;
  EXPECT_EQ(s.text("qvn.canvasSize"), "3840x2160");
  EXPECT_EQ(s.real("qvn.monitorVolume"), single(0.7));
  EXPECT_EQ(s.boolean("qvn.goLiveMixAudio"), false);
  EXPECT_EQ(s.real("qvn.auxOutputVolume"), single(0.3));
  EXPECT_EQ(s.real("qvn.duckThreshold"), single(0.25));
  EXPECT_EQ(s.dict("qvn.slotAudioSource"), (SettingsDict{{"2", "master"}, {"11", "own"}}));
  EXPECT_EQ(s.dict("qvn.cueGains"), (SettingsDict{{"1", 0.5}, {"12", single(1.1)}}));
  EXPECT_EQ(s.text("qvn.audioSource"), "none");
  EXPECT_EQ(s.list("qvn.extendedScreenIDs"), SettingsList{"scr-2"});
  EXPECT_EQ(s.dict("qvn.extendedScreenNames"), (SettingsDict{{"scr-2", "Projector"}}));

  QvnPiPLayout layout;
  layout.x = 0.4;
  layout.y = 0.3;
  layout.width = 0.35;
  s.set("qvn.pipLayout", bytesOf(layout.toJSON()));
  trace.calls.clear();
  CameraModel& b = start();
  EXPECT_FALSE(b.mixFill());
  EXPECT_TRUE(trace.has("mix.setCanvas 3840x2160"));
  EXPECT_TRUE(trace.has("mix.setTransitionDuration 1.25"));
  EXPECT_EQ(b.mixTransition(), MixTransition::slide);
  EXPECT_FALSE(b.studioMode());
  EXPECT_FALSE(b.afterTakeSwap());
  EXPECT_TRUE(b.pipEnabled());
  EXPECT_EQ(b.pipSlot(), 5);
  EXPECT_EQ(b.pipCorner(), PiPCorner::topLeft);
  EXPECT_EQ(b.pipLayout(), layout);
  EXPECT_FALSE(b.monitorOn());
  EXPECT_EQ(b.monitorVolume(), single(0.7));
  EXPECT_EQ(b.audibleSlotOverride(), 3);
  EXPECT_FALSE(b.monitorFinalOutput());
  EXPECT_TRUE(b.goLiveMixAudio());  // the stream always carries the mix
  EXPECT_TRUE(b.auxOutputOn());
  EXPECT_EQ(b.auxOutputDeviceID(), "aux-1");
  EXPECT_EQ(b.auxOutputVolume(), single(0.3));
  EXPECT_EQ(b.masterAudioDeviceID(), "mic-2");
  EXPECT_EQ(b.masterAudioVolume(), single(0.6));
  EXPECT_TRUE(b.masterAudioMuted());
  EXPECT_EQ(b.slotAudioSource(), sources);
  EXPECT_TRUE(b.cueMixerOn());
  EXPECT_TRUE(b.duckingOn());
  EXPECT_EQ(b.duckThreshold(), single(0.25));
  EXPECT_EQ(b.duckPrioritySlot(), 4);
  EXPECT_THAT(b.cueGains(), ElementsAre(Pair(1, 0.5), Pair(12, single(1.1))));
  EXPECT_EQ(b.outputDeviceID(), "out-A");
  EXPECT_EQ(b.programOutputID(), "prog-B");
  EXPECT_TRUE(trace.has("audioDevices.canonicalUID out-A"));
  EXPECT_TRUE(trace.has("audioDevices.canonicalUID prog-B"));
  EXPECT_FALSE(b.programAlwaysOnTop());
  EXPECT_EQ(b.selectedScreenID(), "screen-9");
  EXPECT_EQ(b.selectedMicID(), "mic-3");
  EXPECT_EQ(b.slots()[2].label, "Host");
  EXPECT_EQ(b.muted(), muted);
  EXPECT_TRUE(trace.has("overlays.setEnabled true"));
  EXPECT_TRUE(b.lowerThirdOn());
  EXPECT_EQ(b.lowerThirdName(), "Ada");
  EXPECT_EQ(b.lowerThirdTitle(), "Host");
  EXPECT_TRUE(b.logoOn());
  EXPECT_EQ(b.logoCorner(), PiPCorner::bottomLeft);
  EXPECT_EQ(b.logoName(), "logo.png");
  EXPECT_EQ(b.logoURL(), logo);
  EXPECT_EQ(b.overlayLook(), look);
  EXPECT_THAT(logFileText(),
              HasSubstr("settings loaded cueMixer=true duck=true overlays=true canvas=uhd"));
}

TEST_F(StudioSettings, OddStoredValuesLoadByTheirRules) {
  const SettingsBytes bad = bytesOf("{\"x\": 0.5");
  store->set("qvn.panel", "record");
  store->set("qvn.audioSource", "camera");
  store->set("qvn.monitorFinalOutput", false);  // without an audible override
  store->set("qvn.labels", SettingsDict{{"x", "Bad"}, {"4", "Good"}, {"05x", "Bad"}});
  store->set("qvn.outputDeviceID", 73);
  store->set("qvn.pipCorner", "topLeft");
  store->set("qvn.pipLayout", bad);
  store->set("qvn.mixTransition", "wipe");
  store->set("qvn.recordOptions", bytesOf("not json"));
  CameraModel& m = start();
  EXPECT_EQ(m.panel(), StudioPanel::inspector);
  EXPECT_EQ(m.audioSource().kind, RecordAudioSource::Kind::mix);
  EXPECT_TRUE(m.monitorFinalOutput());
  EXPECT_THAT(m.labels(), ElementsAre(Pair(4, "Good")));
  EXPECT_EQ(m.outputDeviceID(), "73");
  EXPECT_TRUE(trace.has("audio.setMonitorDevice 73"));
  EXPECT_EQ(store->text("qvn.outputDeviceID"), "73");
  EXPECT_THAT(m.pipLayout().x, DoubleEq(0.16));
  EXPECT_THAT(m.pipLayout().y, DoubleEq(0.21));
  EXPECT_EQ(store->bytes("qvn.pipLayout"), bad);
  EXPECT_EQ(m.mixTransition(), MixTransition::fade);
  EXPECT_EQ(m.recordOptions(), RecordOptions{});

  store->set("qvn.panel", "overlays");
  store->set("qvn.audioSource", "none");
  store->set("qvn.audibleSlotOverride", 2);
  CameraModel& n = start();
  EXPECT_EQ(n.panel(), StudioPanel::overlays);
  EXPECT_EQ(n.audioSource().kind, RecordAudioSource::Kind::none);
  EXPECT_FALSE(n.monitorFinalOutput());
  EXPECT_EQ(n.audibleSlotOverride(), 2);
}

TEST_F(StudioSettings, AProgramOutputThatIsAlsoAnInputWarnsOfFeedback) {
  CameraModel& m = start();
  hubs.externalHub->inputDevices = {"usb-desk"};
  m.setProgramOutput("usb-desk");
  EXPECT_TRUE(m.programFeedbackWarning());
  EXPECT_EQ(store->text("qvn.programOutputID"), "usb-desk");
  m.setProgramOutput(std::nullopt);
  EXPECT_FALSE(m.programFeedbackWarning());
  EXPECT_TRUE(trace.has("audio.setProgramOutput none"));
}

TEST_F(StudioSettings, NothingIsSavedWhileLoadingAndAudioSavesCoalesce) {
  CameraModel& m = build();
  bool askedDuringLoad = false;
  trace.probe = [&](const std::string& call) {
    if (!call.starts_with("mix.setCanvas")) return;
    askedDuringLoad = m.isApplyingSettings();
    m.saveSettings();
  };
  m.start();
  trace.probe = nullptr;
  EXPECT_TRUE(askedDuringLoad);
  EXPECT_FALSE(store->contains("qvn.mixFill"));
  EXPECT_THAT(logFileText(),
              HasSubstr("settings loaded cueMixer=false duck=false overlays=false canvas=hd"));

  m.scheduleAudioSave();
  main.advance(0.3);
  m.scheduleAudioSave();
  main.advance(0.3);
  EXPECT_FALSE(store->contains("qvn.mixFill"));
  main.advance(0.1);
  EXPECT_TRUE(store->contains("qvn.mixFill"));
}

}  // namespace
}  // namespace qvn::test
