// The window's rules without a window: which panel is open, panels in windows of their own,
// the remembered main window frame and the Sources strip's tally edges.
#include <gmock/gmock.h>

#include "studio/recording_hubs.h"
#include "studio/studio_panel.h"
#include "studio/window_frame.h"

namespace qvn::test {
namespace {

using StudioWindow = StudioFixture;
using ::testing::ElementsAre;

TEST_F(StudioWindow, APanelKeyOpensItsPanelAndASecondPressClosesIt) {
  CameraModel& m = build();
  m.sourceSettingsOpen = true;
  m.togglePanel(StudioPanel::pip);
  EXPECT_EQ(m.panel(), StudioPanel::pip);
  EXPECT_FALSE(m.sourceSettingsOpen());  // only the inspector shows source settings
  EXPECT_EQ(store->text("qvn.panel"), "pip");
  m.togglePanel(StudioPanel::pip);
  EXPECT_EQ(m.panel(), StudioPanel::inspector);
  EXPECT_EQ(store->text("qvn.panel"), "inspector");

  // Retired panels have no key.
  m.togglePanel(StudioPanel::record);
  m.showPanel(StudioPanel::workspace);
  EXPECT_EQ(m.panel(), StudioPanel::inspector);

  // A folded rail unfolds with the panel asked for, even the one it last showed.
  m.panel = StudioPanel::overlays;
  m.inspectorCollapsed = true;
  m.togglePanel(StudioPanel::overlays);
  EXPECT_FALSE(m.inspectorCollapsed());
  EXPECT_EQ(m.panel(), StudioPanel::overlays);

  m.showAudioPanel = true;
  m.inspectorCollapsed = true;
  m.showPanel(StudioPanel::inspector);
  EXPECT_FALSE(m.showAudioPanel());
  EXPECT_FALSE(m.inspectorCollapsed());
  EXPECT_TRUE(m.sourceSettingsOpen());
}

TEST_F(StudioWindow, OpeningAudioOrExtendWakesWhatTheyShowButClosingDoesNot) {
  CameraModel& m = build();
  trace.calls.clear();
  m.togglePanel(StudioPanel::audio);
  EXPECT_EQ(trace.count("monitorMixer.kickMonitor"), 1);
  EXPECT_GE(trace.count("audioDevices.outputs"), 1);
  m.togglePanel(StudioPanel::audio);  // closes
  EXPECT_EQ(trace.count("monitorMixer.kickMonitor"), 1);
  m.showPanel(StudioPanel::extendOutput);
  EXPECT_EQ(trace.count("wirelessBrowser.start"), 1);
}

TEST_F(StudioWindow, ADetachedPanelComesForwardInsteadOfOpeningInTheRail) {
  CameraModel& m = build();
  std::vector<std::string> raised;
  m.panelDetach.raiseWindow = [&](const std::string& title) {
    raised.push_back(title);
    return true;
  };
  m.togglePanel(StudioPanel::pip);
  m.panelDetach.setDetached(StudioPanel::audio, true);
  trace.calls.clear();
  m.togglePanel(StudioPanel::audio);
  EXPECT_EQ(m.panel(), StudioPanel::pip);
  EXPECT_THAT(raised, ElementsAre("Audio"));
  EXPECT_EQ(trace.count("monitorMixer.kickMonitor"), 1);
}

TEST_F(StudioWindow, OnlyDetachablePanelsLeaveTheRailAndTheSetSurvivesAQuit) {
  store->set("qvn.panel.detached", SettingsList{"overlays", "nonsense"});
  CameraModel& m = build();
  EXPECT_THAT(m.panelDetach.detached(), ElementsAre(StudioPanel::overlays));
  for (StudioPanel p : {StudioPanel::inspector, StudioPanel::record, StudioPanel::workspace}) {
    m.panelDetach.setDetached(p, true);
    EXPECT_FALSE(m.panelDetach.isDetached(p));
  }
  m.panelDetach.setDetached(StudioPanel::pip, true);
  EXPECT_EQ(store->list("qvn.panel.detached"), (SettingsList{"pip", "overlays"}));

  // Quit: the windows close, but the next start finds both detached again.
  m.start();
  hubs.lifecycle->app->willTerminate();
  m.panelDetach.setDetached(StudioPanel::pip, false);
  m.panelDetach.setDetached(StudioPanel::overlays, false);
  EXPECT_THAT(build().panelDetach.detached(), ElementsAre(StudioPanel::pip, StudioPanel::overlays));
  EXPECT_EQ(StudioPanelDetach::autosaveName(StudioPanel::pip), "qvn.panel.window.pip");
}

TEST_F(StudioWindow, TallyIsProgramAndPreviewInStudioStyleAndTheHeroInSingle) {
  CameraModel& m = build();
  m.slotsDidChange({[] {
    CameraSlot row = CameraSlot::empty(2);
    row.live = true;
    return row;
  }()});
  m.studioMode = true;
  m.programSlot = 3;
  m.previewSlot = 2;
  EXPECT_EQ(m.tallyColor(3), Qvn::live);
  EXPECT_EQ(m.tallyColor(2), Qvn::green);
  EXPECT_EQ(m.tallyColor(1), std::nullopt);
  m.studioMode = false;
  m.programSlot = 2;
  EXPECT_EQ(m.tallyColor(2), Qvn::green);
  EXPECT_EQ(m.tallyColor(3), std::nullopt);
}

TEST_F(StudioWindow, TheMainFrameIsRememberedOnlyWhenBigEnoughAndReopensOnAScreenThatHasIt) {
  WindowFrameAutosave autosave(*store);
  const WindowRect screen{0, 0, 1920, 1080};
  autosave.remember({10, 10, 1179, 900}, false);
  autosave.remember({10, 10, 1600, 900}, true);  // full screen
  EXPECT_FALSE(store->contains("qvn.mainWindow.frame"));

  autosave.remember({-1, 30, 1600, 900}, false);
  EXPECT_EQ(store->text("qvn.mainWindow.frame"), "{{-1, 30}, {1600, 900}}");
  EXPECT_EQ(autosave.fitOnScreen({screen}, screen), (WindowRect{-1, 30, 1600, 900}));

  // Its display is gone: 90 % of the home screen, centred.
  autosave.remember({2000, 30, 1600, 900}, false);
  EXPECT_EQ(autosave.fitOnScreen({screen}, screen), (WindowRect{96, 54, 1728, 972}));
  // Never below the minimum, unless the screen itself is smaller.
  EXPECT_EQ(autosave.fitOnScreen({}, {0, 0, 1280, 800}), (WindowRect{50, 40, 1180, 720}));
  EXPECT_EQ(autosave.fitOnScreen({}, {0, 0, 1024, 600}), (WindowRect{0, 0, 1024, 600}));

  EXPECT_EQ(frameFromText("{{1, 2}, {3.5, 4}}"), (WindowRect{1, 2, 3.5, 4}));
  EXPECT_EQ(frameFromText("{{1, 2}, {3, 4}} tail"), std::nullopt);
}

TEST(FloatingPanel, OpensCentredOnTheMainWindowButInsideTheScreen) {
  const WindowRect screen{0, 0, 1920, 1080};
  EXPECT_EQ(placeFloatingPanel(400, 300, WindowRect{100, 100, 1200, 800}, screen),
            (WindowRect{500, 350, 400, 300}));
  EXPECT_EQ(placeFloatingPanel(400, 300, WindowRect{1700, 900, 400, 300}, screen),
            (WindowRect{1520, 780, 400, 300}));
  EXPECT_EQ(placeFloatingPanel(400, 300, std::nullopt, screen), (WindowRect{760, 390, 400, 300}));
  EXPECT_THAT(railPanels(),
              ElementsAre(StudioPanel::inspector, StudioPanel::extendOutput, StudioPanel::pip,
                          StudioPanel::overlays, StudioPanel::audio));
}

}  // namespace
}  // namespace qvn::test
