#include "phones/signaling_message.h"

#include <nlohmann/json.hpp>

namespace qvn {

std::optional<nlohmann::json> parseSignalingLine(const std::string& line) {
  // No exceptions: a phone's bad line is ordinary input, not an error.
  nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
  if (message.is_discarded() || !message.is_object()) return std::nullopt;
  const auto type = message.find("type");
  if (type == message.end() || !type->is_string()) return std::nullopt;
  return message;
}

nlohmann::json candidateOf(const nlohmann::json& message) {
  if (!message.is_object()) return message;
  const auto it = message.find("candidate");
  return it != message.end() && it->is_object() ? *it : message;
}

std::string textOf(const nlohmann::json& message, const char* key) {
  if (!message.is_object()) return "";
  const auto it = message.find(key);
  return it != message.end() && it->is_string() ? it->get<std::string>() : "";
}

}  // namespace qvn
