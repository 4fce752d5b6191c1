#include "platform/dispatch.h"

#include <pthread.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "platform/job_schedule.h"

namespace qvn {

double monotonicTime() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

namespace {

std::atomic<MediaTimeSource> gMediaTimeSource{nullptr};
static_assert(std::atomic<MediaTimeSource>::is_always_lock_free,
              "mediaTime() must stay lock-free for the audio thread");

// NaN and negative delays mean "now"; an infinite one simply never comes due.
double sanitizeDelay(double seconds) {
  return seconds > 0 ? seconds : 0.0;
}

// Waits at most `seconds` of real time. Long waits are capped so the conversion to the
// clock's integer ticks cannot overflow; waking once an hour to re-check costs nothing.
void waitAtMost(std::condition_variable& cv, std::unique_lock<std::mutex>& lock, double seconds) {
  constexpr double kLongestWait = 3600.0;
  cv.wait_for(lock, std::chrono::duration<double>(std::clamp(seconds, 0.0, kLongestWait)));
}

// The part SerialQueue and LoopMainQueue share: a job list on the real monotonic clock, run
// by one thread until stopped. Stopping closes intake, lets the jobs due at the moment of the
// stop run, and leaves the rest for the owner to drop.
//
// The real clock, not mediaTime(): a test that freezes the media clock must not freeze every
// queue's delayed work with it.
class ClockedJobLoop {
 public:
  double now() const { return monotonicTime(); }

  // False once stopped; the job is then left with the caller to destroy outside the lock.
  bool post(double delaySeconds, Job& job) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return false;
      jobs_.push(now() + sanitizeDelay(delaySeconds), std::move(job));
    }
    wake_.notify_one();
    return true;
  }

  void stop() {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      stopping_ = true;
      stopCutoff_ = now();
    }
    wake_.notify_all();
  }

  // Runs jobs on the calling thread until stopped and nothing due by the stop is left.
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      if (stopping_) {
        if (!jobs_.hasDue(stopCutoff_)) break;
      } else if (jobs_.empty()) {
        wake_.wait(lock);
        continue;
      } else if (const double t = now(); !jobs_.hasDue(t)) {
        waitAtMost(wake_, lock, jobs_.nextDue() - t);
        continue;
      }
      Job job = jobs_.pop();
      lock.unlock();
      job();
      job = nullptr;  // captures die before the lock is taken again
      lock.lock();
    }
  }

  std::vector<Job> takeAll() {
    std::lock_guard lock(mutex_);
    return jobs_.takeAll();
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  detail::JobSchedule jobs_;
  bool stopping_ = false;
  double stopCutoff_ = 0.0;
};

// Posts `job` and waits for it. The waiter is released when the job has run or when the
// queue drops it unrun (shut down): the token's destructor fires with the last copy of the
// posted wrapper, so a sync onto a dead queue returns instead of hanging.
struct SyncSignal {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;

  void set() {
    std::lock_guard lock(mutex);
    done = true;
    cv.notify_all();
  }
};

struct SyncToken {
  explicit SyncToken(std::shared_ptr<SyncSignal> s) : signal(std::move(s)) {}
  ~SyncToken() { signal->set(); }
  SyncToken(const SyncToken&) = delete;
  SyncToken& operator=(const SyncToken&) = delete;
  std::shared_ptr<SyncSignal> signal;
};

void postAndWait(Queue& queue, Job job) {
  auto signal = std::make_shared<SyncSignal>();
  queue.async([token = std::make_shared<SyncToken>(signal), job = std::move(job)]() mutable {
    job();
    job = nullptr;  // "has run" includes its captures being released
    token->signal->set();
  });
  std::unique_lock lock(signal->mutex);
  signal->cv.wait(lock, [&] { return signal->done; });
}

thread_local const void* tRunningSerialQueue = nullptr;

void lowerThreadPriority(QueuePriority priority) {
  int step = 0;
  if (priority == QueuePriority::utility) step = 5;
  if (priority == QueuePriority::background) step = 10;
  if (step == 0) return;
  // Linux keeps a nice value per thread; PRIO_PROCESS with a thread id changes only this one.
  const auto tid = static_cast<id_t>(gettid());
  errno = 0;
  const int current = getpriority(PRIO_PROCESS, tid);
  if (current == -1 && errno != 0) return;
  setpriority(PRIO_PROCESS, tid, std::min(current + step, 19));
}

}  // namespace

// ---- media clock ----

double mediaTime() {
  if (MediaTimeSource source = gMediaTimeSource.load(std::memory_order_acquire)) return source();
  return monotonicTime();
}

void setMediaTimeSource(MediaTimeSource source) {
  gMediaTimeSource.store(source, std::memory_order_release);
}

// ---- SerialQueue ----

struct SerialQueue::State {
  std::string label;
  ClockedJobLoop loop;
  std::thread thread;
};

SerialQueue::SerialQueue(std::string label, QueuePriority priority)
    : state_(std::make_unique<State>()) {
  state_->label = std::move(label);
  State* state = state_.get();
  state_->thread = std::thread([state, priority, name = threadName(state_->label)] {
    tRunningSerialQueue = state;
    pthread_setname_np(pthread_self(), name.c_str());
    lowerThreadPriority(priority);
    state->loop.run();
    tRunningSerialQueue = nullptr;
  });
}

SerialQueue::~SerialQueue() {
  if (isCurrent()) {
    std::fprintf(stderr, "qvn: serial queue \"%s\" destroyed from one of its own jobs\n",
                 state_->label.c_str());
    std::abort();
  }
  state_->loop.stop();
  state_->thread.join();
  std::vector<Job> dropped = state_->loop.takeAll();
}

void SerialQueue::async(Job job) {
  asyncAfter(0.0, std::move(job));
}

void SerialQueue::asyncAfter(double delaySeconds, Job job) {
  if (job) state_->loop.post(delaySeconds, job);
}

bool SerialQueue::isCurrent() const {
  return tRunningSerialQueue == state_.get();
}

double SerialQueue::now() const {
  return state_->loop.now();
}

void SerialQueue::sync(Job job) {
  if (!job) return;
  if (isCurrent()) {
    job();
    return;
  }
  postAndWait(*this, std::move(job));
}

const std::string& SerialQueue::label() const {
  return state_->label;
}

void SerialQueue::release(std::unique_ptr<SerialQueue> queue) {
  if (queue && queue->isCurrent())
    std::thread([queue = std::move(queue)]() mutable { queue.reset(); }).detach();
}

std::string SerialQueue::threadName(const std::string& label) {
  constexpr std::array<std::string_view, 2> kPrefixes = {"io.quorvane.camera.", "io.quorvane."};
  constexpr size_t kMaxThreadName = 15;  // the kernel's limit, without the terminator
  std::string_view rest = label;
  for (std::string_view prefix : kPrefixes) {
    if (rest.starts_with(prefix)) {
      rest.remove_prefix(prefix.size());
      break;
    }
  }
  std::string name = "qvn-";
  name.append(rest);
  if (name.size() > kMaxThreadName) name.resize(kMaxThreadName);
  return name;
}

// ---- MainQueue ----

void MainQueue::sync(Job job) {
  if (!job) return;
  if (isCurrent()) {
    job();
    return;
  }
  postAndWait(*this, std::move(job));
}

// ---- LoopMainQueue ----

struct LoopMainQueue::State {
  ClockedJobLoop loop;
  // The constructing thread until run() hands the role to its caller, so setup code on the
  // thread that will run the loop can already sync onto it.
  std::atomic<std::thread::id> mainThread{std::this_thread::get_id()};
};

LoopMainQueue::LoopMainQueue() : state_(std::make_unique<State>()) {}

LoopMainQueue::~LoopMainQueue() {
  std::vector<Job> dropped = state_->loop.takeAll();
}

void LoopMainQueue::async(Job job) {
  asyncAfter(0.0, std::move(job));
}

void LoopMainQueue::asyncAfter(double delaySeconds, Job job) {
  if (job) state_->loop.post(delaySeconds, job);
}

bool LoopMainQueue::isCurrent() const {
  return state_->mainThread.load(std::memory_order_acquire) == std::this_thread::get_id();
}

double LoopMainQueue::now() const {
  return state_->loop.now();
}

void LoopMainQueue::run() {
  state_->mainThread.store(std::this_thread::get_id(), std::memory_order_release);
  state_->loop.run();
  // Quit is final: what was not due by then will never run, so release it now (this also
  // frees anyone blocked in sync on a dropped job).
  std::vector<Job> dropped = state_->loop.takeAll();
}

void LoopMainQueue::quit() {
  state_->loop.stop();
}

// ---- ManualMainQueue ----

struct ManualMainQueue::State {
  mutable std::mutex mutex;
  std::condition_variable posted;
  detail::JobSchedule jobs;
  double now = 0.0;
  // True while a job runs. A queue runs one job at a time, so drain() or advance() called
  // from inside a job runs nothing: advance() then only moves the clock, which is how a test
  // says "this job kept the queue busy for that long".
  bool busy = false;
  std::thread::id mainThread = std::this_thread::get_id();

  void post(double due, Job job) {
    {
      std::lock_guard lock(mutex);
      jobs.push(due, std::move(job));
    }
    posted.notify_all();
  }

  // Runs jobs due by `until` (or by the clock, if later) in due order, setting the clock to
  // each job's due time first; without `until` it runs what is due by the clock.
  int runDue(std::optional<double> until) {
    std::unique_lock lock(mutex);
    if (busy) {
      if (until) now = std::max(now, *until);
      return 0;
    }
    int ran = 0;
    for (;;) {
      const double limit = until ? std::max(*until, now) : now;
      if (!jobs.hasDue(limit)) break;
      now = std::max(now, jobs.nextDue());
      Job job = jobs.pop();
      busy = true;
      lock.unlock();
      job();
      job = nullptr;
      lock.lock();
      busy = false;
      ++ran;
    }
    if (until) now = std::max(now, *until);
    return ran;
  }
};

ManualMainQueue::ManualMainQueue(double startTime) : state_(std::make_unique<State>()) {
  state_->now = startTime;
}

ManualMainQueue::~ManualMainQueue() {
  std::vector<Job> dropped;
  std::lock_guard lock(state_->mutex);
  dropped = state_->jobs.takeAll();
  // `dropped` is declared first, so it is destroyed after the lock is released.
}

void ManualMainQueue::async(Job job) {
  asyncAfter(0.0, std::move(job));
}

void ManualMainQueue::asyncAfter(double delaySeconds, Job job) {
  if (!job) return;
  double due = 0.0;
  {
    std::lock_guard lock(state_->mutex);
    due = state_->now + sanitizeDelay(delaySeconds);
  }
  // The clock only moves on the main thread; a post from another thread racing with
  // advance() lands on one side of it or the other, both of which are valid orders.
  state_->post(due, std::move(job));
}

bool ManualMainQueue::isCurrent() const {
  return std::this_thread::get_id() == state_->mainThread;
}

double ManualMainQueue::now() const {
  std::lock_guard lock(state_->mutex);
  return state_->now;
}

int ManualMainQueue::drain() {
  return state_->runDue(std::nullopt);
}

int ManualMainQueue::advance(double seconds) {
  double target = 0.0;
  {
    std::lock_guard lock(state_->mutex);
    target = state_->now + sanitizeDelay(seconds);
  }
  return state_->runDue(target);
}

int ManualMainQueue::drainWaiting(double seconds) {
  {
    std::unique_lock lock(state_->mutex);
    const auto limit = std::chrono::duration<double>(std::clamp(seconds, 0.0, 3600.0));
    state_->posted.wait_for(lock, limit, [&] { return state_->jobs.hasDue(state_->now); });
  }
  return drain();
}

size_t ManualMainQueue::pendingCount() const {
  std::lock_guard lock(state_->mutex);
  return state_->jobs.size();
}

// ---- DelayedWork ----

struct DelayedWork::Shared {
  enum : int { pending, started, cancelled };
  std::atomic<int> state{pending};
};

DelayedWork DelayedWork::schedule(Queue& queue, double delaySeconds, Job job) {
  DelayedWork work;
  if (!job) return work;
  work.shared_ = std::make_shared<Shared>();
  // The job lives in the posted wrapper, not in the handle, so a handle kept by the job's own
  // captures cannot keep it alive once the queue has run or dropped it.
  queue.asyncAfter(delaySeconds, [shared = work.shared_, job = std::move(job)] {
    int expected = Shared::pending;
    if (shared->state.compare_exchange_strong(expected, Shared::started,
                                              std::memory_order_acq_rel)) {
      job();
    }
  });
  return work;
}

void DelayedWork::cancel() {
  if (!shared_) return;
  int expected = Shared::pending;
  shared_->state.compare_exchange_strong(expected, Shared::cancelled, std::memory_order_acq_rel);
}

bool DelayedWork::isPending() const {
  return shared_ && shared_->state.load(std::memory_order_acquire) == Shared::pending;
}

// ---- RepeatingTimer ----

// Held by the handle and by the one tick that is posted at any time; everything but
// `cancelled` is touched only on the queue (or before the first post).
struct RepeatingTimer::Shared {
  Queue* queue = nullptr;
  double interval = 0.0;
  double start = 0.0;
  double index = 0.0;  // of the tick posted last; tick n is due at start + n * interval
  Job tick;
  std::atomic<bool> cancelled{false};

  // Posts the next tick on the grid that is still ahead of the queue's clock. A queue that
  // fell behind gets no catch-up burst: the ticks it missed are skipped and the next one
  // keeps the original phase.
  static void postNext(const std::shared_ptr<Shared>& self) {
    const double now = self->queue->now();
    double next = self->index + 1;
    if (self->start + next * self->interval <= now) {
      next = std::floor((now - self->start) / self->interval) + 1;
      constexpr double kLargestExactIndex = 9.0e15;
      while (self->start + next * self->interval <= now && next < kLargestExactIndex) ++next;
    }
    self->index = next;
    // Both times are close together, so `due - now` is exact and a virtual clock that adds it
    // back lands on the grid itself.
    const double due = self->start + next * self->interval;
    self->queue->asyncAfter(due - now, [self] { fire(self); });
  }

  static void fire(const std::shared_ptr<Shared>& self) {
    if (self->cancelled.load(std::memory_order_acquire)) return;
    self->tick();
    if (self->cancelled.load(std::memory_order_acquire)) return;
    postNext(self);
  }
};

RepeatingTimer::RepeatingTimer(Queue& queue, double intervalSeconds, Job tick) {
  // A non-positive interval would be an endless burst; such a timer never starts.
  if (!(intervalSeconds > 0) || !std::isfinite(intervalSeconds) || !tick) return;
  auto shared = std::make_shared<Shared>();
  shared->queue = &queue;
  shared->interval = intervalSeconds;
  shared->start = queue.now();
  shared->tick = std::move(tick);
  shared_ = shared;
  Shared::postNext(shared);
}

RepeatingTimer::~RepeatingTimer() {
  cancel();
}

RepeatingTimer::RepeatingTimer(RepeatingTimer&& other) noexcept
    : shared_(std::move(other.shared_)) {}

RepeatingTimer& RepeatingTimer::operator=(RepeatingTimer&& other) noexcept {
  if (this != &other) {
    cancel();
    shared_ = std::move(other.shared_);
  }
  return *this;
}

void RepeatingTimer::cancel() {
  if (shared_) shared_->cancelled.store(true, std::memory_order_release);
}

bool RepeatingTimer::isRunning() const {
  return shared_ && !shared_->cancelled.load(std::memory_order_acquire);
}

}  // namespace qvn
