// qvn-devcloud's HTTP side: plain HTTP/1.1 on 127.0.0.1 with Boost.Beast, one thread. The
// constructor binds and opens the database on the calling thread; run() then serves on
// whichever one thread calls it, and from then on only that thread touches the database.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "devcloud_options.h"

namespace qvn::devcloud {

struct ServerHooks {
  // Seconds since 1970; empty: the system's clock. Tests move time on with their own.
  std::function<std::int64_t()> clock;
  // The lines for a person (the codes and links it would mail); empty: stdout, flushed.
  std::function<void(const std::string&)> announce;
  // One line per request and the codes again; empty: stderr with the time of day.
  std::function<void(const std::string&)> log;
};

class DevCloudServer {
 public:
  // Throws std::runtime_error (StoreError among them) when it can't listen or open the db.
  explicit DevCloudServer(const DevCloudOptions& options, ServerHooks hooks = {});
  ~DevCloudServer();
  DevCloudServer(const DevCloudServer&) = delete;
  DevCloudServer& operator=(const DevCloudServer&) = delete;

  std::uint16_t port() const;
  // "http://127.0.0.1:PORT"
  std::string address() const;
  // The ingest's port the sessions name: the one asked for, or a free one picked at start.
  std::uint16_t ingestPort() const;
  // The log it writes its request lines to, for the lines of what runs beside it.
  const std::function<void(const std::string&)>& logger() const;

  // Before run(): SIGINT and SIGTERM end run().
  void stopOnSignals();
  // Serves until stop(); returns at once after a stop().
  void run();
  // Any thread.
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace qvn::devcloud
