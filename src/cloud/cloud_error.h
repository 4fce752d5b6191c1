// What a cloud call gives back: the reply's JSON and its status, or an error. Errors of the
// API itself have the domain "QvnCloud", the HTTP status as their code and the reply's own
// words; anything else (no connection, a time-out) keeps the transport's domain and text.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace qvn {

struct CloudError {
  static constexpr const char* kDomain = "QvnCloud";

  std::string domain = kDomain;
  int code = 0;
  std::string text;
  std::string qvnerror;  // the reply's "error" string
  std::string qvncode;   // the reply's "code" string
  int retryAfter = 0;    // seconds, from the Retry-After header
  nlohmann::json json = nlohmann::json::object();

  bool fromAPI() const { return domain == kDomain; }
  static CloudError transport(std::string why) {
    CloudError e;
    e.domain = "Transport";
    e.text = std::move(why);
    return e;
  }
};

struct CloudResult {
  int status = 0;
  nlohmann::json json = nlohmann::json::object();
  std::optional<CloudError> error;

  bool ok() const { return !error; }
};

}  // namespace qvn
