// The command line of qvn-devcloud, read into settings. Plain values: any thread.
#pragma once

#include <cstdint>
#include <string>
#include <variant>

namespace qvn::devcloud {

struct DevCloudOptions {
  std::uint16_t port = 0;  // 0: the system picks a free one
  std::string database;    // empty: kept in memory, gone at exit
  std::int64_t accessTtlSeconds = 900;
  std::int64_t codeTtlSeconds = 600;
  // Where the links it prints and redirects to point; empty: its own address.
  std::string site;
  // The RTMP ingest's port on 127.0.0.1; 0: a free one. Sessions name it even without one.
  std::uint16_t ingestPort = 0;
  bool ingest = true;  // false: no nginx is started
};

struct DevCloudHelp {};  // --help: the usage text, and a clean exit

// The options, the request for help, or one line saying what is wrong.
std::variant<DevCloudOptions, DevCloudHelp, std::string> parseDevCloudOptions(
    int argc, const char* const* argv);

std::string devCloudUsage();

}  // namespace qvn::devcloud
