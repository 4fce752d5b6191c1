// The devcloud's answers: every endpoint of the studio's cloud account that sign-in, the
// account and going live need, and the controls the studio's tests use, apart from the wire. One
// request at a time: the server calls it from its one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvn::devcloud {

struct HttpCall {
  std::string method;  // upper case
  std::string target;  // path and query, as sent
  std::string body;
  std::string authorization;  // the header, or empty
};

struct HttpReply {
  unsigned status = 200;
  std::string contentType = "application/json";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // besides Content-Type
  bool quiet = false;  // not worth a log line: a poll that comes every second
};

struct ServiceSettings {
  std::string database;  // a file, or ":memory:"
  std::int64_t accessTtlSeconds = 900;
  std::int64_t codeTtlSeconds = 600;
  std::string site;       // base of the links it prints and redirects to, without a trailing /
  std::string ingestUrl;  // rtmp://127.0.0.1:PORT/live, handed to every stream session
  // Seconds since 1970.
  std::function<std::int64_t()> clock;
  // Lines for the person running it: the codes and links it would have mailed.
  std::function<void(const std::string&)> announce;
  std::function<void(const std::string&)> log;
};

class DevCloudService {
 public:
  // Opens the database; throws StoreError when it can't.
  explicit DevCloudService(ServiceSettings settings);
  ~DevCloudService();
  DevCloudService(const DevCloudService&) = delete;
  DevCloudService& operator=(const DevCloudService&) = delete;

  HttpReply handle(const HttpCall& call);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The path of a request target, without its query.
std::string pathOf(const std::string& target);

}  // namespace qvn::devcloud
