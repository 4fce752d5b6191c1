#include "video/frame_hub.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <vector>

namespace qvn {
namespace {

PixelBufferRef picture(int width = 8, int height = 4) {
  return PixelBuffer::make(PixelFormat::bgra, width, height);
}

// Collects what a view presents; presentation happens on the preview queue.
struct Screen {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<PixelBufferRef> shown;
  std::shared_ptr<PixelBufferView> view;

  explicit Screen(double maxFps = 0) {
    view = PixelBufferView::make(
        [this](const PixelBufferRef& b) {
          std::lock_guard lock(mutex);
          shown.push_back(b);
          changed.notify_all();
        },
        maxFps);
  }
  // Waits (bounded, for liveness only) until `count` pictures were shown.
  bool waitFor(size_t count) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), [&] { return shown.size() >= count; });
  }
  std::vector<PixelBufferRef> snapshot() {
    std::lock_guard lock(mutex);
    return shown;
  }
};

// Holds the shared preview queue until released, so pictures pile up behind it.
struct PreviewQueueGate {
  std::promise<void> open;
  std::shared_ptr<PixelBufferView> view;
  PreviewQueueGate() {
    auto wait = open.get_future().share();
    view = PixelBufferView::make([wait](const PixelBufferRef&) { wait.wait(); });
    view->enqueue(picture());
  }
  void release() { open.set_value(); }
};

// The preview queue is first in, first out: once a probe's picture is shown, every picture
// offered before it has been shown too.
void flushPreview() {
  Screen probe;
  probe.view->enqueue(picture());
  ASSERT_TRUE(probe.waitFor(1));
}

TEST(FrameHubTest, FirstFrameIsAnnouncedOncePerInputAndNeverForTheBuses) {
  FrameHub hub;
  std::vector<int> announced;
  hub.onFirstFrame = [&](int slot) { announced.push_back(slot); };

  hub.store(0, picture());
  hub.store(-1, picture());
  hub.store(3, picture());
  hub.store(3, picture());
  EXPECT_EQ(announced, std::vector<int>{3});

  hub.clear(3);
  EXPECT_FALSE(hub.hasFrame(3));
  EXPECT_EQ(hub.size(3), FrameSize{});
  hub.store(3, picture(16, 2));
  EXPECT_EQ(announced, (std::vector<int>{3, 3}));
  EXPECT_EQ(hub.size(3), (FrameSize{16, 2}));

  // Slots outside -1...16 are not slots.
  hub.store(17, picture());
  hub.store(-2, picture());
  EXPECT_EQ(hub.buffer(17), nullptr);
  EXPECT_EQ(hub.size(99), FrameSize{});
  EXPECT_EQ(announced.size(), 2u);
}

TEST(FrameHubTest, WatchersGetTheNewestPictureAndAGoneViewCostsNothing) {
  FrameHub hub;
  Screen early, late, second;
  auto onEmpty = std::make_shared<FrameWatcher>(FrameWatcher{early.view});
  hub.watch(5, onEmpty);
  flushPreview();
  EXPECT_TRUE(early.snapshot().empty());  // nothing to show on an empty slot yet

  auto first = picture();
  hub.store(5, first);
  ASSERT_TRUE(early.waitFor(1));
  EXPECT_EQ(early.snapshot().back(), first);

  // A view that starts watching a slot with a picture shows it without a new store.
  hub.watch(5, std::make_shared<FrameWatcher>(FrameWatcher{late.view}));
  ASSERT_TRUE(late.waitFor(1));
  EXPECT_EQ(late.snapshot().back(), first);

  // A watcher whose view is gone is skipped; the others are still served.
  {
    Screen gone;
    hub.watch(5, std::make_shared<FrameWatcher>(FrameWatcher{gone.view}));
    gone.waitFor(1);
  }
  auto watcherOnTwo = std::make_shared<FrameWatcher>(FrameWatcher{second.view});
  hub.watch(5, watcherOnTwo);
  hub.watch(6, watcherOnTwo);
  second.waitFor(1);
  auto next = picture();
  hub.store(5, next);
  ASSERT_TRUE(late.waitFor(2));
  EXPECT_EQ(late.snapshot().back(), next);
  ASSERT_TRUE(second.waitFor(2));

  // Unwatching removes the watcher from every slot it was on.
  hub.unwatch(watcherOnTwo);
  flushPreview();
  const size_t before = second.snapshot().size();
  hub.store(6, picture());
  hub.store(5, picture());
  ASSERT_TRUE(late.waitFor(3));
  flushPreview();
  EXPECT_EQ(second.snapshot().size(), before);
}

TEST(FrameHubTest, ProgramFansOutInOrderAfterItIsStored) {
  FrameHub hub;
  std::vector<std::string> order;
  auto frame = picture();
  hub.setProgramTaps(
      [&](int slot, const PixelBufferRef& b) {
        EXPECT_EQ(hub.buffer(0), frame);  // stored before anything else sees it
        order.push_back("camera " + std::to_string(slot) + (b == frame ? " same" : ""));
      },
      [&](int slot, const PixelBufferRef&) {
        order.push_back("recorder " + std::to_string(slot));
      });
  hub.ingestMix(frame);
  hub.setMixListener([&](const PixelBufferRef&) { order.push_back("publisher"); });
  hub.ingestMix(frame);
  hub.setMixListener(nullptr);
  hub.ingestMix(frame);
  EXPECT_EQ(order,
            (std::vector<std::string>{"camera 0 same", "recorder 0", "camera 0 same", "recorder 0",
                                      "publisher", "camera 0 same", "recorder 0"}));
}

TEST(PixelBufferViewTest, ShowsOnlyTheNewestAndDropsWhatComesTooSoon) {
  // Two pictures before a drain: only the second is shown.
  PreviewQueueGate gate;
  Screen screen;
  auto a = picture(), b = picture();
  screen.view->enqueue(a);
  screen.view->enqueue(b);
  gate.release();
  ASSERT_TRUE(screen.waitFor(1));
  EXPECT_EQ(screen.snapshot(), std::vector<PixelBufferRef>{b});

  // At 15 pictures a second, one 50 ms after the last shown is dropped, not deferred.
  static double now = 100.0;
  setMediaTimeSource([] { return now; });
  Screen card(15);
  card.view->enqueue(a);
  ASSERT_TRUE(card.waitFor(1));
  now += 0.05;
  card.view->enqueue(b);
  now += 0.02;
  auto c = picture();
  card.view->enqueue(c);
  ASSERT_TRUE(card.waitFor(2));
  setMediaTimeSource(nullptr);
  EXPECT_EQ(card.snapshot(), (std::vector<PixelBufferRef>{a, c}));
}

TEST(SlotFeedTest, FollowsItsSlotAndUnwatchesWhenGone) {
  FrameHub hub;
  Screen screen;
  auto one = picture(), two = picture();
  hub.store(1, one);
  hub.store(2, two);
  {
    SlotFeed feed(hub, screen.view, 1);
    ASSERT_TRUE(screen.waitFor(1));
    feed.setSlot(2);
    ASSERT_TRUE(screen.waitFor(2));
    EXPECT_EQ(screen.snapshot().back(), two);
  }
  hub.store(2, picture());
  hub.store(1, picture());
  flushPreview();
  EXPECT_EQ(screen.snapshot().size(), 2u);
}

}  // namespace
}  // namespace qvn
