// qvn-devcloud: the studio's cloud account service on this machine, for tests and demos; with
// `relay` it is what the ingest runs per publish, with `destination` the admin's command.
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <optional>

#include "devcloud_admin.h"
#include "devcloud_ingest.h"
#include "devcloud_options.h"
#include "devcloud_relay.h"
#include "devcloud_server.h"

namespace {

// nginx runs the relay as this very program, wherever it was started from.
std::string ownPath(const char* argv0) {
  char path[4096];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return argv0;
  return std::string(path, size_t(n));
}

}  // namespace

int main(int argc, char** argv) {
  using namespace qvn::devcloud;
  if (argc > 1 && std::strcmp(argv[1], "relay") == 0) return runRelay(argc - 1, argv + 1);
  if (argc > 1 && std::strcmp(argv[1], "destination") == 0)
    return runDestinationCommand(argc - 1, argv + 1, std::cout, std::cerr);

  auto parsed = parseDevCloudOptions(argc, argv);
  if (std::holds_alternative<DevCloudHelp>(parsed)) {
    std::fputs(devCloudUsage().c_str(), stdout);
    return 0;
  }
  if (const auto* error = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr, "qvn-devcloud: %s\n\n%s", error->c_str(), devCloudUsage().c_str());
    return 2;
  }
  const auto& options = std::get<DevCloudOptions>(parsed);
  try {
    DevCloudServer server(options);
    server.stopOnSignals();
    // Scripts and tests read the port from this line: it stays the first.
    std::printf("qvn-devcloud listening on %s\n", server.address().c_str());
    std::fflush(stdout);

    std::optional<Ingest> ingest;
    const std::string ingestUrl =
        "rtmp://127.0.0.1:" + std::to_string(server.ingestPort()) + "/live";
    if (options.ingest) {
      try {
        ingest.emplace(IngestSettings{server.ingestPort(), server.port(), ownPath(argv[0])},
                       server.logger());
        std::printf("qvn-devcloud ingest on %s\n", ingest->url().c_str());
      } catch (const IngestUnavailable& why) {
        // Sessions still open and name the address: the studio's own checks can run.
        std::printf("qvn-devcloud ingest unavailable: %s\n", why.what());
        server.logger()("ingest unavailable: " + std::string(why.what()) + "; sessions name " +
                        ingestUrl + " all the same");
      }
    } else {
      server.logger()("ingest off (--no-ingest); sessions name " + ingestUrl + " all the same");
    }
    std::fflush(stdout);
    server.run();
    // nginx ends before the service it asks about publishes.
    ingest.reset();
    std::fprintf(stderr, "qvn-devcloud: stopped\n");
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "qvn-devcloud: %s\n", error.what());
    return 1;
  }
}
