// A short spinning lock for state that is held for a few loads and stores at most. Never
// held across a call out, an allocation or anything that can block, so a waiter spins for
// nanoseconds rather than sleeping. Not reentrant.
#pragma once

#include <atomic>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace qvn {

class SpinLock {
 public:
  void lock() noexcept {
    while (flag_.exchange(true, std::memory_order_acquire)) {
      while (flag_.load(std::memory_order_relaxed)) pause();
    }
  }
  void unlock() noexcept { flag_.store(false, std::memory_order_release); }
  bool try_lock() noexcept { return !flag_.exchange(true, std::memory_order_acquire); }

 private:
  static void pause() noexcept {
#if defined(__x86_64__) || defined(__i386__)
    _mm_pause();
#endif
  }
  std::atomic<bool> flag_{false};
};

}  // namespace qvn
