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
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qvn {
namespace {

using namespace std::chrono_literals;

// Real-time waits are liveness bounds only: generous, never a measure of speed.
constexpr auto kLiveness = 30s;

template <typename Future>
bool settles(Future& future) {
  return future.wait_for(kLiveness) == std::future_status::ready;
}

int threadNice() {
  errno = 0;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

// ---- media clock ----

double frozenClock() {
  return 42.5;
}

struct MediaClockRestore {
  ~MediaClockRestore() { setMediaTimeSource(nullptr); }
};

TEST(MediaClock, IsMonotonicSecondsAndCanBeReplacedForTheWholeProcess) {
  MediaClockRestore restore;
  timespec before{}, after{};
  clock_gettime(CLOCK_MONOTONIC, &before);
  const double t = mediaTime();
  clock_gettime(CLOCK_MONOTONIC, &after);
  EXPECT_GE(t, static_cast<double>(before.tv_sec) + before.tv_nsec * 1e-9 - 1e-6);
  EXPECT_LE(t, static_cast<double>(after.tv_sec) + after.tv_nsec * 1e-9 + 1e-6);

  setMediaTimeSource(&frozenClock);
  EXPECT_EQ(mediaTime(), 42.5);
  auto elsewhere = std::async(std::launch::async, [] { return mediaTime(); });
  EXPECT_EQ(elsewhere.get(), 42.5);

  // A frozen media clock must not freeze the queues' own delays.
  SerialQueue queue("io.quorvane.test.clock");
  std::promise<void> fired;
  queue.asyncAfter(0.01, [&] { fired.set_value(); });
  auto firedFuture = fired.get_future();
  EXPECT_TRUE(settles(firedFuture));

  setMediaTimeSource(nullptr);
  const double a = mediaTime();
  const double b = mediaTime();
  EXPECT_NE(a, 42.5);
  EXPECT_LE(a, b);
}

// ---- SerialQueue ----

TEST(SerialQueue, ThreadNamesComeFromLabels) {
  EXPECT_EQ(SerialQueue::threadName("io.quorvane.camera.mix"), "qvn-mix");
  EXPECT_EQ(SerialQueue::threadName("io.quorvane.signaling"), "qvn-signaling");
  EXPECT_EQ(SerialQueue::threadName("io.quorvane.cameraX"), "qvn-cameraX");
  EXPECT_EQ(SerialQueue::threadName("io.quorvane.camera.framehub.fanout"), "qvn-framehub.fa");
  EXPECT_EQ(SerialQueue::threadName("com.example.thing"), "qvn-com.example");
  EXPECT_EQ(SerialQueue::threadName(""), "qvn-");
}

TEST(SerialQueue, ThreadCarriesItsNameAndPriority) {
  const int baseNice = threadNice();
  struct Case {
    QueuePriority priority;
    int expectedNice;
  };
  const Case cases[] = {{QueuePriority::userInteractive, baseNice},
                        {QueuePriority::userInitiated, baseNice},
                        {QueuePriority::utility, std::min(baseNice + 5, 19)},
                        {QueuePriority::background, std::min(baseNice + 10, 19)}};
  for (const Case& c : cases) {
    SerialQueue queue("io.quorvane.camera.mix", c.priority);
    std::string name;
    int nice = 0;
    queue.sync([&] {
      char buffer[16] = {};
      pthread_getname_np(pthread_self(), buffer, sizeof buffer);
      name = buffer;
      nice = threadNice();
    });
    EXPECT_EQ(name, "qvn-mix");
    EXPECT_EQ(nice, c.expectedNice) << "priority " << static_cast<int>(c.priority);
  }
  EXPECT_EQ(threadNice(), baseNice) << "only the queue's thread may change";
}

TEST(SerialQueue, KeepsEachProducersOrderAndRunsOneJobAtATime) {
  SerialQueue queue("io.quorvane.test.fifo");
  constexpr int kProducers = 4;
  constexpr int kJobsEach = 2000;
  std::vector<std::pair<int, int>> ran;  // touched only on the queue
  std::atomic<int> inFlight{0};
  std::atomic<int> mostInFlight{0};

  std::vector<std::thread> producers;
  for (int p = 0; p < kProducers; ++p) {
    producers.emplace_back([&, p] {
      for (int i = 0; i < kJobsEach; ++i) {
        queue.async([&, p, i] {
          const int now = ++inFlight;
          int most = mostInFlight.load();
          while (now > most && !mostInFlight.compare_exchange_weak(most, now)) {
          }
          ran.emplace_back(p, i);
          --inFlight;
        });
      }
    });
  }
  for (auto& t : producers) t.join();
  queue.sync([] {});

  ASSERT_EQ(ran.size(), size_t{kProducers * kJobsEach});
  EXPECT_EQ(mostInFlight.load(), 1);
  std::vector<int> nextOf(kProducers, 0);
  for (auto [p, i] : ran) {
    ASSERT_EQ(i, nextOf[p]) << "producer " << p << " out of order";
    ++nextOf[p];
  }
}

TEST(SerialQueue, DelayedJobsWaitForTheirDueTimeAndRunInDueOrder) {
  SerialQueue queue("io.quorvane.test.delay");
  std::vector<std::string> order;  // touched only on the queue
  double lateAt = 0, earlyAt = 0;
  std::promise<void> done;

  const double postedAt = queue.now();
  queue.asyncAfter(0.2, [&] {
    order.push_back("late");
    lateAt = queue.now();
    done.set_value();
  });
  queue.asyncAfter(0.01, [&] {
    order.push_back("early");
    earlyAt = queue.now();
  });
  queue.async([&] { order.push_back("now"); });

  auto doneFuture = done.get_future();
  ASSERT_TRUE(settles(doneFuture));
  queue.sync([] {});
  EXPECT_EQ(order, (std::vector<std::string>{"now", "early", "late"}));
  EXPECT_GE(earlyAt, postedAt + 0.01);
  EXPECT_GE(lateAt, postedAt + 0.2);
}

TEST(SerialQueue, SyncReturnsAfterTheJobAndRunsInPlaceOnItsOwnQueue) {
  SerialQueue a("io.quorvane.test.a");
  SerialQueue b("io.quorvane.test.b");
  EXPECT_FALSE(a.isCurrent());

  int value = 0;  // deliberately plain: sync must publish the job's writes to the caller
  a.async([&] { value = 1; });
  a.sync([&] { value *= 10; });
  EXPECT_EQ(value, 10);

  std::vector<int> steps;
  a.sync([&] {
    EXPECT_TRUE(a.isCurrent());
    EXPECT_FALSE(b.isCurrent());
    a.sync([&] { steps.push_back(1); });  // onto itself: must not wait on itself
    steps.push_back(2);
    b.sync([&] {
      EXPECT_TRUE(b.isCurrent());
      EXPECT_FALSE(a.isCurrent()) << "a's thread is blocked, not running b's job";
      steps.push_back(3);
    });
  });
  EXPECT_EQ(steps, (std::vector<int>{1, 2, 3}));
  EXPECT_FALSE(a.isCurrent());
}

TEST(SerialQueue, TeardownRunsDueJobsDropsTheRestAndReturnsPromptly) {
  auto queue = std::make_unique<SerialQueue>("io.quorvane.test.teardown");
  SerialQueue* raw = queue.get();
  std::atomic<bool> intakeClosed{false};
  std::atomic<int> immediateRan{0};
  std::atomic<bool> futureRan{false};
  auto futureCapture = std::make_shared<int>(0);
  std::weak_ptr<int> futureCaptureWatch = futureCapture;

  // Holds the thread until teardown has begun, so the jobs below are still queued by then.
  // Teardown closes intake: a post from here that is refused (destroyed at once) says so.
  queue->async([raw, &intakeClosed] {
    const auto deadline = std::chrono::steady_clock::now() + kLiveness;
    while (std::chrono::steady_clock::now() < deadline) {
      auto probe = std::make_shared<int>(0);
      std::weak_ptr<int> probeWatch = probe;
      raw->async([probe = std::move(probe)] {});
      if (probeWatch.expired()) {
        intakeClosed = true;
        return;
      }
      std::this_thread::sleep_for(1ms);
    }
  });
  for (int i = 0; i < 100; ++i) queue->async([&] { ++immediateRan; });
  queue->asyncAfter(3600.0, [&, keep = std::move(futureCapture)] { futureRan = true; });
  queue->asyncAfter(0.5, [&] { futureRan = true; });

  auto destroyed = std::async(std::launch::async, [&] { queue.reset(); });
  ASSERT_TRUE(settles(destroyed));
  EXPECT_TRUE(intakeClosed.load());
  EXPECT_EQ(immediateRan.load(), 100);
  EXPECT_FALSE(futureRan.load());
  EXPECT_TRUE(futureCaptureWatch.expired()) << "dropped jobs must be released";
}

TEST(SerialQueueDeathTest, DestroyingFromItsOwnJobAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        auto* queue = new SerialQueue("io.quorvane.test.self");
        queue->async([queue] { delete queue; });
        std::promise<void> never;
        never.get_future().wait_for(kLiveness);
      },
      "destroyed from one of its own jobs");
}

// ---- ManualMainQueue ----

struct Stamp {
  std::string name;
  double at;
};

TEST(ManualMainQueue, RunsDelayedJobsInDueOrderAtTheirOwnDueTimes) {
  ManualMainQueue queue(1000.0);
  std::vector<Stamp> log;
  auto record = [&](std::string name) { return [&, name] { log.push_back({name, queue.now()}); }; };
  queue.asyncAfter(0.3, record("c"));
  queue.asyncAfter(0.1, record("a1"));
  queue.asyncAfter(0.2, [&] {
    log.push_back({"b", queue.now()});
    queue.asyncAfter(0.05, record("b+"));  // lands inside the same advance
  });
  queue.asyncAfter(0.1, record("a2"));  // same due time as a1: posting order
  queue.async(record("now"));
  EXPECT_EQ(queue.pendingCount(), 5u);

  EXPECT_EQ(queue.advance(0.15), 3);
  EXPECT_DOUBLE_EQ(queue.now(), 1000.15);
  EXPECT_EQ(queue.advance(1.0), 3);
  EXPECT_DOUBLE_EQ(queue.now(), 1001.15);
  EXPECT_EQ(queue.pendingCount(), 0u);

  const std::vector<Stamp> expected = {{"now", 1000.0}, {"a1", 1000.1},  {"a2", 1000.1},
                                       {"b", 1000.2},   {"b+", 1000.25}, {"c", 1000.3}};
  ASSERT_EQ(log.size(), expected.size());
  for (size_t i = 0; i < log.size(); ++i) {
    EXPECT_EQ(log[i].name, expected[i].name);
    EXPECT_NEAR(log[i].at, expected[i].at, 1e-9) << log[i].name;
  }
}

TEST(ManualMainQueue, DrainRunsFollowUpsThatAreDueButNotLaterOnes) {
  ManualMainQueue queue;
  std::vector<std::string> order;
  queue.async([&] {
    order.push_back("a");
    queue.async([&] { order.push_back("b"); });
    queue.asyncAfter(0.5, [&] { order.push_back("later"); });
  });
  EXPECT_EQ(queue.drain(), 2);
  EXPECT_EQ(order, (std::vector<std::string>{"a", "b"}));
  EXPECT_EQ(queue.pendingCount(), 1u);
  EXPECT_EQ(queue.drain(), 0) << "drain must not move the clock";
}

TEST(ManualMainQueue, WorkersSyncOntoTheTestThreadThroughDrainWaiting) {
  ManualMainQueue queue;
  EXPECT_TRUE(queue.isCurrent());

  bool inPlace = false;
  queue.sync([&] { inPlace = true; });  // on the main thread: no drain needed
  EXPECT_TRUE(inPlace);
  EXPECT_EQ(queue.pendingCount(), 0u);

  std::atomic<bool> ranOnMain{false};
  auto worker = std::async(std::launch::async, [&] {
    EXPECT_FALSE(queue.isCurrent());
    queue.sync([&] { ranOnMain = queue.isCurrent(); });
  });
  EXPECT_EQ(queue.drainWaiting(kLiveness.count()), 1);
  ASSERT_TRUE(settles(worker));
  EXPECT_TRUE(ranOnMain.load());

  // A job that is not due yet does not count as work to wait for.
  queue.asyncAfter(1.0, [] {});
  EXPECT_EQ(queue.drainWaiting(0.01), 0);
}

// ---- DelayedWork ----

TEST(DelayedWork, CancelBeforeDueMeansNeverAndIsPendingFollowsTheJob) {
  ManualMainQueue queue;
  int runs = 0;

  EXPECT_FALSE(DelayedWork().isPending());
  DelayedWork().cancel();  // harmless on an empty handle

  DelayedWork cancelled = DelayedWork::schedule(queue, 1.0, [&] { ++runs; });
  queue.advance(0.5);
  EXPECT_TRUE(cancelled.isPending());
  cancelled.cancel();
  EXPECT_FALSE(cancelled.isPending());
  queue.advance(1.0);
  EXPECT_EQ(runs, 0);

  DelayedWork work;
  work = DelayedWork::schedule(queue, 1.0, [&] {
    EXPECT_FALSE(work.isPending()) << "a running job is no longer pending";
    ++runs;
  });
  EXPECT_TRUE(work.isPending());
  queue.advance(1.0);
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(work.isPending());
  work.cancel();  // after the run: harmless
  queue.advance(1.0);
  EXPECT_EQ(runs, 1);
}

TEST(DelayedWork, CancelOnItsQueueWinsEvenAtTheSameDueTime) {
  ManualMainQueue queue;
  int runs = 0;
  DelayedWork victim;
  queue.asyncAfter(0.1, [&] { victim.cancel(); });
  victim = DelayedWork::schedule(queue, 0.1, [&] { ++runs; });
  queue.advance(1.0);
  EXPECT_EQ(runs, 0);
}

TEST(DelayedWork, CopiesShareOneJobAndDroppingTheHandleDoesNotCancel) {
  ManualMainQueue queue;
  int shared = 0, dropped = 0;
  DelayedWork original = DelayedWork::schedule(queue, 0.1, [&] { ++shared; });
  DelayedWork copy = original;
  copy.cancel();
  EXPECT_FALSE(original.isPending());

  DelayedWork::schedule(queue, 0.1, [&] { ++dropped; });
  queue.advance(1.0);
  EXPECT_EQ(shared, 0);
  EXPECT_EQ(dropped, 1);
}

TEST(DelayedWork, BurstOfRescheduleCoalescesIntoOneRun) {
  ManualMainQueue queue(1000.0);
  std::vector<double> runs;
  DelayedWork pending;
  for (int i = 0; i < 5; ++i) {
    queue.advance(0.1);
    pending.cancel();
    pending = DelayedWork::schedule(queue, 0.5, [&] { runs.push_back(queue.now()); });
  }
  queue.advance(2.0);
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_NEAR(runs[0], 1000.5 + 0.5, 1e-9) << "the last request wins";
}

TEST(DelayedWork, CancelFromAnotherThreadBeforeStartWinsAndAfterStartIsHarmless) {
  SerialQueue queue("io.quorvane.test.cancel");
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::atomic<bool> cancelledRan{false};
  queue.async([opened] { opened.wait(); });
  DelayedWork beforeStart = DelayedWork::schedule(queue, 0, [&] { cancelledRan = true; });
  beforeStart.cancel();
  gate.set_value();

  std::promise<void> started, finish;
  std::shared_future<void> finishing = finish.get_future().share();
  std::atomic<bool> completed{false};
  DelayedWork running = DelayedWork::schedule(queue, 0, [&, finishing] {
    started.set_value();
    finishing.wait();
    completed = true;
  });
  auto startedFuture = started.get_future();
  ASSERT_TRUE(settles(startedFuture));
  EXPECT_FALSE(running.isPending());
  running.cancel();
  finish.set_value();
  queue.sync([] {});
  EXPECT_FALSE(cancelledRan.load());
  EXPECT_TRUE(completed.load());
}

// ---- RepeatingTimer ----

TEST(RepeatingTimer, TicksAtAFixedRateFromItsStart) {
  ManualMainQueue queue(1000.0);
  std::vector<double> ticks;
  RepeatingTimer timer(queue, 0.1, [&] { ticks.push_back(queue.now()); });
  EXPECT_TRUE(timer.isRunning());
  EXPECT_EQ(queue.advance(1.0), 10);
  ASSERT_EQ(ticks.size(), 10u);
  for (size_t n = 0; n < ticks.size(); ++n) EXPECT_NEAR(ticks[n], 1000.0 + 0.1 * (n + 1), 1e-9);
}

// A job that keeps the queue busy is modelled by advancing the clock from inside it: the
// queue runs one job at a time, so nothing else runs meanwhile and the clock just moves.
TEST(RepeatingTimer, SlowTicksDoNotMakeItDrift) {
  ManualMainQueue queue(1000.0);
  std::vector<double> ticks;
  RepeatingTimer timer(queue, 0.1, [&] {
    ticks.push_back(queue.now());
    EXPECT_EQ(queue.advance(0.03), 0);  // each tick takes 30 ms
  });
  queue.advance(1.0);
  ASSERT_EQ(ticks.size(), 10u);
  for (size_t n = 0; n < ticks.size(); ++n) EXPECT_NEAR(ticks[n], 1000.0 + 0.1 * (n + 1), 1e-9);
}

// Semantics: when the queue comes back after missing several tick times, the one tick that
// was waiting runs once, late; the ticks whose times passed meanwhile are skipped, and the
// next tick falls on the original grid (start + n * interval), strictly after that moment.
TEST(RepeatingTimer, AStalledQueueGetsOneLateTickNotABurst) {
  ManualMainQueue queue(1000.0);
  std::vector<double> ticks;
  RepeatingTimer timer(queue, 0.1, [&] { ticks.push_back(queue.now()); });
  // Busy from 1000.05 to 1000.55: the ticks due at .1, .2, .3, .4 and .5 all come due.
  queue.asyncAfter(0.05, [&] { queue.advance(0.5); });
  queue.advance(0.6);
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_NEAR(ticks[0], 1000.55, 1e-9);
  EXPECT_NEAR(ticks[1], 1000.6, 1e-9);

  // A single tick that overruns several intervals skips the same way.
  ticks.clear();
  RepeatingTimer slow;
  int slowTicks = 0;
  timer.cancel();
  slow = RepeatingTimer(queue, 0.1, [&] {
    ticks.push_back(queue.now());
    if (++slowTicks == 1) queue.advance(0.35);
  });
  queue.advance(0.5);  // from 1000.6: ticks at .7 (busy until 1001.05), then 1001.1
  ASSERT_EQ(ticks.size(), 2u);
  EXPECT_NEAR(ticks[0], 1000.7, 1e-9);
  EXPECT_NEAR(ticks[1], 1001.1, 1e-9);
}

TEST(RepeatingTimer, CancelDestroyAndMoveStopTheRightTicks) {
  ManualMainQueue queue(1000.0);
  int a = 0, b = 0, c = 0;

  RepeatingTimer first(queue, 0.1, [&] { ++a; });
  queue.advance(0.35);
  first.cancel();
  EXPECT_FALSE(first.isRunning());
  queue.advance(1.0);
  EXPECT_EQ(a, 3);

  RepeatingTimer fromInside;
  fromInside = RepeatingTimer(queue, 0.1, [&] {
    if (++b == 2) fromInside.cancel();
  });
  queue.advance(1.0);
  EXPECT_EQ(b, 2);

  {
    RepeatingTimer dropped(queue, 0.1, [&] { ++c; });
  }
  queue.advance(1.0);
  EXPECT_EQ(c, 0);
  EXPECT_EQ(queue.pendingCount(), 0u) << "a stopped timer must leave nothing posted";

  a = 0, b = 0;
  RepeatingTimer source(queue, 0.1, [&] { ++a; });
  RepeatingTimer moved(std::move(source));
  EXPECT_FALSE(source.isRunning());  // NOLINT(bugprone-use-after-move): moved-from is empty
  EXPECT_TRUE(moved.isRunning());
  queue.advance(0.35);
  EXPECT_EQ(a, 3);
  moved = RepeatingTimer(queue, 0.1, [&] { ++b; });  // replacing stops the old timer
  queue.advance(0.35);
  EXPECT_EQ(a, 3);
  EXPECT_EQ(b, 3);

  EXPECT_FALSE(RepeatingTimer(queue, 0.0, [] {}).isRunning());
  EXPECT_FALSE(RepeatingTimer().isRunning());
}

TEST(RepeatingTimer, RunsOnASerialQueueAndStopsWhenCancelledFromAnotherThread) {
  SerialQueue queue("io.quorvane.test.timer");
  std::atomic<int> ticks{0};
  std::promise<void> third;
  RepeatingTimer timer(queue, 0.005, [&] {
    EXPECT_TRUE(queue.isCurrent());
    if (++ticks == 3) third.set_value();
  });
  auto thirdFuture = third.get_future();
  ASSERT_TRUE(settles(thirdFuture));
  timer.cancel();
  queue.sync([] {});  // a tick already running has finished now
  const int atCancel = ticks.load();

  // Ten intervals later there must have been no further tick.
  std::promise<void> later;
  queue.asyncAfter(0.05, [&] { later.set_value(); });
  auto laterFuture = later.get_future();
  ASSERT_TRUE(settles(laterFuture));
  EXPECT_EQ(ticks.load(), atCancel);
}

// ---- LoopMainQueue ----

TEST(LoopMainQueue, RunsJobsUntilAnotherThreadQuitsAndServesSync) {
  LoopMainQueue loop;
  EXPECT_TRUE(loop.isCurrent()) << "before run() the constructing thread is the main thread";

  std::vector<int> order;  // touched only on the main thread
  std::atomic<bool> futureRan{false};
  std::thread worker([&] {
    EXPECT_FALSE(loop.isCurrent());
    for (int i = 0; i < 100; ++i) loop.async([&, i] { order.push_back(i); });
    bool onMain = false;
    loop.sync([&] {
      onMain = loop.isCurrent();
      order.push_back(100);
    });
    EXPECT_TRUE(onMain);
    loop.asyncAfter(3600.0, [&] { futureRan = true; });
    loop.async([&] { order.push_back(101); });  // due before quit: still runs
    loop.quit();
  });
  loop.run();
  worker.join();

  ASSERT_EQ(order.size(), 102u);
  for (int i = 0; i < 102; ++i) EXPECT_EQ(order[i], i);
  EXPECT_FALSE(futureRan.load());

  // After quit nothing runs; a sync must come back rather than wait forever.
  bool ranAfterQuit = false;
  auto lateSync = std::async(std::launch::async, [&] { loop.sync([&] { ranAfterQuit = true; }); });
  ASSERT_TRUE(settles(lateSync));
  EXPECT_FALSE(ranAfterQuit);
}

TEST(LoopMainQueue, QuitBeforeRunAndDelayedJobsOnTheRealClock) {
  LoopMainQueue early;
  early.quit();
  early.run();  // returns at once

  LoopMainQueue loop;
  std::vector<std::string> order;
  const double postedAt = loop.now();
  double delayedAt = 0;
  auto runner = std::async(std::launch::async, [&] { loop.run(); });
  loop.asyncAfter(0.02, [&] {
    order.push_back("delayed");
    delayedAt = loop.now();
    loop.quit();
  });
  loop.async([&] { order.push_back("now"); });
  ASSERT_TRUE(settles(runner));
  EXPECT_EQ(order, (std::vector<std::string>{"now", "delayed"}));
  EXPECT_GE(delayedAt, postedAt + 0.02);
}

}  // namespace
}  // namespace qvn
