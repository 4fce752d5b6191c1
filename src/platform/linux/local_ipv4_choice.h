// The pure half of localIPv4Address(): which interface to offer, from facts gathered elsewhere.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qvn {

struct Ipv4Interface {
  std::string name;
  std::string address;  // dotted quad
  bool up = false;
  bool loopback = false;
};

// Up, non-loopback interfaces only: the default-route interface wins, else the first named
// en*, eth* or wl*, else "127.0.0.1".
std::string chooseLocalIPv4(const std::vector<Ipv4Interface>& interfaces,
                            const std::string& defaultRouteInterface);

// The interface of the IPv4 default route in the text of /proc/net/route (destination and mask
// both zero, route up), the lowest metric when there are several; empty when there is none.
std::string defaultRouteInterface(std::string_view procNetRoute);

}  // namespace qvn
