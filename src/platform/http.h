// HTTP(S) requests for the cloud: libcurl, with the system's certificate verification, a
// time-out per request and redirects not followed unless asked for. One worker thread runs
// every transfer; each reply is handed to the queue given at construction (the main queue
// for the account). Any thread may send.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace qvn {

class Queue;

struct HttpRequest {
  std::string method = "GET";  // GET, POST, PUT, DELETE
  std::string url;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  double timeoutSeconds = 60;
  bool followRedirects = false;
};

struct HttpResponse {
  int status = 0;  // 0 when no HTTP reply came
  // Header names in lower case; a repeated header keeps its last value.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  // Why no reply came (no connection, time-out, a certificate refused), in plain words;
  // empty when one did, whatever its status.
  std::string error;

  bool arrived() const { return error.empty(); }
  std::string header(const std::string& lowerCaseName) const;
};

class HttpClient {
 public:
  using Completion = std::function<void(HttpResponse)>;
  virtual ~HttpClient() = default;
  // `done` runs exactly once, on the reply queue, unless the client is destroyed first.
  virtual void send(HttpRequest request, Completion done) = 0;
};

// The real client. Destroying it ends the worker; transfers still running are abandoned
// and their completions never run.
std::shared_ptr<HttpClient> makeHttpClient(Queue& replies);

// Plain http is for this machine only: true for https URLs and for http to a loopback
// host (127.0.0.0/8, ::1, localhost).
bool isAllowedAPIBase(const std::string& url);

}  // namespace qvn
