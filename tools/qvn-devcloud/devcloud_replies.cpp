#include "devcloud_replies.h"

#include <algorithm>
#include <cctype>
#include <regex>

#include "platform/crypto.h"

namespace qvn::devcloud {

using json = nlohmann::json;

HttpReply jsonReply(unsigned status, const json& body) {
  return {status, "application/json", body.dump(), {}};
}

HttpReply errorReply(unsigned status, const std::string& error, const std::string& message) {
  return jsonReply(status, {{"error", error}, {"message", message}});
}

std::string percentDecode(std::string_view text) {
  const auto hex = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '+') {
      out.push_back(' ');
    } else if (text[i] == '%' && i + 2 < text.size() && hex(text[i + 1]) >= 0 &&
               hex(text[i + 2]) >= 0) {
      out.push_back(char(hex(text[i + 1]) * 16 + hex(text[i + 2])));
      i += 2;
    } else {
      out.push_back(text[i]);
    }
  }
  return out;
}

std::map<std::string, std::string> formOf(std::string_view rest) {
  std::map<std::string, std::string> pairs;
  while (!rest.empty()) {
    const auto amp = rest.find('&');
    const std::string_view pair = rest.substr(0, amp);
    const auto equals = pair.find('=');
    if (!pair.empty())
      pairs.emplace(percentDecode(pair.substr(0, equals)),
                    equals == std::string_view::npos ? "" : percentDecode(pair.substr(equals + 1)));
    rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
  }
  return pairs;
}

std::map<std::string, std::string> queryOf(const std::string& target) {
  const auto mark = target.find('?');
  if (mark == std::string::npos) return {};
  return formOf(std::string_view(target).substr(mark + 1));
}

std::string queryValue(const std::map<std::string, std::string>& query, const char* key,
                       std::string_view fallback) {
  const auto found = query.find(key);
  return found == query.end() || found->second.empty() ? std::string(fallback) : found->second;
}

std::string requiredQuery(const std::map<std::string, std::string>& query, const char* key) {
  const auto found = query.find(key);
  if (found == query.end() || found->second.empty())
    throw Refusal{400, "invalid_request", std::string(key) + " is missing."};
  return found->second;
}

std::string trimmed(std::string_view text) {
  const auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return std::string(text);
}

std::string normalEmail(std::string_view text) {
  std::string email = trimmed(text);
  std::transform(email.begin(), email.end(), email.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return email;
}

bool isFullEmail(const std::string& email) {
  static const std::regex kPattern(R"(^[^\s@]+@[^\s@]+\.[^\s@]+$)");
  return std::regex_match(email, kPattern);
}

std::string randomToken(size_t bytes) {
  return base64url(randomBytes(bytes));
}

json objectBody(const HttpCall& call) {
  if (trimmed(call.body).empty()) return json::object();
  auto body = json::parse(call.body, nullptr, false);
  if (body.is_discarded() || !body.is_object())
    throw Refusal{400, "invalid_json", "The body must be a JSON object."};
  return body;
}

std::optional<std::string> optionalText(const json& body, const char* key) {
  const auto field = body.find(key);
  if (field == body.end() || field->is_null()) return std::nullopt;
  if (!field->is_string())
    throw Refusal{400, "invalid_request", std::string(key) + " must be a string."};
  return field->get<std::string>();
}

std::string requiredText(const json& body, const char* key) {
  auto value = optionalText(body, key);
  if (!value || value->empty())
    throw Refusal{400, "invalid_request", std::string(key) + " is missing."};
  return *value;
}

}  // namespace qvn::devcloud
