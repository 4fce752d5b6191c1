// Serial queues, the main queue, cancellable delayed work, repeating timers and the media
// clock: the few ways work moves between threads in the studio.
//
// A job posted to a queue runs on that queue's thread, one at a time, in the order posted;
// a delayed job runs no earlier than its due time, and jobs due at the same time keep their
// posting order. Nothing here waits except `sync`, which callers must keep off real-time paths.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace qvn {

using Job = std::function<void()>;

// The monotonic clock in seconds, never overridden: what queues measure delays against, so a
// test that freezes the media clock doesn't freeze every queue's delayed work with it.
double monotonicTime();

// Monotonic seconds since an arbitrary origin: the clock of all frame and audio timing.
// Lock-free and safe on real-time threads.
double mediaTime();

// Replaces the media clock for the whole process (tests); nullptr restores the real one.
// The source must itself be safe to call from any thread.
using MediaTimeSource = double (*)();
void setMediaTimeSource(MediaTimeSource source);

// Something jobs can be posted to. Every method is safe from any thread.
class Queue {
 public:
  virtual ~Queue() = default;

  virtual void async(Job job) = 0;
  // Runs `job` on this queue once `delaySeconds` of this queue's clock have passed.
  virtual void asyncAfter(double delaySeconds, Job job) = 0;
  // True while the calling thread is running a job of this queue (or, for the main queue,
  // is the main thread).
  virtual bool isCurrent() const = 0;
  // The clock that delays on this queue are measured against.
  virtual double now() const = 0;
  // Runs `job` on this queue and returns when it has run. Called from the queue itself it
  // runs the job in place instead of waiting on itself forever.
  virtual void sync(Job job) = 0;
};

enum class QueuePriority { userInteractive, userInitiated, utility, background };

// A queue with a thread of its own, named after its label so `top -H` shows who is busy:
// "io.quorvane.camera.mix" runs on a thread called "qvn-mix".
//
// Destruction stops intake, runs the jobs that are already due, drops delayed jobs that are
// not, and joins the thread. Destroying a queue from one of its own jobs is a programming
// error and aborts.
class SerialQueue final : public Queue {
 public:
  explicit SerialQueue(std::string label, QueuePriority priority = QueuePriority::userInitiated);
  ~SerialQueue() override;
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  void async(Job job) override;
  void asyncAfter(double delaySeconds, Job job) override;
  bool isCurrent() const override;
  double now() const override;
  void sync(Job job) override;

  const std::string& label() const;
  // The short thread name derived from a label (at most 15 characters).
  static std::string threadName(const std::string& label);

  // For an owner whose last reference may go inside one of its own queue's jobs: a queue
  // can't join its own thread, so from there it is let go on a thread of its own; from any
  // other thread it is destroyed at once.
  static void release(std::unique_ptr<SerialQueue> queue);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The main thread's queue: the home of all observable state. Three drivers run it: Qt's event
// loop in the window app (ui/), `LoopMainQueue` for --headless, `ManualMainQueue` in tests.
class MainQueue : public Queue {
 public:
  void sync(Job job) override;

 protected:
  MainQueue() = default;
};

// The headless driver: `run()` turns the calling thread into the main thread and runs jobs
// until `quit()`, which any thread may call.
class LoopMainQueue final : public MainQueue {
 public:
  LoopMainQueue();
  ~LoopMainQueue() override;

  void async(Job job) override;
  void asyncAfter(double delaySeconds, Job job) override;
  bool isCurrent() const override;
  double now() const override;

  void run();
  void quit();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// The test driver: a virtual clock that only moves when the test says so, and jobs that run
// only when the test drains. The constructing thread is the main thread.
class ManualMainQueue final : public MainQueue {
 public:
  explicit ManualMainQueue(double startTime = 1000.0);
  ~ManualMainQueue() override;

  void async(Job job) override;
  void asyncAfter(double delaySeconds, Job job) override;
  bool isCurrent() const override;
  double now() const override;

  // Runs every job due at the current virtual time, including jobs those jobs post.
  // Returns how many ran.
  int drain();
  // Moves the clock forward, running each delayed job at its own due time on the way.
  int advance(double seconds);
  // Blocks until at least one job is pending or `seconds` of real time have passed, then
  // drains. For tests whose jobs come from other threads.
  int drainWaiting(double seconds);
  size_t pendingCount() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A delayed job that can be called off. `cancel()` made on the job's own queue before it runs
// guarantees it never runs; from another thread it wins unless the job has already started.
// Copies share one job. Dropping the handle does not cancel.
class DelayedWork {
 public:
  DelayedWork() = default;
  static DelayedWork schedule(Queue& queue, double delaySeconds, Job job);

  void cancel();
  // True between `schedule` and the moment the job starts or is cancelled.
  bool isPending() const;

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

// A job that repeats on a queue at a fixed rate (no drift). Ticks that come due while the
// queue was busy are skipped, never queued. Destruction or `cancel()` stops future ticks;
// a tick that is already running finishes, so owners that must be sure cancel on the queue.
class RepeatingTimer {
 public:
  RepeatingTimer() = default;
  RepeatingTimer(Queue& queue, double intervalSeconds, Job tick);
  ~RepeatingTimer();
  RepeatingTimer(RepeatingTimer&&) noexcept;
  RepeatingTimer& operator=(RepeatingTimer&&) noexcept;

  void cancel();
  bool isRunning() const;

 private:
  struct Shared;
  std::shared_ptr<Shared> shared_;
};

}  // namespace qvn
