#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "platform/linux/local_ipv4_choice.h"
#include "platform/net.h"

namespace qvn {

std::string chooseLocalIPv4(const std::vector<Ipv4Interface>& interfaces,
                            const std::string& defaultRouteInterface) {
  auto usable = [](const Ipv4Interface& i) { return i.up && !i.loopback && !i.address.empty(); };
  if (!defaultRouteInterface.empty()) {
    for (const auto& i : interfaces)
      if (usable(i) && i.name == defaultRouteInterface) return i.address;
  }
  for (const auto& i : interfaces) {
    if (!usable(i)) continue;
    const std::string_view name = i.name;
    if (name.starts_with("en") || name.starts_with("eth") || name.starts_with("wl"))
      return i.address;
  }
  return "127.0.0.1";
}

std::string defaultRouteInterface(std::string_view procNetRoute) {
  constexpr unsigned kRouteUp = 0x1;  // RTF_UP
  std::istringstream lines{std::string(procNetRoute)};
  std::string line;
  std::getline(lines, line);  // column titles
  std::string best;
  unsigned long bestMetric = std::numeric_limits<unsigned long>::max();
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string iface, destination, gateway, flags, refCnt, use, metric, mask;
    if (!(fields >> iface >> destination >> gateway >> flags >> refCnt >> use >> metric >> mask))
      continue;
    if (destination != "00000000" || mask != "00000000") continue;
    unsigned long flagBits = 0, metricValue = 0;
    try {
      flagBits = std::stoul(flags, nullptr, 16);
      metricValue = std::stoul(metric, nullptr, 10);
    } catch (const std::exception&) {
      continue;
    }
    if (!(flagBits & kRouteUp)) continue;
    if (best.empty() || metricValue < bestMetric) {
      best = iface;
      bestMetric = metricValue;
    }
  }
  return best;
}

namespace {

std::vector<Ipv4Interface> ipv4Interfaces() {
  std::vector<Ipv4Interface> found;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return found;
  for (const ifaddrs* a = list; a; a = a->ifa_next) {
    if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || !a->ifa_name) continue;
    char text[INET_ADDRSTRLEN] = {};
    const auto* in = reinterpret_cast<const sockaddr_in*>(a->ifa_addr);
    if (!inet_ntop(AF_INET, &in->sin_addr, text, sizeof text)) continue;
    // Administratively up is not enough: an unplugged cable leaves the link up but not running,
    // and a phone could never reach that address.
    const bool up = (a->ifa_flags & IFF_UP) && (a->ifa_flags & IFF_RUNNING);
    found.push_back({a->ifa_name, text, up, (a->ifa_flags & IFF_LOOPBACK) != 0});
  }
  freeifaddrs(list);
  return found;
}

std::string readProcNetRoute() {
  std::ifstream file("/proc/net/route");
  if (!file) return {};
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace

std::string localIPv4Address() {
  return chooseLocalIPv4(ipv4Interfaces(), defaultRouteInterface(readProcNetRoute()));
}

}  // namespace qvn
