// The Linux platform pieces that talk to the session: which IPv4 address phones should dial,
// logind's sleep notices and inhibitor, against a missing bus and a private one, and the one
// studio per user that later starts hand their messages to.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <future>
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
#include "platform/single_instance.h"

namespace qvn {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr const char* kBusVariable = "DBUS_SYSTEM_BUS_ADDRESS";

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

TEST(LocalIPv4, ChoosesByDefaultRouteThenNameThenLoopback) {
  const Ipv4Interface lo{"lo", "127.0.0.1", true, true};
  const Ipv4Interface docker{"docker0", "172.17.0.1", true, false};
  const Ipv4Interface wired{"enp3s0", "192.168.1.20", true, false};
  const Ipv4Interface eth{"eth0", "10.0.0.5", true, false};
  const Ipv4Interface wifi{"wlan0", "192.168.1.30", true, false};
  const Ipv4Interface vpn{"tun0", "10.8.0.2", true, false};
  Ipv4Interface downWired = wired;
  downWired.up = false;
  const Ipv4Interface loopbackNamedEn{"en-lo", "127.0.0.2", true, true};

  // The default route wins whatever its name; without a usable one, the first en*, eth* or wl*
  // in order; down and loopback interfaces never count, not even when they hold the route.
  EXPECT_EQ(chooseLocalIPv4({lo, wired, wifi, vpn}, "tun0"), "10.8.0.2");
  EXPECT_EQ(chooseLocalIPv4({lo, docker, wifi, wired}, ""), "192.168.1.30");
  EXPECT_EQ(chooseLocalIPv4({docker, eth, wired}, "gone0"), "10.0.0.5");
  EXPECT_EQ(chooseLocalIPv4({downWired, wifi}, "enp3s0"), "192.168.1.30");
  EXPECT_EQ(chooseLocalIPv4({lo, downWired}, "lo"), "127.0.0.1");
  EXPECT_EQ(chooseLocalIPv4({loopbackNamedEn}, ""), "127.0.0.1");
  EXPECT_EQ(chooseLocalIPv4({docker, vpn}, ""), "127.0.0.1");
}

TEST(LocalIPv4, ReadsDefaultRouteFromProcNetRoute) {
  const std::string header =
      "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  const std::pair<const char*, const char*> cases[] = {
      {"eth0\t0000A8C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n"
       "eth0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n",
       "eth0"},
      // Several default routes: the lowest metric holds it.
      {"wlan0\t00000000\t0101A8C0\t0003\t0\t0\t600\t00000000\t0\t0\t0\n"
       "enp3s0\t00000000\t0100A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0\n"
       "tun0\t00000000\t00000000\t0001\t0\t0\t300\t00000000\t0\t0\t0\n",
       "enp3s0"},
      // A route that isn't up, a zero destination with a mask, junk: no default route.
      {"eth0\t00000000\t0100A8C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n"
       "eth1\t00000000\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\ngarbage line\n",
       ""}};
  for (auto [routes, expected] : cases)
    EXPECT_EQ(defaultRouteInterface(header + routes), expected) << routes;
  EXPECT_EQ(defaultRouteInterface(""), "");

  in_addr parsed{};  // and on this machine, whatever it has: a dotted quad
  EXPECT_EQ(inet_pton(AF_INET, localIPv4Address().c_str(), &parsed), 1);
}

TEST(Logind, WithoutASystemBusReportsAndNeverHangs) {
  setenv(kBusVariable, "unix:path=/nonexistent/qvn-test/system_bus_socket", 1);
  std::optional<std::string> watcherError, awakeError;
  EXPECT_TRUE(finishesWithin(10s, [&] {
    watcherError = makeLogindSleepWatcher()->start();
    auto awake = makeLogindStayAwake();
    awakeError = awake->start();
    awake->stop();
  }));
  EXPECT_THAT(watcherError.value_or(""), HasSubstr("no system bus"));
  EXPECT_THAT(awakeError.value_or(""), StartsWith("could not hold off sleep: "));
}

// A session dbus-daemon of our own posing as the system bus, and on it a stand-in logind that
// owns its name and answers Inhibit with a pipe's write end. It keeps the read end, so a test
// sees the hold end when every copy is closed, and has no thread: it answers only while `serve`
// waits for the call under test.
class PrivateSystemBus : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::system("command -v dbus-daemon >/dev/null") != 0)
      GTEST_SKIP() << "dbus-daemon is not installed (Debian package dbus-daemon)";
    // The shell tells the pid the daemon takes over; the daemon prints its address once it
    // listens. Its complaints (an fd limit it may not raise in a container) are dropped.
    daemon_ = popen(
        "echo $$; exec dbus-daemon --session --address=unix:tmpdir=/tmp --nofork "
        "--print-address 2>/dev/null",
        "r");
    char pid[32] = {}, address[512] = {};
    ASSERT_TRUE(daemon_ && fgets(pid, sizeof pid, daemon_) && (daemonPid_ = std::atoi(pid)) > 0 &&
                fgets(address, sizeof address, daemon_))
        << "dbus-daemon did not start";
    address_.assign(address, std::strcspn(address, "\n"));
    setenv(kBusVariable, address_.c_str(), 1);
  }

  void TearDown() override {
    stopLogind();
    stopDaemon();
    unsetenv(kBusVariable);
    for (int fd : holds_) close(fd);
  }

  void stopDaemon() {
    if (daemonPid_ > 0) kill(daemonPid_, SIGTERM);
    if (daemon_) pclose(daemon_);
    daemon_ = nullptr;
    daemonPid_ = 0;
  }

  void startLogind() {
    ASSERT_TRUE(sd_bus_new(&logind_) >= 0 && sd_bus_set_address(logind_, address_.c_str()) >= 0 &&
                sd_bus_set_bus_client(logind_, 1) >= 0 && sd_bus_start(logind_) >= 0 &&
                sd_bus_add_object_vtable(logind_, nullptr, "/org/freedesktop/login1",
                                         "org.freedesktop.login1.Manager", kVtable, this) >= 0 &&
                sd_bus_request_name(logind_, "org.freedesktop.login1", 0) >= 0);
  }

  void stopLogind() { logind_ = sd_bus_flush_close_unref(logind_); }

  template <class F>
  auto serve(F call) {
    auto result = std::async(std::launch::async, std::move(call));
    while (result.wait_for(0s) != std::future_status::ready) {
      while (sd_bus_process(logind_, nullptr) > 0) {
      }
      sd_bus_wait(logind_, 10'000);
    }
    return result.get();
  }

  void emitPrepareForSleep(bool sleeping) {
    sd_bus_emit_signal(logind_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                       "PrepareForSleep", "b", int(sleeping));
    sd_bus_flush(logind_);
  }

  bool lastHoldReleased(std::chrono::milliseconds wait) {
    pollfd p{holds_.back(), POLLIN, 0};
    return poll(&p, 1, int(wait.count())) == 1 && (p.revents & POLLHUP);
  }

  static int inhibit(sd_bus_message* call, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<PrivateSystemBus*>(userdata);
    const char *what, *who, *why, *mode;
    int r = sd_bus_message_read(call, "ssss", &what, &who, &why, &mode);
    if (r < 0) return r;
    if (self->refuse_)
      return sd_bus_error_set(error, "org.freedesktop.DBus.Error.AccessDenied",
                              "Permission denied by policy");
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) < 0) return -errno;
    self->holds_.push_back(ends[0]);
    self->inhibitArguments_ = {what, who, why, mode};
    r = sd_bus_reply_method_return(call, "h", ends[1]);  // the message takes its own copy
    close(ends[1]);
    return r;
  }

  static constexpr sd_bus_vtable kVtable[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_METHOD("Inhibit", "ssss", "h", &PrivateSystemBus::inhibit, SD_BUS_VTABLE_UNPRIVILEGED),
      SD_BUS_SIGNAL("PrepareForSleep", "b", 0), SD_BUS_VTABLE_END};

  std::string address_;
  FILE* daemon_ = nullptr;
  pid_t daemonPid_ = 0;
  sd_bus* logind_ = nullptr;
  bool refuse_ = false;
  std::vector<int> holds_;  // read ends, one per Inhibit answered
  std::vector<std::string> inhibitArguments_;
};

TEST_F(PrivateSystemBus, WatcherDeliversSleepAndWakeOnItsThreadAndSurvivesTheBus) {
  std::mutex mutex;
  std::vector<std::string> events;
  std::promise<void> both;
  auto record = [&](const char* event) {
    char thread[16] = {};
    pthread_getname_np(pthread_self(), thread, sizeof thread);
    std::lock_guard lock(mutex);
    events.push_back(std::string(event) + "@" + thread);
    if (events.size() == 2) both.set_value();
  };
  auto watcher = makeLogindSleepWatcher();
  watcher->onWillSleep = [&] { record("sleep"); };
  watcher->onDidWake = [&] { record("wake"); };
  EXPECT_THAT(watcher->start().value_or(""), HasSubstr("no logind"));

  startLogind();
  ASSERT_EQ(serve([&] { return watcher->start(); }), std::nullopt);  // a retry works
  EXPECT_EQ(watcher->start(), std::nullopt);  // a second start keeps the one subscription
  emitPrepareForSleep(true);
  emitPrepareForSleep(false);
  ASSERT_EQ(both.get_future().wait_for(10s), std::future_status::ready);
  EXPECT_THAT(events, ElementsAre("sleep@qvn-logind", "wake@qvn-logind"));
  EXPECT_TRUE(finishesWithin(10s, [w = std::move(watcher)]() mutable { w.reset(); }));

  // One that outlives the bus still ends promptly.
  auto orphan = makeLogindSleepWatcher();
  ASSERT_EQ(serve([&] { return orphan->start(); }), std::nullopt);
  stopLogind();
  stopDaemon();
  EXPECT_TRUE(finishesWithin(10s, [w = std::move(orphan)]() mutable { w.reset(); }));
}

TEST_F(PrivateSystemBus, StayAwakeHoldsOneInhibitorUntilStoppedAndReportsRefusals) {
  auto awake = makeLogindStayAwake();
  EXPECT_THAT(awake->start().value_or(""), StartsWith("could not hold off sleep: "));

  startLogind();
  refuse_ = true;
  EXPECT_EQ(serve([&] { return awake->start(); }),
            "could not hold off sleep: Permission denied by policy");
  refuse_ = false;
  ASSERT_EQ(serve([&] { return awake->start(); }), std::nullopt);
  EXPECT_EQ(awake->start(), std::nullopt);  // already held: no second call
  ASSERT_EQ(holds_.size(), 1u);
  EXPECT_THAT(inhibitArguments_,
              ElementsAre("sleep:idle", "Quorvane Studio", "Quorvane Studio is running", "block"));
  EXPECT_FALSE(lastHoldReleased(0ms));
  awake->stop();
  EXPECT_TRUE(lastHoldReleased(10s));
  awake->stop();

  // A fresh start takes a fresh hold, and destruction lets it go.
  ASSERT_EQ(serve([&] { return awake->start(); }), std::nullopt);
  EXPECT_EQ(holds_.size(), 2u);
  awake.reset();
  EXPECT_TRUE(lastHoldReleased(10s));
}

TEST(SingleInstance, TheFirstStudioListensAndLaterStartsHandTheirMessagesToIt) {
  char pattern[] = "/tmp/qvn-instance-XXXXXX";
  const std::filesystem::path dir = ::mkdtemp(pattern);
  const auto socket = dir / "studio.sock";
  EXPECT_FALSE(SingleInstance::sendToRunning(socket, "nobody listens"));
  {
    // A socket left behind by a studio that died is taken over.
    std::filesystem::create_directories(dir);
    std::FILE* stale = std::fopen(socket.c_str(), "w");
    std::fclose(stale);
  }
  std::mutex lock;
  std::vector<std::string> heard;
  std::string error;
  auto first = SingleInstance::listen(
      socket,
      [&](const std::string& message) {
        std::lock_guard hold(lock);
        heard.push_back(message);
      },
      error);
  ASSERT_TRUE(first) << error;
  EXPECT_FALSE(SingleInstance::listen(socket, nullptr, error));
  EXPECT_EQ(error, "another studio is running");
  EXPECT_TRUE(SingleInstance::sendToRunning(socket, "quorvanestudio://auth/callback?code=1"));
  EXPECT_TRUE(SingleInstance::sendToRunning(socket, "second"));
  for (int i = 0; i < 200; ++i) {
    {
      std::lock_guard hold(lock);
      if (heard.size() == 2) break;
    }
    std::this_thread::sleep_for(10ms);
  }
  {
    std::lock_guard hold(lock);
    EXPECT_THAT(heard, ElementsAre("quorvanestudio://auth/callback?code=1", "second"));
  }
  first.reset();
  EXPECT_FALSE(std::filesystem::exists(socket));
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace qvn
