// The input table: phone rows and local sources merged into 16 slots, where a new source
// goes, the display order, the hero, labels and mute.
#include <gmock/gmock.h>

#include <numeric>

#include "studio/recording_hubs.h"

namespace qvn::test {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

using StudioSlots = StudioFixture;

std::vector<int> orderOneTo(int n) {
  std::vector<int> order(n);
  std::iota(order.begin(), order.end(), 1);
  return order;
}
std::set<int> oneTo(int n) {
  const auto order = orderOneTo(n);
  return {order.begin(), order.end()};
}
SettingsList stored(const std::vector<int>& order) {
  return {order.begin(), order.end()};
}

TEST_F(StudioSlots, PhoneRowsAndLocalSourcesMergeIntoTheTable) {
  CameraModel& m = start();
  m.setLabel("Desk", 2);
  auto rows = phoneRows({2});
  rows[1].resolution = "1920x1080";
  rows[1].receivedWidth = 1920;
  rows[1].receivedHeight = 1080;
  m.slotsDidChange(rows);
  EXPECT_EQ(m.slots()[1].label, "Desk");
  rows[1].resolution = "";
  rows[1].receivedWidth = rows[1].receivedHeight = 0;
  m.slotsDidChange(rows);  // an update without a size keeps the known one
  EXPECT_EQ(m.slots()[1].resolution, "1920x1080");
  EXPECT_EQ(m.slots()[1].receivedHeight, 1080);
  rows[1].resolution = "1280x720";
  m.slotsDidChange(rows);
  EXPECT_EQ(m.slots()[1].resolution, "1280x720");
  hubs.signaling->onResolution(2, "3840x2160", 3840, 2160);
  main.drain();
  EXPECT_EQ(m.slots()[1].receivedHeight, 2160);

  // A local source announces itself on the card.
  m.attachLocal(localRow(3, "usb", "cam-3"));
  EXPECT_EQ(m.toast(), "USB on Source 3");
  EXPECT_EQ(m.slots()[2], localRow(3, "usb", "cam-3"));
  m.setLabel("Wide", 6);
  m.attachLocal(localRow(6, "ndi", "ndi-6"));
  EXPECT_EQ(m.toast(), "NDI® on Wide");

  // A live phone reclaims its slot; the local source there is stopped.
  m.attachLocal(localRow(4, "usb", "cam-4"));
  m.slotsDidChange(phoneRows({2, 4}));
  EXPECT_EQ(m.slots()[3].kind, "phone");
  EXPECT_FALSE(m.localLive().contains(4));
  EXPECT_TRUE(trace.has("localCapture.stopSlot 4"));
  EXPECT_EQ(m.slots()[2].kind, "usb");  // other local rows survive a phone update

  // Leaving resets the row and the crop.
  m.imageCrops = {{3, ImageCrop{2.0, 0.1, 0.1}}};
  m.imageCropAtEdge = true;
  trace.calls.clear();
  m.detachLocal(3);
  EXPECT_EQ(m.slots()[2], CameraSlot::empty(3));
  EXPECT_TRUE(m.imageCrops().empty());
  EXPECT_FALSE(m.imageCropAtEdge());
  EXPECT_TRUE(trace.has("mix.setImageCrop 3 1 0 0 true"));
  EXPECT_FALSE(trace.has("mix.clearIf 3 [2,4]"));  // Program and Preview keep the number

  // A late report of a source that was replaced in place leaves the new one alone.
  hubs.localCapture->onSlotLive(5, localRow(5, "usb", "cam-A"));
  hubs.media->onSlotLive(5, localRow(5, "file", "clip.mov"));
  hubs.localCapture->onSlotOff(5, "cam-A");
  main.drain();
  EXPECT_EQ(m.slots()[4].deviceId, "clip.mov");
  hubs.media->onSlotOff(5, "clip.mov");
  main.drain();
  EXPECT_EQ(m.slots()[4], CameraSlot::empty(5));

  // An NDI source's signal is patched into its row.
  hubs.ndi->onSignalLost(6, "No signal");
  main.drain();
  EXPECT_EQ(m.slots()[5].status, "No signal");
  hubs.ndi->onResolution(6, "1280x720");
  hubs.ndi->onSignalRestored(6);
  main.drain();
  EXPECT_EQ(m.slots()[5].status, "Live");
  EXPECT_EQ(m.localLive().at(6).resolution, "1280x720");
  hubs.ndi->onSignalLost(6, "No signal");
  hubs.ndi->onSlotOff(6, "ndi-6");
  main.drain();
  EXPECT_TRUE(m.signalLost().empty());
  EXPECT_EQ(m.slots()[5].label, "Wide");  // the label outlives the source
}

TEST_F(StudioSlots, ANewSourceTakesAFreeVisibleSlotOrTheOneItWasAimedAt) {
  CameraModel& m = start();
  m.slotsDidChange(phoneRows(oneTo(11)));
  m.attachLocal(localRow(14, "usb", "cam-14"));  // a live row above the visible range
  EXPECT_EQ(m.nextEmptySlot(), 12);
  m.slotsDidChange(phoneRows(oneTo(12)));
  EXPECT_EQ(m.resolveTargetSlot(), std::nullopt);
  trace.calls.clear();
  m.attachLocalCamera("cam-1");
  EXPECT_EQ(m.toast(), "All 12 inputs are in use. Add an input — Studio holds up to 16.");
  EXPECT_FALSE(trace.has("localCapture.start cam-1 13"));

  m.addOptionalInput();
  m.addSourceTargetSlot = 3;
  EXPECT_EQ(m.resolveTargetSlot(), 13);
  EXPECT_EQ(m.addSourceTargetSlot(), std::nullopt);
  m.addSourceTargetSlot = 15;  // empty, even if not shown
  EXPECT_EQ(m.resolveTargetSlot(), 15);
  trace.calls.clear();
  m.addSourceTargetSlot = 14;  // the new source replaces the camera there
  EXPECT_EQ(m.resolveTargetSlot(), 14);
  for (const char* hub : {"localCapture", "media", "screenCapture", "ndi"})
    EXPECT_TRUE(trace.has(std::string(hub) + ".stopDevice cam-14")) << hub;

  // With room again the camera starts in the free slot.
  trace.calls.clear();
  m.attachLocalCamera("cam-1");
  EXPECT_TRUE(trace.has("localCapture.start cam-1 13"));

  for (int i = 0; i < 3; ++i) m.addOptionalInput();
  EXPECT_EQ(m.visibleInputCount(), 16);
  std::set<int> phones = oneTo(16);
  phones.erase(14);
  m.slotsDidChange(phoneRows(phones));
  EXPECT_EQ(m.sourcesFullMessage(), "All 16 inputs are in use.");
  m.addSourceTargetSlot = 7;
  EXPECT_EQ(m.resolveTargetSlot(), std::nullopt);
  EXPECT_EQ(m.toast(), "Source 7 is a live phone — added to another source instead");
}

TEST_F(StudioSlots, ANewPhoneIsMutedAndWaitsForItsFirstPicture) {
  CameraModel& m = start();
  m.muted = {{4, false}};            // an earlier choice stays
  hubs.media->decks = {{5, false}};  // a deck keeps its own flag
  hubs.frames->withFrame = {5, 6};
  m.slotsDidChange(phoneRows({3, 4, 5, 6}));
  EXPECT_THAT(m.muted(), ElementsAre(Pair(3, true), Pair(4, false), Pair(6, true)));
  EXPECT_EQ(m.waitingForPicture(), (std::set<int>{3, 4}));
  hubs.frames->onFirstFrame(4);
  main.drain();
  EXPECT_EQ(m.waitingForPicture(), (std::set<int>{3}));
  main.advance(9.9);
  EXPECT_EQ(m.toast(), std::nullopt);
  main.advance(0.1);
  EXPECT_EQ(m.toast(), "Input 3 has no picture yet.");

  store->set("qvn.newInputsMuted", false);
  m.slotsDidChange(phoneRows({3, 4, 5, 6, 7}));
  EXPECT_FALSE(m.muted().at(7));
}

TEST_F(StudioSlots, APhoneLeavingIsClearedEverywhere) {
  CameraModel& m = start();
  m.slotsDidChange(phoneRows({1, 3, 5}));
  m.focusedSlot = 3;
  m.audibleSlotOverride = 3;
  m.audioLevels.set({{3, {0.5f}}});
  m.audioPeaks.set({{3, {0.7f}}});
  m.lockedFocus.insert(3);
  trace.calls.clear();
  m.slotsDidChange(phoneRows({1, 5}));
  for (const char* call :
       {"mix.clearIf 3 [1,5]", "frames.clear 3", "recorder.detachTap 3", "meterBus.clear 3"})
    EXPECT_TRUE(trace.has(call)) << call;
  EXPECT_EQ(m.focusedSlot(), 1);
  EXPECT_EQ(m.audibleSlotOverride(), std::nullopt);
  EXPECT_TRUE(store->contains("qvn.mixFill"));  // settings were saved
  EXPECT_FALSE(store->contains("qvn.audibleSlotOverride"));
  EXPECT_TRUE(m.audioLevels().empty());
  EXPECT_TRUE(m.audioPeaks().empty());
  EXPECT_FALSE(m.lockedFocus.contains(3));

  m.slotsDidChange(phoneRows({}));
  EXPECT_TRUE(trace.has("mix.clearIf 5 []"));
  EXPECT_EQ(m.focusedSlot(), std::nullopt);
}

TEST_F(StudioSlots, OptionalInputsAndTheOrderOfCards) {
  CameraModel& m = start();
  m.hideLastOptionalInput();
  EXPECT_EQ(m.visibleInputCount(), 12);
  m.addOptionalInput();
  EXPECT_EQ(store->integer("qvn.visibleInputs"), 13);
  EXPECT_EQ(m.displayOrder(), orderOneTo(13));
  EXPECT_FALSE(store->contains("qvn.displayOrder"));

  m.attachLocal(localRow(13, "screen", "window-1"));
  EXPECT_FALSE(m.canHideOptionalInput());
  m.hideLastOptionalInput();
  EXPECT_EQ(m.toast(), "Source 13 is in use. Remove that source before hiding the input.");
  EXPECT_EQ(m.visibleInputCount(), 13);
  m.detachLocal(13);
  EXPECT_TRUE(m.canHideOptionalInput());
  m.hideLastOptionalInput();
  EXPECT_EQ(store->integer("qvn.visibleInputs"), 12);
  EXPECT_EQ(m.displayOrder(), orderOneTo(12));

  m.reorderInput(3, 3);
  m.reorderInput(3, 13);
  EXPECT_FALSE(m.displayOrderIsManual());
  m.reorderInput(5, 2);
  m.reorderInput(1, 7);
  const std::vector<int> moved{5, 2, 3, 4, 6, 1, 7, 8, 9, 10, 11, 12};
  EXPECT_EQ(m.displayOrder(), moved);
  EXPECT_FALSE(store->contains("qvn.displayOrder"));  // not until the drag ends
  m.commitManualOrder();
  EXPECT_EQ(store->list("qvn.displayOrder"), stored(moved));
  EXPECT_EQ(store->boolean("qvn.displayOrderManual"), true);
  m.slotsDidChange(phoneRows({2}));  // a manual order isn't renumbered
  EXPECT_EQ(m.displayOrder(), moved);

  m.addOptionalInput();
  auto withThirteen = moved;
  withThirteen.push_back(13);
  EXPECT_EQ(m.displayOrder(), withThirteen);
  EXPECT_EQ(store->list("qvn.displayOrder"), stored(withThirteen));
  m.hideLastOptionalInput();
  EXPECT_EQ(store->list("qvn.displayOrder"), stored(moved));

  m.resetDisplayOrder();
  EXPECT_EQ(m.displayOrder(), orderOneTo(12));
  EXPECT_FALSE(store->contains("qvn.displayOrder"));
  EXPECT_FALSE(store->contains("qvn.displayOrderManual"));
}

TEST_F(StudioSlots, AStoredOrderIsUsedOnlyWhenItIsAPermutation) {
  std::vector<int> thirteen{13, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
  store->set("qvn.visibleInputs", 12);
  store->set("qvn.displayOrderManual", true);
  store->set("qvn.displayOrder", stored(thirteen));
  CameraModel& m = start();
  EXPECT_EQ(store->integer("qvn.visibleInputs"), 13);
  EXPECT_EQ(m.displayOrder(), thirteen);
  EXPECT_TRUE(m.displayOrderIsManual());

  store->set("qvn.visibleInputs", 14);
  for (const auto& bad :
       {stored({1, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}), stored(orderOneTo(11)),
        stored(orderOneTo(17)), SettingsList{2, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, "12"}}) {
    store->set("qvn.displayOrder", bad);
    CameraModel& n = start();
    EXPECT_FALSE(n.displayOrderIsManual());
    EXPECT_EQ(n.visibleInputCount(), 14);
    EXPECT_EQ(n.displayOrder(), orderOneTo(14));
  }
}

TEST_F(StudioSlots, HeroLabelsAndMute) {
  CameraModel& m = start();
  EXPECT_EQ(m.heroSlot(), std::nullopt);
  m.slotsDidChange(phoneRows({2, 5}));
  EXPECT_EQ(m.heroSlot()->index, 2);
  trace.calls.clear();
  hubs.mix->onBusChanged(5, 2);
  main.drain();
  // Recorder, stream, sound and screens follow the input on Program.
  EXPECT_EQ(trace.calls,
            (std::vector<std::string>{"recorder.followAudioSlot 5", "publisher.setProgramSlot 5",
                                      "audio.setProgramSlot 5", "programOutput.followProgram"}));
  EXPECT_EQ(m.heroSlot()->index, 5);
  EXPECT_EQ(m.selectedSlot()->index, 2);
  m.programSlot = 7;  // not live
  m.focusedSlot = 5;
  EXPECT_EQ(m.heroSlot()->index, 5);
  m.focusedSlot = 9;  // not live either
  EXPECT_EQ(m.heroSlot()->index, 2);

  m.programSlot = 5;
  m.toggleMute();
  EXPECT_TRUE(trace.has("audio.setMuted false 5"));
  hubs.media->decks = {{2, true}};  // a deck's own flag counts
  m.muted = {{2, false}};
  m.toggleMute(2);
  EXPECT_FALSE(hubs.media->decks.at(2));
  EXPECT_FALSE(m.muted().at(2));

  m.setLabel("  Host cam \t", 2);
  EXPECT_EQ(m.slots()[1].label, "Host cam");
  EXPECT_EQ(store->dict("qvn.labels"), (SettingsDict{{"2", "Host cam"}}));
  m.setLabel("   ", 2);
  EXPECT_EQ(m.slots()[1].label, "");
  EXPECT_EQ(store->dict("qvn.labels"), SettingsDict{});
}

}  // namespace
}  // namespace qvn::test
