#include "platform/path_monitor.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace qvn {

namespace {

constexpr unsigned kUp = 0x0001;      // RTF_UP
constexpr unsigned kReject = 0x0200;  // RTF_REJECT

std::string fileText(const char* path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

}  // namespace

bool PathMonitor::hasDefaultRoute(std::string_view ipv4Routes, std::string_view ipv6Routes) {
  std::istringstream v4{std::string(ipv4Routes)};
  std::string line;
  std::getline(v4, line);  // the column names
  while (std::getline(v4, line)) {
    std::istringstream f(line);
    std::string iface, destination, gateway, flags, refs, use, metric, mask;
    if (!(f >> iface >> destination >> gateway >> flags >> refs >> use >> metric >> mask)) continue;
    const unsigned bits = unsigned(std::stoul(flags, nullptr, 16));
    if (destination == "00000000" && mask == "00000000" && (bits & kUp) && !(bits & kReject))
      return true;
  }
  std::istringstream v6{std::string(ipv6Routes)};
  while (std::getline(v6, line)) {
    std::istringstream f(line);
    std::string destination, prefix, source, sourcePrefix, hop, metric, refs, use, flags, iface;
    if (!(f >> destination >> prefix >> source >> sourcePrefix >> hop >> metric >> refs >> use >>
          flags >> iface))
      continue;
    const unsigned bits = unsigned(std::stoul(flags, nullptr, 16));
    if (destination == std::string(32, '0') && prefix == "00" && iface != "lo" && (bits & kUp) &&
        !(bits & kReject))
      return true;
  }
  return false;
}

bool PathMonitor::hasDefaultRouteNow() {
  return hasDefaultRoute(fileText("/proc/net/route"), fileText("/proc/net/ipv6_route"));
}

PathMonitor::PathMonitor(Handler onChange) : onChange_(std::move(onChange)) {
  online_ = hasDefaultRouteNow();
  socket_ = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  if (socket_ >= 0) {
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_LINK;
    if (::bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      ::close(socket_);
      socket_ = -1;
    }
  }
  thread_ = std::thread([this] { run(); });
}

PathMonitor::~PathMonitor() {
  stop_ = true;
  thread_.join();
  if (socket_ >= 0) ::close(socket_);
}

void PathMonitor::run() {
  pthread_setname_np(pthread_self(), "qvn-path");
  char buffer[8192];
  while (!stop_) {
    // Without the kernel's notices (no netlink here), the tables are looked at each second.
    pollfd p{socket_, POLLIN, 0};
    const int ready = socket_ >= 0 ? ::poll(&p, 1, 250) : (::usleep(250'000), 0);
    if (stop_) break;
    if (ready > 0) {
      if (::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT) <= 0) continue;
    } else if (socket_ >= 0) {
      continue;
    }
    const bool now = hasDefaultRouteNow();
    if (now != online_.exchange(now) && onChange_) onChange_(now);
  }
}

}  // namespace qvn
