#include "platform/dispatch.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace qvn {
namespace {

using namespace std::chrono_literals;

// Real-time waits are liveness bounds only: generous, never a measure of speed.
constexpr auto kLiveness = 30s;

template <typename Future>
bool settles(Future&& future) {
  return future.wait_for(kLiveness) == std::future_status::ready;
}

int threadNice() {
  errno = 0;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

TEST(MediaClock, IsMonotonicSecondsAndCanBeReplacedForTheWholeProcess) {
  struct Restore {
    ~Restore() { setMediaTimeSource(nullptr); }
  } restore;
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  EXPECT_NEAR(mediaTime(), static_cast<double>(ts.tv_sec) + ts.tv_nsec * 1e-9, 0.5);

  setMediaTimeSource([] { return 42.5; });
  EXPECT_EQ(std::async(std::launch::async, [] { return mediaTime(); }).get(), 42.5);
  // A frozen media clock must not freeze the queues' own delays.
  SerialQueue queue("io.quorvane.test.clock");
  std::promise<void> fired;
  queue.asyncAfter(0.01, [&] { fired.set_value(); });
  EXPECT_TRUE(settles(fired.get_future()));
  setMediaTimeSource(nullptr);
  EXPECT_NE(mediaTime(), 42.5);
}

TEST(SerialQueue, ThreadIsNamedAfterTheLabelAndNicedByPriority) {
  const int base = threadNice();
  for (auto [label, expectedName, priority, niceStep] :
       {std::tuple{"io.quorvane.camera.mix", "qvn-mix", QueuePriority::userInitiated, 0},
        std::tuple{"io.quorvane.cameraX", "qvn-cameraX", QueuePriority::utility, 5},
        std::tuple{"io.quorvane.camera.framehub.fanout", "qvn-framehub.fa",
                   QueuePriority::background, 10},
        std::tuple{"com.example.thing", "qvn-com.example", QueuePriority::userInteractive, 0}}) {
    SerialQueue queue(label, priority);
    char name[16] = {};
    int nice = 0;
    queue.sync([&] {
      pthread_getname_np(pthread_self(), name, sizeof name);
      nice = threadNice();
    });
    EXPECT_STREQ(name, expectedName);
    EXPECT_EQ(SerialQueue::threadName(label), expectedName);
    EXPECT_EQ(nice, std::min(base + niceStep, 19)) << label;
  }
  EXPECT_EQ(threadNice(), base) << "only the queue's thread may change";
}

TEST(SerialQueue, KeepsEachProducersOrder) {
  SerialQueue queue("io.quorvane.test.fifo");
  constexpr int kProducers = 4, kJobsEach = 2000;
  std::vector<std::pair<int, int>> ran;  // touched only on the queue
  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kJobsEach; ++i) queue.async([&, p, i] { ran.emplace_back(p, i); });
    });
  }
  for (auto& t : producers) t.join();
  queue.sync([] {});
  ASSERT_EQ(ran.size(), size_t{kProducers * kJobsEach});
  std::vector<int> nextOf(kProducers, 0);
  for (auto [p, i] : ran) ASSERT_EQ(i, nextOf[p]++) << "producer " << p << " out of order";
}

TEST(SerialQueue, SyncWaitsForTheQueueAndRunsInPlaceOnItsOwnQueue) {
  SerialQueue a("io.quorvane.test.a"), b("io.quorvane.test.b");
  int value = 0;  // deliberately plain: sync must publish the job's writes to the caller
  a.async([&] {
    std::this_thread::sleep_for(10ms);  // a job still running must hold back the next one
    value = 1;
  });
  a.sync([&] { value *= 10; });
  EXPECT_EQ(value, 10);

  std::vector<int> steps;
  a.sync([&] {
    EXPECT_TRUE(a.isCurrent());
    a.sync([&] { steps.push_back(1); });  // onto itself: must not wait on itself
    steps.push_back(2);
    b.sync([&] {
      EXPECT_TRUE(b.isCurrent());
      EXPECT_FALSE(a.isCurrent()) << "a's thread is blocked, not running b's job";
      steps.push_back(3);
    });
  });
  EXPECT_EQ(steps, (std::vector<int>{1, 2, 3}));
}

TEST(SerialQueue, TeardownRunsDueJobsDropsTheRestAndReturnsPromptly) {
  auto queue = std::make_unique<SerialQueue>("io.quorvane.test.teardown");
  SerialQueue* raw = queue.get();
  std::atomic<bool> intakeClosed{false}, forbiddenRan{false};
  std::atomic<int> dueRan{0};
  auto futureCapture = std::make_shared<int>(0);
  std::weak_ptr<int> futureCaptureWatch = futureCapture;

  // Holds the thread until teardown has begun, so the jobs below are still queued by then.
  // Teardown closes intake: a post from here that is refused (destroyed at once) says so.
  queue->async([raw, &intakeClosed] {
    for (auto end = std::chrono::steady_clock::now() + kLiveness;
         std::chrono::steady_clock::now() < end; std::this_thread::sleep_for(1ms)) {
      auto probe = std::make_shared<int>(0);
      std::weak_ptr<int> probeWatch = probe;
      raw->async([probe = std::move(probe)] {});
      if (probeWatch.expired()) return void(intakeClosed = true);
    }
  });
  for (int i = 0; i < 100; ++i) queue->async([&] { ++dueRan; });
  queue->asyncAfter(3600.0, [&, keep = std::move(futureCapture)] { forbiddenRan = true; });
  // Due, but called off from another thread before it could start.
  DelayedWork::schedule(*queue, 0, [&] { forbiddenRan = true; }).cancel();

  ASSERT_TRUE(settles(std::async(std::launch::async, [&] { queue.reset(); })));
  EXPECT_TRUE(intakeClosed.load());
  EXPECT_EQ(dueRan.load(), 100);
  EXPECT_FALSE(forbiddenRan.load());
  EXPECT_TRUE(futureCaptureWatch.expired()) << "dropped jobs must be released";
}

TEST(SerialQueueDeathTest, DestroyingFromItsOwnJobAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto* queue = new SerialQueue("io.quorvane.test.self");
        queue->async([queue] { delete queue; });
        std::this_thread::sleep_for(kLiveness);
      },
      "destroyed from one of its own jobs");
}

TEST(ManualMainQueue, RunsJobsInDueOrderAtTheirOwnDueTimes) {
  ManualMainQueue queue(1000.0);
  std::vector<std::string> log;  // name@milliseconds since the start
  auto record = [&](std::string name) {
    return [&, name] {
      log.push_back(name + "@" + std::to_string(std::lround((queue.now() - 1000) * 1000)));
    };
  };
  queue.asyncAfter(0.3, record("c"));
  queue.asyncAfter(0.1, record("a1"));
  queue.asyncAfter(0.2, [&] {
    record("b")();
    queue.asyncAfter(0.05, record("b+"));  // lands inside the same advance
  });
  queue.asyncAfter(0.1, record("a2"));  // same due time as a1: posting order
  queue.async([&] {
    record("now")();
    queue.async(record("now+"));  // due at once: the same drain runs it
  });
  EXPECT_EQ(queue.drain(), 2);
  EXPECT_EQ(queue.drain(), 0) << "drain must not move the clock";
  EXPECT_EQ(queue.advance(0.15), 2);
  EXPECT_EQ(queue.advance(1.0), 3);
  EXPECT_DOUBLE_EQ(queue.now(), 1001.15);
  EXPECT_EQ(queue.pendingCount(), 0u);
  EXPECT_EQ(log, (std::vector<std::string>{"now@0", "now+@0", "a1@100", "a2@100", "b@200", "b+@250",
                                           "c@300"}));
}

TEST(ManualMainQueue, WorkersSyncOntoTheTestThreadThroughDrainWaiting) {
  ManualMainQueue queue;
  bool inPlace = false;
  queue.sync([&] { inPlace = queue.isCurrent(); });  // on the main thread: no drain needed
  EXPECT_TRUE(inPlace);

  queue.asyncAfter(1.0, [] {});  // not due yet, so not work to wait for
  std::atomic<bool> ranOnMain{false};
  auto worker = std::async(std::launch::async, [&] {
    EXPECT_FALSE(queue.isCurrent());
    queue.sync([&] { ranOnMain = queue.isCurrent(); });
  });
  EXPECT_EQ(queue.drainWaiting(kLiveness.count()), 1);
  ASSERT_TRUE(settles(worker));
  EXPECT_TRUE(ranOnMain.load());
  EXPECT_EQ(queue.drainWaiting(0.01), 0);
}

TEST(DelayedWork, CancelOnTheQueueMeansNeverCopiesShareOneJobAndBurstsCoalesce) {
  ManualMainQueue queue;
  EXPECT_FALSE(DelayedWork().isPending());
  DelayedWork().cancel();  // harmless on an empty handle

  int runs[4] = {};
  DelayedWork cancelled = DelayedWork::schedule(queue, 1.0, [&] { ++runs[0]; });
  DelayedWork copy = cancelled;
  DelayedWork sameDue;  // cancelled by a job due at the same time, posted first
  queue.asyncAfter(0.1, [&] { sameDue.cancel(); });
  sameDue = DelayedWork::schedule(queue, 0.1, [&] { ++runs[1]; });
  DelayedWork ran;  // and no longer pending once it runs
  ran = DelayedWork::schedule(queue, 1.0, [&] { runs[2] += ran.isPending() ? 10 : 1; });
  DelayedWork::schedule(queue, 1.0, [&] { ++runs[3]; });  // dropping the handle does not cancel

  queue.advance(0.5);
  EXPECT_TRUE(cancelled.isPending());
  copy.cancel();
  EXPECT_FALSE(cancelled.isPending());
  EXPECT_TRUE(ran.isPending());
  queue.advance(1.0);
  EXPECT_EQ(std::vector<int>(runs, runs + 4), (std::vector<int>{0, 0, 1, 1}));

  // A burst of reschedules coalesces into one run: the last request wins.
  std::vector<double> at;
  DelayedWork latest;
  for (int i = 0; i < 5; ++i, queue.advance(0.1)) {
    latest.cancel();
    latest = DelayedWork::schedule(queue, 0.5, [&] { at.push_back(queue.now()); });
  }
  queue.advance(2.0);
  ASSERT_EQ(at.size(), 1u);
  EXPECT_NEAR(at[0], 1001.5 + 0.4 + 0.5, 1e-9);
}

// A job that keeps the queue busy is modelled by advancing the clock from inside it: the
// queue runs one job at a time, so nothing else runs meanwhile and the clock just moves.
TEST(RepeatingTimer, TicksOnAFixedGridAndSkipsMissedTicksRatherThanBursting) {
  for (double tickCost : {0.0, 0.03}) {
    ManualMainQueue queue(1000.0);
    std::vector<double> ticks;
    RepeatingTimer timer(queue, 0.1, [&] {
      ticks.push_back(queue.now());
      EXPECT_EQ(queue.advance(tickCost), 0);
    });
    EXPECT_EQ(queue.advance(1.0), 10);
    ASSERT_EQ(ticks.size(), 10u) << "tick cost " << tickCost;
    for (size_t n = 0; n < ticks.size(); ++n) EXPECT_NEAR(ticks[n], 1000.0 + 0.1 * (n + 1), 1e-9);
  }

  // When the queue comes back after missing several tick times, the one tick that was waiting
  // runs once, late; the missed ones are skipped and the next falls on the original grid.
  ManualMainQueue queue(1000.0);
  std::vector<double> ticks;
  RepeatingTimer timer(queue, 0.1, [&] { ticks.push_back(queue.now()); });
  queue.asyncAfter(0.05, [&] { queue.advance(0.5); });  // busy until 1000.55
  queue.advance(0.6);
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_NEAR(ticks[0], 1000.55, 1e-9);
  EXPECT_NEAR(ticks[1], 1000.6, 1e-9);
}

TEST(RepeatingTimer, CancelDestroyAndMoveStopTheRightTicks) {
  ManualMainQueue queue(1000.0);
  int a = 0, b = 0, c = 0;
  RepeatingTimer fromInside;
  fromInside = RepeatingTimer(queue, 0.1, [&] {
    if (++b == 2) fromInside.cancel();
  });
  RepeatingTimer(queue, 0.1, [&] { ++c; });  // a temporary: stopped as soon as made
  queue.advance(1.0);
  EXPECT_EQ(b, 2);
  EXPECT_EQ(c, 0);
  EXPECT_EQ(queue.pendingCount(), 0u) << "a stopped timer must leave nothing posted";

  b = 0;
  RepeatingTimer source(queue, 0.1, [&] { ++a; });
  RepeatingTimer moved(std::move(source));
  EXPECT_FALSE(source.isRunning());  // NOLINT(bugprone-use-after-move): moved-from is empty
  queue.advance(0.35);
  moved = RepeatingTimer(queue, 0.1, [&] { ++b; });  // replacing stops the old timer
  queue.advance(0.35);
  EXPECT_EQ(a, 3);
  EXPECT_EQ(b, 3);
  EXPECT_FALSE(RepeatingTimer(queue, 0.0, [] {}).isRunning());
}

TEST(RepeatingTimer, RunsOnASerialQueueAndStopsWhenCancelledFromAnotherThread) {
  SerialQueue queue("io.quorvane.test.timer");
  std::atomic<int> ticks{0};
  std::promise<void> third, later;
  RepeatingTimer timer(queue, 0.005, [&] {
    EXPECT_TRUE(queue.isCurrent());
    if (++ticks == 3) third.set_value();
  });
  ASSERT_TRUE(settles(third.get_future()));
  timer.cancel();
  queue.sync([] {});  // a tick already running has finished now
  const int atCancel = ticks.load();
  queue.asyncAfter(0.05, [&] { later.set_value(); });  // ten intervals on
  ASSERT_TRUE(settles(later.get_future()));
  EXPECT_EQ(ticks.load(), atCancel);
}

TEST(LoopMainQueue, RunsJobsUntilQuitThenLetsSyncsReturn) {
  LoopMainQueue early;
  early.quit();
  early.run();  // quit before run: returns at once

  LoopMainQueue loop;
  EXPECT_TRUE(loop.isCurrent()) << "before run() the constructing thread is the main thread";
  std::vector<int> order;  // touched only on the main thread
  std::atomic<bool> futureRan{false};
  std::promise<void> running;
  loop.async([&] { running.set_value(); });
  auto runner = std::async(std::launch::async, [&] { loop.run(); });  // takes the main role
  ASSERT_TRUE(settles(running.get_future()));
  EXPECT_FALSE(loop.isCurrent());
  for (int i = 0; i < 100; ++i) loop.async([&, i] { order.push_back(i); });
  loop.sync([&] { order.push_back(loop.isCurrent() ? 100 : -1); });
  loop.asyncAfter(3600.0, [&] { futureRan = true; });
  loop.async([&] { order.push_back(101); });  // due before quit: still runs
  loop.quit();
  ASSERT_TRUE(settles(runner));
  ASSERT_EQ(order.size(), 102u);
  for (int i = 0; i < 102; ++i) EXPECT_EQ(order[i], i);
  EXPECT_FALSE(futureRan.load());

  bool ranAfterQuit = false;
  loop.sync([&] { ranAfterQuit = true; });  // must come back, not wait forever
  EXPECT_FALSE(ranAfterQuit);
}

}  // namespace
}  // namespace qvn
