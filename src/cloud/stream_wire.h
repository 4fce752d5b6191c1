// What the cloud says about where a stream goes: destinations, a session's encoder
// settings and its per-destination states, read strictly. The encoder settings are never
// guessed: a missing value refuses the session, in words that say which. Any thread.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace qvn::QvnCloud {

struct Destination {
  std::string id, platform, name;
  bool isEnabled = false;
  bool hasKey = false;
  std::string lastError;
  bool operator==(const Destination&) const = default;
};

struct StreamConfig {
  int width = 0, height = 0, fps = 0;
  int videoBitrate = 0, audioBitrate = 0;  // bits per second
  bool operator==(const StreamConfig&) const = default;
};

struct SessionDestination {
  std::string id, platform, name, status, errorMessage;
  bool operator==(const SessionDestination&) const = default;
};

// A session the cloud opened: where to publish, with which key and settings.
struct Session {
  std::string id, ingestUrl, streamKey;
  StreamConfig streamConfig;
  bool operator==(const Session&) const = default;
};

// The account's embed link, as far as it is known.
struct EmbedLink {
  enum class Kind { unknown, loading, none, unavailable, ready, failed };
  Kind kind = Kind::unknown;
  std::string url;           // ready
  bool playsStudio = false;  // ready: the player shows what the studio sends
  std::string message;       // failed
  bool operator==(const EmbedLink&) const = default;
};

// "YouTube", "Custom RTMP", … and "Destination" for a platform it doesn't know.
std::string platformName(const std::string& platform);
// The list under "destinations", else under "data"; entries without an id are skipped.
std::vector<Destination> parseDestinations(const nlohmann::json& reply);
// Each entry named by its destination's id, else its own; a name from `known` when it has
// none.
std::vector<SessionDestination> parseSessionDestinations(const nlohmann::json& reply,
                                                         const std::vector<Destination>& known);
// A whole number from an integer, a whole double, or a string that trims to one.
std::optional<long long> intValue(const nlohmann::json& value);
// "1080p", "4k", "1280×720", "1280 * 720"; none for anything else.
std::optional<std::pair<int, int>> parseResolution(const std::string& text);
// Destinations a stream can go to: switched on, with a key.
std::vector<Destination> eligibleDestinations(const std::vector<Destination>& all);
// Why there are no eligible destinations: none at all, the first one on without a key, or
// none on. The checklist's words differ a little from the session's.
std::string noDestinationMessage(const std::vector<Destination>& all,
                                 const std::string& dashboardHost, bool forChecklist);
// A reply's "session" object, else the reply itself.
const nlohmann::json& sessionObject(const nlohmann::json& reply);
// Ready for an "embed_url" that begins "https://", else none.
EmbedLink parseEmbedLink(const nlohmann::json& reply);
// The settings, or the reason they can't be used.
std::variant<StreamConfig, std::string> parseStreamConfig(const nlohmann::json* config);

}  // namespace qvn::QvnCloud
