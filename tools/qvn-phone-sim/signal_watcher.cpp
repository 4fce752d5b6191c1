#include "signal_watcher.h"

#include <pthread.h>

namespace qvn {

SignalWatcher::SignalWatcher() {
  sigemptyset(&signals_);
  sigaddset(&signals_, SIGINT);
  sigaddset(&signals_, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

SignalWatcher::~SignalWatcher() {
  stop();
}

void SignalWatcher::start(std::function<void(int)> handler) {
  thread_ = std::thread([this, handler = std::move(handler)] {
    for (;;) {
      int signal = 0;
      if (sigwait(&signals_, &signal) != 0 || stopping_) return;
      handler(signal);
    }
  });
}

void SignalWatcher::stop() {
  if (!thread_.joinable()) return;
  stopping_ = true;
  pthread_kill(thread_.native_handle(), SIGTERM);  // wakes its sigwait
  thread_.join();
}

}  // namespace qvn
