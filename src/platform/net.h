// Network facts the studio shows and advertises.
#pragma once

#include <string>

namespace qvn {

// The address phones should dial: an up, non-loopback IPv4 interface, preferring the one
// that holds the default route, else the first named en*, eth* or wl*; else "127.0.0.1".
std::string localIPv4Address();

}  // namespace qvn
