// The rule for "online" on route tables as the kernel shows them, and the live monitor.
#include "platform/path_monitor.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace qvn {
namespace {

constexpr char kV4Header[] =
    "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
const std::string kNoV6;

TEST(PathMonitor, OnlineIsADefaultRouteThatIsUpAndDoesNotReject) {
  const std::string lan =
      std::string(kV4Header) + "eth0\t0002000A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
  const std::string withDefault =
      lan + "eth0\t00000000\t0102000A\t0003\t0\t0\t100\t00000000\t0\t0\t0\n";
  EXPECT_FALSE(PathMonitor::hasDefaultRoute(lan, kNoV6));
  EXPECT_TRUE(PathMonitor::hasDefaultRoute(withDefault, kNoV6));
  const std::string down = lan + "eth0\t00000000\t0102000A\t0002\t0\t0\t100\t00000000\t0\t0\t0\n";
  EXPECT_FALSE(PathMonitor::hasDefaultRoute(down, kNoV6));

  const std::string zeros(32, '0');
  const std::string rejectOnLoopback =
      zeros + " 00 " + zeros + " 00 " + zeros + " ffffffff 00000001 00000000 00200200       lo\n";
  EXPECT_FALSE(PathMonitor::hasDefaultRoute(kV4Header, rejectOnLoopback));
  const std::string v6Default = zeros + " 00 " + zeros + " 00 fe800000000000000000000000000001 " +
                                "00000400 00000001 00000000 00450003     eth0\n";
  EXPECT_TRUE(PathMonitor::hasDefaultRoute(kV4Header, v6Default));
}

TEST(PathMonitor, StartsFromTheTablesAsTheyStand) {
  PathMonitor monitor([](bool) {});
  EXPECT_EQ(monitor.online(), PathMonitor::hasDefaultRouteNow());
}

// In a network namespace of its own, with no route at all, a default route added later is
// noticed as it happens. Run in a child, so the test's own process keeps its network.
TEST(PathMonitor, FollowsARouteAddedInANamespaceOfItsOwn) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (unshare(CLONE_NEWNET) != 0) _exit(77);  // not allowed here
    std::atomic<bool> heard{false};
    PathMonitor monitor([&heard](bool online) { heard = online; });
    if (monitor.online()) _exit(2);
    if (std::system("ip link set lo up && ip route add default dev lo") != 0) _exit(3);
    for (int i = 0; i < 200 && !heard; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    _exit(heard && monitor.online() ? 0 : 4);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no network namespaces for this user";
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace qvn
