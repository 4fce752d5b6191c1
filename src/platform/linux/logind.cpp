// logind over the system bus: PrepareForSleep notices and an idle/sleep inhibitor.
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "platform/app.h"

namespace qvn {

namespace {

constexpr const char* kLogindService = "org.freedesktop.login1";
constexpr const char* kLogindPath = "/org/freedesktop/login1";
constexpr const char* kLogindManager = "org.freedesktop.login1.Manager";
// A wedged bus must not hold the caller (often the main thread) for sd-bus's default 25 s.
constexpr uint64_t kCallTimeoutUsec = 5'000'000;

std::string errnoText(int negativeErrno) {
  return std::strerror(-negativeErrno);
}

std::string busErrorText(const sd_bus_error& error, int negativeErrno) {
  if (error.message && *error.message) return error.message;
  if (error.name && *error.name) return error.name;
  return errnoText(negativeErrno);
}

uint64_t monotonicUsec() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1'000'000 + uint64_t(now.tv_nsec) / 1'000;
}

// sd_bus_get_timeout gives an absolute CLOCK_MONOTONIC deadline, or UINT64_MAX for none.
int pollTimeoutMs(uint64_t deadlineUsec) {
  if (deadlineUsec == UINT64_MAX) return -1;
  const uint64_t now = monotonicUsec();
  if (deadlineUsec <= now) return 0;
  const uint64_t ms = (deadlineUsec - now + 999) / 1000;
  return ms > uint64_t(INT_MAX) ? INT_MAX : int(ms);
}

class LogindSleepWatcher final : public SleepWatcher {
 public:
  ~LogindSleepWatcher() override {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) {
      const uint64_t one = 1;
      // The eventfd is sized for this; a failed write would only mean it is already readable.
      [[maybe_unused]] ssize_t written = write(wakeFd_, &one, sizeof one);
      thread_.join();
    }
    release();
  }

  std::optional<std::string> start() override {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) return std::nullopt;

    int r = sd_bus_open_system(&bus_);
    if (r < 0) {
      bus_ = nullptr;
      return "no system bus — sleep and wake are not watched (" + errnoText(r) + ")";
    }
    sd_bus_set_method_call_timeout(bus_, kCallTimeoutUsec);

    // Synchronous, so the subscription is in place when start() reports success.
    r = sd_bus_match_signal(bus_, &slot_, kLogindService, kLogindPath, kLogindManager,
                            "PrepareForSleep", &LogindSleepWatcher::onPrepareForSleep, this);
    if (r < 0) {
      release();
      return "no system bus — sleep and wake are not watched (" + errnoText(r) + ")";
    }

    // Ping activates logind if it is only activatable, and tells us when it isn't there at all.
    sd_bus_error error{};  // the C macro for this is a compound literal
    r = sd_bus_call_method(bus_, kLogindService, kLogindPath, "org.freedesktop.DBus.Peer", "Ping",
                           &error, nullptr, "");
    if (r < 0) {
      std::string reason = busErrorText(error, r);
      sd_bus_error_free(&error);
      release();
      return "no logind on the system bus — sleep and wake are not watched (" + reason + ")";
    }

    wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeFd_ < 0) {
      const int saved = errno;
      release();
      return "sleep and wake are not watched: " + errnoText(-saved);
    }
    // From here on only the thread touches the bus, until the destructor has joined it.
    thread_ = std::thread([this] { run(); });
    return std::nullopt;
  }

 private:
  static int onPrepareForSleep(sd_bus_message* message, void* userdata, sd_bus_error*) {
    auto* self = static_cast<LogindSleepWatcher*>(userdata);
    int sleeping = 0;
    if (sd_bus_message_read(message, "b", &sleeping) < 0) return 0;  // malformed; ignore
    if (sleeping) {
      if (self->onWillSleep) self->onWillSleep();
    } else {
      if (self->onDidWake) self->onDidWake();
    }
    return 0;
  }

  void run() {
    pthread_setname_np(pthread_self(), "qvn-logind");
    const int busFd = sd_bus_get_fd(bus_);
    if (busFd < 0) return;
    for (;;) {
      const int processed = sd_bus_process(bus_, nullptr);
      if (processed < 0) return;  // the bus went away; nothing more will arrive
      if (processed > 0) continue;

      const int events = sd_bus_get_events(bus_);
      if (events < 0) return;
      uint64_t deadline = UINT64_MAX;
      if (sd_bus_get_timeout(bus_, &deadline) < 0) deadline = UINT64_MAX;

      pollfd fds[2] = {{busFd, short(events), 0}, {wakeFd_, POLLIN, 0}};
      const int ready = poll(fds, 2, pollTimeoutMs(deadline));
      if (ready < 0 && errno != EINTR) return;
      if (fds[1].revents) return;  // the destructor asks us to end
    }
  }

  void release() {
    if (slot_) slot_ = sd_bus_slot_unref(slot_);
    if (bus_) bus_ = sd_bus_flush_close_unref(bus_);
    if (wakeFd_ >= 0) {
      close(wakeFd_);
      wakeFd_ = -1;
    }
  }

  std::mutex mutex_;
  sd_bus* bus_ = nullptr;
  sd_bus_slot* slot_ = nullptr;
  int wakeFd_ = -1;
  std::thread thread_;
};

class LogindStayAwake final : public StayAwake {
 public:
  ~LogindStayAwake() override { stop(); }

  std::optional<std::string> start() override {
    std::lock_guard lock(mutex_);
    if (fd_ >= 0) return std::nullopt;

    sd_bus* bus = nullptr;
    int r = sd_bus_open_system(&bus);
    if (r < 0) return "could not hold off sleep: no system bus (" + errnoText(r) + ")";
    sd_bus_set_method_call_timeout(bus, kCallTimeoutUsec);

    sd_bus_error error{};  // the C macro for this is a compound literal
    sd_bus_message* reply = nullptr;
    r = sd_bus_call_method(bus, kLogindService, kLogindPath, kLogindManager, "Inhibit", &error,
                           &reply, "ssss", "sleep:idle", "Quorvane Studio",
                           "Quorvane Studio is running", "block");
    std::optional<std::string> failure;
    if (r < 0) {
      failure = "could not hold off sleep: " + busErrorText(error, r);
    } else {
      int fd = -1;
      r = sd_bus_message_read(reply, "h", &fd);
      if (r < 0) {
        failure = "could not hold off sleep: unexpected reply (" + errnoText(r) + ")";
      } else {
        // The reply owns its descriptor and closes it with the message; the hold lasts as long
        // as a copy stays open.
        fd_ = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        if (fd_ < 0) failure = "could not hold off sleep: " + errnoText(-errno);
      }
    }
    sd_bus_error_free(&error);
    sd_bus_message_unref(reply);
    // The inhibitor lives on its descriptor, not on our connection.
    sd_bus_flush_close_unref(bus);
    return failure;
  }

  void stop() override {
    std::lock_guard lock(mutex_);
    if (fd_ < 0) return;
    close(fd_);
    fd_ = -1;
  }

 private:
  std::mutex mutex_;
  int fd_ = -1;
};

}  // namespace

std::unique_ptr<SleepWatcher> makeLogindSleepWatcher() {
  return std::make_unique<LogindSleepWatcher>();
}

std::unique_ptr<StayAwake> makeLogindStayAwake() {
  return std::make_unique<LogindStayAwake>();
}

}  // namespace qvn
