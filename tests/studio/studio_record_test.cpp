// Recording and stills as the operator starts them: the refusals and their words, the
// running time, the end (a recording started over another included), and a recovered movie
// announced once.
#include "phones/phone_audio_tap.h"
#include "studio/recording_hubs.h"

namespace qvn::test {
namespace {

class StudioRecord : public StudioFixture {};

TEST_F(StudioRecord, ARecordingStartsOnlyWithSomethingToRecordAndSaysWhenItEnds) {
  CameraModel& m = start();
  m.toggleRecording();
  EXPECT_EQ(m.toast(), "Add a source first");
  EXPECT_FALSE(trace.has("recorder.start 0 0 none"));

  m.slotsDidChange(phoneRows({1}));
  m.programSlot = 1;
  m.toggleRecording();  // the recorder can't write the file
  EXPECT_EQ(m.toast(), "Could not start recording");
  EXPECT_FALSE(m.recording());

  hubs.recorder->file = root / "Show.mp4";
  m.toggleRecording();
  EXPECT_TRUE(m.recording());
  EXPECT_EQ(m.recordURL(), root / "Show.mp4");
  EXPECT_EQ(m.toast(), "Recording started");
  main.advance(2.0);
  EXPECT_DOUBLE_EQ(m.recordElapsed(), 2.0);

  m.toggleRecording();
  EXPECT_TRUE(trace.has("recorder.stop"));
  hubs.recorder->onState(false, root / "Show.mp4");
  main.advance(0);
  EXPECT_FALSE(m.recording());
  EXPECT_EQ(m.toast(), "Recording saved");
  main.advance(5);
  EXPECT_DOUBLE_EQ(m.recordElapsed(), 2.0);  // the clock stopped with the recording

  // A recording started over another: the older movie ends after the new one began.
  hubs.recorder->file = root / "Next.mp4";
  m.startRecord();
  hubs.recorder->file = root / "Last.mp4";
  m.startRecord();
  hubs.recorder->onState(true, root / "Last.mp4");
  hubs.recorder->onState(false, root / "Next.mp4");
  main.advance(0);
  EXPECT_EQ(m.toast(), "Recording saved");
  main.advance(1.0);
  EXPECT_TRUE(m.recording());
  EXPECT_EQ(m.recordURL(), root / "Last.mp4");
  EXPECT_DOUBLE_EQ(m.recordElapsed(), 1.0);
  hubs.recorder->onState(false, root / "Last.mp4");
  main.advance(0);
  EXPECT_FALSE(m.recording());

  hubs.recorder->onRecovered("Show.mp4");
  main.advance(0);
  EXPECT_EQ(m.toast(), "Recovered the recording Show.mp4");
}

TEST_F(StudioRecord, APhonesSoundIsOfferedToTheRecorderWhileItIsThere) {
  start();
  hubs.signaling->onAudioTap(2, std::make_shared<PhoneAudioTap>(2, nullptr));
  hubs.signaling->onAudioTap(2, nullptr);
  main.advance(0);
  EXPECT_TRUE(trace.has("recorder.attachTap true 2"));
  EXPECT_TRUE(trace.has("recorder.detachTap 2"));
}

TEST_F(StudioRecord, StillsWithoutAPictureSayWhy) {
  CameraModel& m = start();
  m.captureStill(-1);
  EXPECT_EQ(m.toast(), "Nothing to capture yet");
  m.captureStill(3);
  EXPECT_EQ(m.toast(), "No frame yet for that source");
  EXPECT_TRUE(m.stillFlash());
  main.advance(0.2);
  EXPECT_FALSE(m.stillFlash());
  m.captureAllStills();
  EXPECT_EQ(m.toast(), "Nothing to capture yet");
}

}  // namespace
}  // namespace qvn::test
