// qvn-devcloud: the studio's cloud account service on this machine, for tests and demos.
#include <cstdio>
#include <exception>

#include "devcloud_options.h"
#include "devcloud_server.h"

int main(int argc, char** argv) {
  using namespace qvn::devcloud;
  auto parsed = parseDevCloudOptions(argc, argv);
  if (std::holds_alternative<DevCloudHelp>(parsed)) {
    std::fputs(devCloudUsage().c_str(), stdout);
    return 0;
  }
  if (const auto* error = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr, "qvn-devcloud: %s\n\n%s", error->c_str(), devCloudUsage().c_str());
    return 2;
  }
  try {
    DevCloudServer server(std::get<DevCloudOptions>(parsed));
    server.stopOnSignals();
    // Scripts and tests read the port from this line.
    std::printf("qvn-devcloud listening on %s\n", server.address().c_str());
    std::fflush(stdout);
    server.run();
    std::fprintf(stderr, "qvn-devcloud: stopped\n");
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qvn-devcloud: %s\n", error.what());
    return 1;
  }
}
