// Reading the JSON a phone sends, one line at a time. Pure functions: any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace qvn {

// The message a line holds: a JSON object with a string "type". None for anything else,
// which the server notes and ignores.
std::optional<nlohmann::json> parseSignalingLine(const std::string& line);

// An ICE message's candidate: its "candidate" object, or else the message itself, as some
// phones send the candidate's fields at the top level.
nlohmann::json candidateOf(const nlohmann::json& message);

// The string under `key`, or "" when there is none or it isn't a string.
std::string textOf(const nlohmann::json& message, const char* key);

}  // namespace qvn
