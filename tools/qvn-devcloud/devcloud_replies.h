// What every handler of the devcloud shares: JSON replies and refusals, reading bodies,
// queries and forms, and the random names it hands out. Pure functions: any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "devcloud_service.h"

namespace qvn::devcloud {

// A request refused: thrown by the checks of a handler, turned into the JSON error reply.
struct Refusal {
  unsigned status;
  std::string error;
  std::string message;
};

HttpReply jsonReply(unsigned status, const nlohmann::json& body);
HttpReply errorReply(unsigned status, const std::string& error, const std::string& message);

// Form encoding: "+" is a space; a broken escape stays as it was written.
std::string percentDecode(std::string_view text);
// The pairs of a query string or a form body; the first of a repeated key wins.
std::map<std::string, std::string> formOf(std::string_view text);
// The query of a request target.
std::map<std::string, std::string> queryOf(const std::string& target);
std::string queryValue(const std::map<std::string, std::string>& query, const char* key,
                       std::string_view fallback = {});
std::string requiredQuery(const std::map<std::string, std::string>& query, const char* key);

std::string trimmed(std::string_view text);
// Trimmed and in lower case, as accounts are keyed.
std::string normalEmail(std::string_view text);
// The same test the studio makes before it sends an address.
bool isFullEmail(const std::string& email);

// `bytes` random bytes in base64url.
std::string randomToken(size_t bytes);

// The body as a JSON object (empty: {}); Refusal 400 for anything else.
nlohmann::json objectBody(const HttpCall& call);
std::optional<std::string> optionalText(const nlohmann::json& body, const char* key);
std::string requiredText(const nlohmann::json& body, const char* key);

}  // namespace qvn::devcloud
