#include "ui/qt_main_queue.h"

#include <QCoreApplication>
#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <cmath>
#include <mutex>

#include "platform/job_schedule.h"

namespace qvn {

struct QtMainQueue::State {
  QObject context;  // lives on the main thread; queued calls to it run there
  QTimer timer;
  std::mutex mutex;
  detail::JobSchedule jobs;
  double now() const { return monotonicTime(); }

  // On the main thread: runs what is due, then sleeps the timer until the next job.
  void runDue() {
    for (;;) {
      Job job;
      {
        std::lock_guard lock(mutex);
        if (!jobs.hasDue(now())) break;
        job = jobs.pop();
      }
      job();
    }
    std::lock_guard lock(mutex);
    if (jobs.empty()) {
      timer.stop();
      return;
    }
    const double wait = std::max(0.0, jobs.nextDue() - now());
    timer.start(static_cast<int>(std::ceil(wait * 1000.0)));
  }
};

QtMainQueue::QtMainQueue() : state_(std::make_unique<State>()) {
  state_->timer.setSingleShot(true);
  state_->timer.setTimerType(Qt::PreciseTimer);
  QObject::connect(&state_->timer, &QTimer::timeout, &state_->context,
                   [state = state_.get()] { state->runDue(); });
}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::async(Job job) {
  asyncAfter(0.0, std::move(job));
}

void QtMainQueue::asyncAfter(double delaySeconds, Job job) {
  if (!job) return;
  {
    std::lock_guard lock(state_->mutex);
    state_->jobs.push(now() + std::max(0.0, delaySeconds), std::move(job));
  }
  QMetaObject::invokeMethod(
      &state_->context, [state = state_.get()] { state->runDue(); }, Qt::QueuedConnection);
}

bool QtMainQueue::isCurrent() const {
  return QThread::currentThread() == state_->context.thread();
}

double QtMainQueue::now() const {
  return state_->now();
}

}  // namespace qvn
