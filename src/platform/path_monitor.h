// Whether this computer can reach beyond itself: online while a default route is up. The
// kernel's route changes (rtnetlink) are followed as they happen, on the monitor's own
// thread ("qvn-path").
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string_view>
#include <thread>

namespace qvn {

class PathMonitor {
 public:
  using Handler = std::function<void(bool online)>;

  // Starts watching; `onChange` hears each change from the monitor's thread.
  explicit PathMonitor(Handler onChange);
  ~PathMonitor();
  PathMonitor(const PathMonitor&) = delete;
  PathMonitor& operator=(const PathMonitor&) = delete;

  bool online() const { return online_.load(); }

  // The rule, on the kernel's IPv4 and IPv6 route tables as /proc/net shows them: a default
  // route that is up and doesn't reject.
  static bool hasDefaultRoute(std::string_view ipv4Routes, std::string_view ipv6Routes);
  static bool hasDefaultRouteNow();

 private:
  void run();
  Handler onChange_;
  std::atomic<bool> online_{false};
  std::atomic<bool> stop_{false};
  int socket_ = -1;
  std::thread thread_;
};

}  // namespace qvn
