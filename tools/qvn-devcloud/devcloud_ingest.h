// The devcloud's RTMP ingest: nginx with its RTMP module, in a temporary prefix of its own,
// on 127.0.0.1 only. Every publish asks the devcloud first (on_publish), is asked about
// again every second (on_update, so a deleted session's publisher is dropped), and starts
// one relay, `qvn-devcloud relay`, that copies the stream to the session's destinations.
//
// nginx runs as one process started here, ended by its own pid with SIGTERM and then
// SIGKILL, and it gets SIGTERM by itself should the devcloud die first. Construct and
// destroy on the thread that runs the devcloud.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>

namespace qvn::devcloud {

// Why there is no ingest, in words for the person who runs it.
struct IngestUnavailable : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct IngestSettings {
  std::uint16_t rtmpPort = 0;
  std::uint16_t apiPort = 0;
  std::string relayProgram;  // the absolute path of qvn-devcloud
};

// The folder nginx's modules are loaded from; QVN_NGINX_MODULES overrides it.
std::filesystem::path nginxModulesDir();

// nginx.conf for an ingest whose files live under `prefix`.
std::string ingestConfig(const IngestSettings& settings, const std::filesystem::path& modules,
                         const std::filesystem::path& prefix);

class Ingest {
 public:
  // Starts nginx and waits until it accepts; throws IngestUnavailable.
  Ingest(const IngestSettings& settings, std::function<void(const std::string&)> log);
  ~Ingest();
  Ingest(const Ingest&) = delete;
  Ingest& operator=(const Ingest&) = delete;

  // "rtmp://127.0.0.1:PORT/live"
  std::string url() const;
  pid_t pid() const { return pid_; }

 private:
  void stop();

  IngestSettings settings_;
  std::function<void(const std::string&)> log_;
  std::filesystem::path prefix_;
  // Locked as long as this process lives: a prefix whose lock is free was left behind by a
  // devcloud that was killed, and the next start removes it.
  int lock_ = -1;
  pid_t pid_ = -1;
};

}  // namespace qvn::devcloud
