// The sim's camera: the pattern carries its code and its look, a loop starts on its
// keyframe, and the feed sends, logs, climbs and goes back to a keyframe when asked.
#include "video_feed.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <mutex>
#include <thread>

#include "frame_code.h"
#include "platform/pixel_convert.h"

namespace qvn {
namespace {

struct Drawn {
  PixelBufferRef bgra;
  const std::uint8_t* at(int x, int y) const { return bgra->bgraAt(x, y); }
};

Drawn draw(TestPattern& pattern, std::uint32_t code, const CameraLook& look) {
  auto i420 = PixelBuffer::make(PixelFormat::i420, 640, 360);
  auto bgra = PixelBuffer::make(PixelFormat::bgra, 640, 360);
  pattern.draw(*i420, 0.25, code, look);
  EXPECT_TRUE(i420ToBGRA(*i420, *bgra));
  return {bgra};
}

TEST(TestPattern, CarriesItsCodeAndTheCamerasLook) {
  TestPattern pattern("Test");
  const auto front = draw(pattern, 77, {});
  EXPECT_EQ(readFrameCode(*front.bgra), 77u);
  EXPECT_LT(front.at(620, 200)[2], 60);  // the last bar is blue
  const auto back = draw(pattern, 78, {.back = true});
  EXPECT_EQ(readFrameCode(*back.bgra), 78u);
  EXPECT_GT(back.at(620, 200)[2], 150);  // and on the back camera, grey
  const auto zoomed = draw(pattern, 79, {.zoom = 3});
  EXPECT_EQ(readFrameCode(*zoomed.bgra), 79u);  // the code is not zoomed with the scene
  const auto focused = draw(pattern, 80, {.focus = FocusPoint{0.1, 0.5, true}});
  const std::uint8_t* mark = focused.at(64, 158);  // the top edge of a yellow square
  EXPECT_GT(mark[2], 180);
  EXPECT_GT(mark[1], 180);
  EXPECT_LT(mark[0], 90);
}

TEST(EncodedLoop, IsOneCycleStartingOnAKeyframe) {
  TestPattern pattern("Test");
  std::atomic<bool> cancelled{false};
  std::string error;
  auto loop = encodeLoop({256, 144, 10, 300'000, ""}, {}, pattern, cancelled, error);
  ASSERT_TRUE(loop) << error;
  EXPECT_EQ(loop->frames.size(), 40u);
  EXPECT_TRUE(loop->frames.front().keyframe);
  EXPECT_EQ(loop->format.width, 256);
  EXPECT_FALSE(loop->format.configuration.empty());
  cancelled = true;
  EXPECT_FALSE(encodeLoop({256, 144, 10, 300'000, ""}, {}, pattern, cancelled, error));
}

// A sink that records what it is given, and refuses the first `refuse` frames as a sender
// does before the peer connection is up.
struct Recorder {
  struct Sent {
    int width;
    bool keyframe;
  };
  std::mutex lock;
  std::vector<Sent> sent;
  int refuse = 0;
  VideoFeed::Sink sink() {
    return [this](const VideoFormat& format, const EncodedFrame& frame) {
      std::lock_guard hold(lock);
      if (refuse > 0 && refuse--) return false;
      sent.push_back({format.width, frame.keyframe});
      return true;
    };
  }
  size_t count() {
    std::lock_guard hold(lock);
    return sent.size();
  }
  void waitFor(size_t frames) {
    for (int i = 0; i < 500 && count() < frames; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_GE(count(), frames);
  }
};

std::vector<std::uint32_t> codesIn(const std::string& path) {
  std::ifstream file(path);
  std::vector<std::uint32_t> codes;
  std::uint32_t code;
  double seconds;
  while (file >> code >> seconds) codes.push_back(code);
  return codes;
}

std::unique_ptr<FrameLog> freshLog(const std::string& path) {
  std::remove(path.c_str());
  std::string error;
  auto log = FrameLog::open(path, error);
  EXPECT_TRUE(log) << error;
  return log;
}

TEST(VideoFeed, LoopsFromItsIndexAndGoesBackToItsKeyframeWhenAsked) {
  const std::string path = ::testing::TempDir() + "qvn-sim-loop.log";
  Recorder recorder;
  {
    VideoFeed feed({256, 144, 30, 300'000, true, false, "Test"}, freshLog(path), recorder.sink(),
                   [](const std::string& error) { FAIL() << error; });
    feed.prepare();
    feed.start();
    recorder.waitFor(8);
    feed.requestKeyframe();
    recorder.waitFor(16);
  }
  const auto codes = codesIn(path);
  ASSERT_EQ(codes.size(), recorder.sent.size());
  EXPECT_EQ(codes[0], 0u);
  int restarts = 0;
  for (size_t i = 1; i < codes.size(); ++i) {
    if (codes[i] == 0) {
      ++restarts;
      EXPECT_TRUE(recorder.sent[i].keyframe);
    } else {
      EXPECT_EQ(codes[i], codes[i - 1] + 1);
    }
  }
  EXPECT_EQ(restarts, 1);
}

TEST(VideoFeed, LiveCodesCountSentFramesAndTheClimbStartsOnAKeyframe) {
  const std::string path = ::testing::TempDir() + "qvn-sim-live.log";
  Recorder recorder;
  recorder.refuse = 5;
  {
    VideoFeed feed({256, 144, 30, 300'000, false, true, "Test"}, freshLog(path), recorder.sink(),
                   [](const std::string& error) { FAIL() << error; });
    feed.start();
    recorder.waitFor(1);
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));
  }
  const auto codes = codesIn(path);
  ASSERT_EQ(codes.size(), recorder.sent.size());
  for (size_t i = 0; i < codes.size(); ++i) EXPECT_EQ(codes[i], i);
  EXPECT_EQ(recorder.sent.front().width, 128);
  const auto climbed = std::find_if(recorder.sent.begin(), recorder.sent.end(),
                                    [](const auto& s) { return s.width == 256; });
  ASSERT_NE(climbed, recorder.sent.end());
  EXPECT_TRUE(climbed->keyframe);
  // Two seconds at the small size, counted from the first frame that went (fewer frames when
  // a busy machine makes the feed skip ticks, never more).
  const auto small = climbed - recorder.sent.begin();
  EXPECT_GE(small, 30);
  EXPECT_LE(small, 63);
}

}  // namespace
}  // namespace qvn
