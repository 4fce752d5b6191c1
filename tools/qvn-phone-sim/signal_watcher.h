// SIGINT and SIGTERM, taken from every thread and handed to one thread of the watcher's own,
// which calls the handler there. Make the watcher before any other thread starts, so that
// each inherits the blocked signals; the handler runs on the watcher's thread.
#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace qvn {

class SignalWatcher {
 public:
  SignalWatcher();
  ~SignalWatcher();
  SignalWatcher(const SignalWatcher&) = delete;
  SignalWatcher& operator=(const SignalWatcher&) = delete;

  void start(std::function<void(int signal)> handler);
  // Joins the thread: the handler is not called after this returns.
  void stop();

 private:
  sigset_t signals_{};
  std::thread thread_;
  std::atomic<bool> stopping_{false};
};

}  // namespace qvn
