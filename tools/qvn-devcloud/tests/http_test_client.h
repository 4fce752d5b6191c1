// A small blocking HTTP/1.1 client for the devcloud's tests: one request per connection to
// 127.0.0.1, redirects not followed.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace qvn::devcloud::test {

struct Reply {
  unsigned status = 0;
  std::map<std::string, std::string> headers;  // names in lower case
  std::string body;

  nlohmann::json json() const;
  std::string header(const std::string& lowerCaseName) const;
};

class TestClient {
 public:
  explicit TestClient(std::uint16_t port) : port_(port) {}

  // Throws when the server can't be reached.
  Reply send(const std::string& method, const std::string& target, const std::string& body = {},
             const std::string& bearer = {}) const;
  Reply get(const std::string& target, const std::string& bearer = {}) const {
    return send("GET", target, {}, bearer);
  }
  Reply post(const std::string& target, const nlohmann::json& body,
             const std::string& bearer = {}) const {
    return send("POST", target, body.dump(), bearer);
  }

 private:
  std::uint16_t port_;
};

// The value of `key` in the query of `url`, decoded; none when absent.
std::optional<std::string> queryParameter(const std::string& url, const std::string& key);

}  // namespace qvn::devcloud::test
