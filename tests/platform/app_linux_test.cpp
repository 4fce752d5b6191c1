// The Linux platform pieces that talk to the session: which IPv4 address phones should dial,
// and logind's sleep notices and inhibitor, against a missing bus and a private one.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/app.h"
#include "platform/linux/local_ipv4_choice.h"
#include "platform/net.h"

extern char** environ;

namespace qvn {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A bound against hangs, not a speed claim: a stuck call leaves its thread behind and fails.
template <class F>
bool finishesWithin(std::chrono::seconds limit, F work) {
  auto done = std::make_shared<std::promise<void>>();
  auto future = done->get_future();
  std::thread([done, work = std::move(work)]() mutable {
    work();
    done->set_value();
  }).detach();
  return future.wait_for(limit) == std::future_status::ready;
}

class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  ~ScopedEnv() {
    if (old_)
      setenv(name_, old_->c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// --- local IPv4 -------------------------------------------------------------------------------

TEST(LocalIPv4, ChoosesByDefaultRouteThenNameThenLoopback) {
  const Ipv4Interface lo{"lo", "127.0.0.1", true, true};
  const Ipv4Interface docker{"docker0", "172.17.0.1", true, false};
  const Ipv4Interface wired{"enp3s0", "192.168.1.20", true, false};
  const Ipv4Interface eth{"eth0", "10.0.0.5", true, false};
  const Ipv4Interface wifi{"wlan0", "192.168.1.30", true, false};
  const Ipv4Interface vpn{"tun0", "10.8.0.2", true, false};

  // The default route wins over the name preference, whatever its name.
  EXPECT_EQ(chooseLocalIPv4({lo, wired, wifi, vpn}, "tun0"), "10.8.0.2");
  EXPECT_EQ(chooseLocalIPv4({lo, wired, wifi}, "wlan0"), "192.168.1.30");
  // No default route, or one on an interface we can't use: first en*, eth* or wl* in order.
  EXPECT_EQ(chooseLocalIPv4({lo, docker, wifi, wired}, ""), "192.168.1.30");
  EXPECT_EQ(chooseLocalIPv4({docker, eth, wired}, "gone0"), "10.0.0.5");
  EXPECT_EQ(chooseLocalIPv4({docker, wired}, ""), "192.168.1.20");
  // Down and loopback interfaces never count, not even when they hold the route.
  Ipv4Interface downWired = wired;
  downWired.up = false;
  EXPECT_EQ(chooseLocalIPv4({downWired, wifi}, "enp3s0"), "192.168.1.30");
  EXPECT_EQ(chooseLocalIPv4({lo, downWired}, "lo"), "127.0.0.1");
  Ipv4Interface loopbackNamedEn{"en-lo", "127.0.0.2", true, true};
  EXPECT_EQ(chooseLocalIPv4({loopbackNamedEn}, ""), "127.0.0.1");
  // Other names alone don't qualify; nothing at all falls back to loopback.
  EXPECT_EQ(chooseLocalIPv4({docker, vpn}, ""), "127.0.0.1");
  EXPECT_EQ(chooseLocalIPv4({}, ""), "127.0.0.1");
}

TEST(LocalIPv4, ReadsDefaultRouteFromProcNetRoute) {
  const std::string header =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  EXPECT_EQ(defaultRouteInterface(header +
                                  "eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
                                  "eth0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"),
            "eth0");
  // Several default routes: the lowest metric holds it.
  EXPECT_EQ(defaultRouteInterface(header +
                                  "wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
                                  "enp3s0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
                                  "tun0\t00000000\t00000000\t0001\t0\t0\t300\t00000000\t0\t0\t0\n"),
            "enp3s0");
  // A route that isn't up, a zero destination with a mask, junk and nothing: no default route.
  EXPECT_EQ(
      defaultRouteInterface(header + "eth0\t00000000\t0100A8C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"
                                     "eth1\t00000000\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n"
                                     "garbage line\n"),
      "");
  EXPECT_EQ(defaultRouteInterface(header), "");
  EXPECT_EQ(defaultRouteInterface(""), "");
}

TEST(LocalIPv4, AnswersADottedQuadOnThisMachine) {
  const std::string address = localIPv4Address();
  in_addr parsed{};
  EXPECT_EQ(inet_pton(AF_INET, address.c_str(), &parsed), 1) << address;
}

// --- logind without a system bus -------------------------------------------------------------

constexpr const char* kBusVariable = "DBUS_SYSTEM_BUS_ADDRESS";

TEST(Logind, WithoutASystemBusReportsAndNeverHangs) {
  ScopedEnv noBus(kBusVariable, "unix:path=/nonexistent/qvn-test/system_bus_socket");

  auto watcher = makeLogindSleepWatcher();
  std::optional<std::string> error;
  ASSERT_TRUE(finishesWithin(10s, [&] { error = watcher->start(); }));
  ASSERT_TRUE(error);
  EXPECT_THAT(*error, HasSubstr("no system bus"));
  ASSERT_TRUE(finishesWithin(10s, [&] { error = watcher->start(); }));
  EXPECT_TRUE(error);
  EXPECT_TRUE(finishesWithin(10s, [w = std::move(watcher)]() mutable { w.reset(); }));

  auto awake = makeLogindStayAwake();
  ASSERT_TRUE(finishesWithin(10s, [&] { error = awake->start(); }));
  ASSERT_TRUE(error);
  EXPECT_THAT(*error, StartsWith("could not hold off sleep: "));
  awake->stop();
  awake->stop();
  EXPECT_TRUE(finishesWithin(10s, [a = std::move(awake)]() mutable { a.reset(); }));
}

// --- logind on a private bus -----------------------------------------------------------------

// Stands in for logind: owns its name, answers Inhibit with a pipe's write end and keeps the
// read end, so a test sees the hold end when every copy of the descriptor is closed.
class FakeLogind {
 public:
  explicit FakeLogind(const std::string& address) {
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0 ||
        sd_bus_add_object_vtable(bus_, nullptr, "/org/freedesktop/login1",
                                 "org.freedesktop.login1.Manager", kVtable, this) < 0 ||
        sd_bus_request_name(bus_, "org.freedesktop.login1", 0) < 0)
      return;
    ready_ = true;
    thread_ = std::thread([this] { serve(); });
  }
  ~FakeLogind() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    sd_bus_flush_close_unref(bus_);
    for (int fd : readEnds_) close(fd);
  }

  bool ready() const { return ready_; }
  void refuseInhibit() { refuse_ = true; }
  void emitPrepareForSleep(bool sleeping) {
    std::lock_guard lock(mutex_);
    pendingSignals_.push_back(sleeping);
  }
  int inhibitCalls() {
    std::lock_guard lock(mutex_);
    return int(readEnds_.size());
  }
  std::vector<std::string> lastInhibitArguments() {
    std::lock_guard lock(mutex_);
    return lastArguments_;
  }
  // Whether every copy of the last handed-out hold has been closed.
  bool lastHoldReleased(std::chrono::milliseconds wait) {
    int fd;
    {
      std::lock_guard lock(mutex_);
      fd = readEnds_.back();
    }
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, int(wait.count())) == 1 && (p.revents & POLLHUP);
  }

 private:
  static int inhibit(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<FakeLogind*>(userdata);
    const char *what, *who, *why, *mode;
    int r = sd_bus_message_read(call, "ssss", &what, &who, &why, &mode);
    if (r < 0) return r;
    if (self->refuse_)
      return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied",
                              "Permission denied by policy");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) return -errno;
    {
      std::lock_guard lock(self->mutex_);
      self->readEnds_.push_back(ends[0]);
      self->lastArguments_ = {what, who, why, mode};
    }
    r = sd_bus_reply_method_return(call, "h", ends[1]);  // the message takes its own copy
    close(ends[1]);
    return r;
  }

  void serve() {
    while (!stopping_) {
      std::vector<bool> signals;
      {
        std::lock_guard lock(mutex_);
        signals.swap(pendingSignals_);
      }
      for (bool sleeping : signals)
        sd_bus_emit_signal(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                           "PrepareForSleep", "b", int(sleeping));
      int r;
      while ((r = sd_bus_process(bus_, nullptr)) > 0) {
      }
      if (r < 0) return;
      if (sd_bus_wait(bus_, 10'000) < 0) return;
    }
  }

  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Inhibit", "ssss", "h", &FakeLogind::inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("PrepareForSleep", "b", 0), SD_BUS_VTABLE_END};

  sd_bus* bus_ = nullptr;
  bool ready_ = false;
  std::atomic<bool> refuse_{false};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::vector<bool> pendingSignals_;
  std::vector<int> readEnds_;
  std::vector<std::string> lastArguments_;
  std::thread thread_;
};

std::string readAll(const std::filesystem::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// A dbus-daemon of our own on a socket in a temporary folder, posing as the system bus.
class PrivateSystemBus : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-bus-XXXXXX";
    ASSERT_TRUE(mkdtemp(pattern));
    dir_ = pattern;
    address_ = "unix:path=" + (dir_ / "bus").string();
    const auto config = dir_ / "bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><listen>" << address_
                          << "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                             "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                             "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>";

    int out[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    // Its complaints (an fd limit it may not raise in a container) stay out of the test output.
    const auto log = dir_ / "daemon.log";
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, log.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const std::string configArg = "--config-file=" + config.string();
    char* argv[] = {const_cast<char*>("dbus-daemon"), const_cast<char*>(configArg.c_str()),
                    const_cast<char*>("--nofork"), const_cast<char*>("--print-address"), nullptr};
    const int spawned = posix_spawnp(&daemon_, "dbus-daemon", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(out[1]);
    if (spawned != 0) {
      close(out[0]);
      daemon_ = -1;
      GTEST_SKIP() << "dbus-daemon is not installed (Debian package dbus-daemon)";
    }
    // The daemon prints its address once it listens.
    pollfd p{out[0], POLLIN, 0};
    const bool listening = poll(&p, 1, 10'000) == 1;
    char buffer[512];
    const bool printed = listening && read(out[0], buffer, sizeof buffer) > 0;
    close(out[0]);
    ASSERT_TRUE(printed) << "dbus-daemon did not start: " << readAll(log);
    env_.emplace(kBusVariable, address_);
  }

  void TearDown() override {
    fake_.reset();
    stopDaemon();
    env_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  void startFakeLogind() {
    fake_ = std::make_unique<FakeLogind>(address_);
    ASSERT_TRUE(fake_->ready());
  }

  void stopDaemon() {
    if (daemon_ <= 0) return;
    kill(daemon_, SIGTERM);
    waitpid(daemon_, nullptr, 0);
    daemon_ = -1;
  }

  std::filesystem::path dir_;
  std::string address_;
  pid_t daemon_ = -1;
  std::optional<ScopedEnv> env_;
  std::unique_ptr<FakeLogind> fake_;
};

class Events {
 public:
  void add(std::string event) {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    std::lock_guard lock(mutex_);
    events_.push_back(event + "@" + name);
    changed_.notify_all();
  }
  std::vector<std::string> waitFor(size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, 10s, [&] { return events_.size() >= count; });
    return events_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> events_;
};

TEST_F(PrivateSystemBus, SleepAndWakeReachTheHandlersOnTheWatcherThread) {
  startFakeLogind();
  Events events;
  auto watcher = makeLogindSleepWatcher();
  watcher->onWillSleep = [&] { events.add("sleep"); };
  watcher->onDidWake = [&] { events.add("wake"); };
  ASSERT_EQ(watcher->start(), std::nullopt);
  EXPECT_EQ(watcher->start(), std::nullopt);  // a second start keeps the one subscription

  fake_->emitPrepareForSleep(true);
  fake_->emitPrepareForSleep(false);
  EXPECT_THAT(events.waitFor(2), ElementsAre("sleep@qvn-logind", "wake@qvn-logind"));
  EXPECT_TRUE(finishesWithin(10s, [w = std::move(watcher)]() mutable { w.reset(); }));
}

TEST_F(PrivateSystemBus, WatcherReportsMissingLogindAndSurvivesTheBusGoingAway) {
  auto watcher = makeLogindSleepWatcher();
  const auto missing = watcher->start();
  ASSERT_TRUE(missing);
  EXPECT_THAT(*missing, HasSubstr("no logind"));

  startFakeLogind();
  ASSERT_EQ(watcher->start(), std::nullopt);  // a failed start can be retried
  fake_.reset();
  stopDaemon();
  EXPECT_TRUE(finishesWithin(10s, [w = std::move(watcher)]() mutable { w.reset(); }));
}

TEST_F(PrivateSystemBus, StayAwakeHoldsOneInhibitorUntilStopped) {
  startFakeLogind();
  auto awake = makeLogindStayAwake();
  ASSERT_EQ(awake->start(), std::nullopt);
  EXPECT_EQ(awake->start(), std::nullopt);
  EXPECT_EQ(fake_->inhibitCalls(), 1);
  EXPECT_THAT(fake_->lastInhibitArguments(),
              ElementsAre("sleep:idle", "Quorvane Studio", "Quorvane Studio is running", "block"));
  EXPECT_FALSE(fake_->lastHoldReleased(0ms));

  awake->stop();
  EXPECT_TRUE(fake_->lastHoldReleased(10s));
  awake->stop();

  // A fresh start takes a fresh hold, and destruction lets it go.
  ASSERT_EQ(awake->start(), std::nullopt);
  EXPECT_EQ(fake_->inhibitCalls(), 2);
  awake.reset();
  EXPECT_TRUE(fake_->lastHoldReleased(10s));
}

TEST_F(PrivateSystemBus, StayAwakeReportsRefusalAndMissingLogindAsText) {
  auto awake = makeLogindStayAwake();
  auto error = awake->start();
  ASSERT_TRUE(error);
  EXPECT_THAT(*error, StartsWith("could not hold off sleep: "));

  startFakeLogind();
  fake_->refuseInhibit();
  error = awake->start();
  ASSERT_TRUE(error);
  EXPECT_EQ(*error, "could not hold off sleep: Permission denied by policy");
  awake->stop();
}

}  // namespace
}  // namespace qvn
