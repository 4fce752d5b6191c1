// Announces a service on the local network (mDNS / DNS-SD) so that devices find the studio
// without typing an address, and withdraws it when dropped. A machine without the mDNS
// daemon gets a failure line and nothing else; whoever advertises runs on regardless.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvn {

class ServiceAdvert {
 public:
  struct Service {
    std::string name;
    std::string type;  // "_name._tcp"
    std::uint16_t port = 0;
    std::vector<std::pair<std::string, std::string>> txt;
  };
  // Lines for the diagnostics: "published", or "publish failed" with the reason.
  using Report = std::function<void(bool published, const std::string& detail)>;

  // Starts publishing; the report comes from the advertiser's own thread.
  static std::unique_ptr<ServiceAdvert> publish(Service service, Report report);
  virtual ~ServiceAdvert() = default;
};

}  // namespace qvn
