// Observable state for the UI layer, without any UI toolkit: a value that tells its
// subscribers after every assignment. Main thread only, like everything it is used for.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace qvn {

// Keeps a subscription alive; dropping it unsubscribes.
class Subscription {
 public:
  Subscription() = default;
  explicit Subscription(std::function<void()> cancel) : cancel_(std::move(cancel)) {}
  ~Subscription() { reset(); }
  Subscription(Subscription&& other) noexcept : cancel_(std::exchange(other.cancel_, {})) {}
  Subscription& operator=(Subscription&& other) noexcept {
    if (this != &other) {
      reset();
      cancel_ = std::exchange(other.cancel_, {});
    }
    return *this;
  }
  void reset() {
    if (cancel_) std::exchange(cancel_, {})();
  }

 private:
  std::function<void()> cancel_;
};

// A list of listeners called in the order they subscribed. A listener may unsubscribe
// (itself or another) while being called.
template <class... Args>
class Signal {
 public:
  using Listener = std::function<void(const Args&...)>;

  Subscription subscribe(Listener listener) {
    const std::uint64_t id = ++state_->nextId;
    state_->listeners.push_back({id, std::make_shared<Listener>(std::move(listener))});
    return Subscription([weak = std::weak_ptr<State>(state_), id] {
      if (auto state = weak.lock())
        std::erase_if(state->listeners, [id](auto& e) { return e.id == id; });
    });
  }

  void emit(const Args&... args) const {
    // A copy, so listeners may change the list while it is walked.
    const auto listeners = state_->listeners;
    for (const auto& entry : listeners) (*entry.listener)(args...);
  }

 private:
  struct Entry {
    std::uint64_t id;
    std::shared_ptr<Listener> listener;
  };
  struct State {
    std::uint64_t nextId = 0;
    std::vector<Entry> listeners;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

// A property that publishes on every assignment, as the studio's views expect.
template <class T>
class Observable {
 public:
  Observable() = default;
  explicit Observable(T initial) : value_(std::move(initial)) {}
  Observable(const Observable&) = delete;
  Observable& operator=(const Observable&) = delete;

  const T& operator()() const { return value_; }
  const T& get() const { return value_; }

  void set(T value) {
    value_ = std::move(value);
    changed_.emit(value_);
  }
  Observable& operator=(T value) {
    set(std::move(value));
    return *this;
  }
  // Changes the value in place, then publishes once.
  template <class F>
  void modify(F&& change) {
    change(value_);
    changed_.emit(value_);
  }

  Subscription subscribe(std::function<void(const T&)> listener) {
    return changed_.subscribe(std::move(listener));
  }

 private:
  T value_{};
  Signal<T> changed_;
};

}  // namespace qvn
