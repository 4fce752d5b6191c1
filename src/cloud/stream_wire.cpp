#include "cloud/stream_wire.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <nlohmann/json.hpp>

namespace qvn::QvnCloud {

namespace {

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

std::string textOf(const nlohmann::json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool flagOf(const nlohmann::json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_boolean() && it->get<bool>();
}

std::optional<int> wholeNumber(const std::string& digits) {
  if (digits.empty() || digits.size() > 6 ||
      !std::all_of(digits.begin(), digits.end(), [](unsigned char c) { return std::isdigit(c); }))
    return std::nullopt;
  return std::stoi(digits);
}

}  // namespace

std::string platformName(const std::string& platform) {
  const std::string p = lower(platform);
  if (p == "youtube") return "YouTube";
  if (p == "facebook") return "Facebook";
  if (p == "twitter" || p == "x") return "X";
  if (p == "twitch") return "Twitch";
  if (p == "linkedin") return "LinkedIn";
  if (p == "instagram") return "Instagram";
  if (p == "tiktok") return "TikTok";
  if (p == "custom" || p == "rtmp") return "Custom RTMP";
  return "Destination";
}

std::vector<Destination> parseDestinations(const nlohmann::json& reply) {
  const nlohmann::json* list = nullptr;
  for (const char* key : {"destinations", "data"})
    if (reply.is_object() && reply.contains(key) && reply[key].is_array()) {
      list = &reply[key];
      break;
    }
  std::vector<Destination> out;
  if (!list) return out;
  for (const auto& entry : *list) {
    if (!entry.is_object() || textOf(entry, "id").empty()) continue;
    Destination d;
    d.id = textOf(entry, "id");
    d.platform = textOf(entry, "platform");
    d.name = textOf(entry, "name");
    if (d.name.empty()) d.name = platformName(d.platform);
    d.isEnabled = flagOf(entry, "is_enabled");
    d.hasKey = flagOf(entry, "has_key");
    d.lastError = textOf(entry, "last_error");
    out.push_back(std::move(d));
  }
  return out;
}

std::vector<SessionDestination> parseSessionDestinations(const nlohmann::json& reply,
                                                         const std::vector<Destination>& known) {
  std::vector<SessionDestination> out;
  if (!reply.is_object() || !reply.contains("destinations") || !reply["destinations"].is_array())
    return out;
  for (const auto& entry : reply["destinations"]) {
    if (!entry.is_object()) continue;
    SessionDestination d;
    d.id = textOf(entry, "destination_id");
    if (d.id.empty()) d.id = textOf(entry, "id");
    d.platform = textOf(entry, "platform");
    d.status = textOf(entry, "status");
    if (d.status.empty()) d.status = "unknown";
    d.errorMessage = textOf(entry, "error_message");
    d.name = textOf(entry, "name");
    if (d.name.empty()) {
      auto same = std::find_if(known.begin(), known.end(), [&](auto& k) { return k.id == d.id; });
      d.name = same != known.end() ? same->name : platformName(d.platform);
    }
    out.push_back(std::move(d));
  }
  return out;
}

std::optional<long long> intValue(const nlohmann::json& value) {
  if (value.is_number_integer()) return value.get<long long>();
  if (value.is_number_float()) {
    const double d = value.get<double>();
    if (std::isfinite(d) && std::floor(d) == d && std::fabs(d) < 1e15) return (long long)d;
    return std::nullopt;
  }
  if (value.is_string()) {
    std::string text = value.get<std::string>();
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return std::nullopt;
    text = text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
    size_t used = 0;
    try {
      const long long n = std::stoll(text, &used);
      if (used == text.size()) return n;
    } catch (const std::exception&) {
    }
  }
  return std::nullopt;
}

std::optional<std::pair<int, int>> parseResolution(const std::string& raw) {
  std::string text;
  for (size_t i = 0; i < raw.size(); ++i) {
    if (raw.compare(i, 2, "×") == 0) {  // the multiplication sign, two bytes in UTF-8
      text += 'x';
      ++i;
    } else if (raw[i] == '*') {
      text += 'x';
    } else if (!std::isspace(static_cast<unsigned char>(raw[i]))) {
      text += char(std::tolower(static_cast<unsigned char>(raw[i])));
    }
  }
  if (text == "4k" || text == "uhd") return std::pair{3840, 2160};
  if (text == "fhd") return std::pair{1920, 1080};
  if (text == "hd") return std::pair{1280, 720};
  if (!text.empty() && text.back() == 'p') {
    switch (wholeNumber(text.substr(0, text.size() - 1)).value_or(0)) {
      case 480:
        return std::pair{854, 480};
      case 720:
        return std::pair{1280, 720};
      case 1080:
        return std::pair{1920, 1080};
      case 1440:
        return std::pair{2560, 1440};
      case 2160:
        return std::pair{3840, 2160};
      default:
        return std::nullopt;
    }
  }
  const size_t x = text.find('x');
  if (x == std::string::npos || text.find('x', x + 1) != std::string::npos) return std::nullopt;
  const auto w = wholeNumber(text.substr(0, x)), h = wholeNumber(text.substr(x + 1));
  if (!w || !h || *w < 2 || *h < 2) return std::nullopt;
  return std::pair{*w, *h};
}

std::variant<StreamConfig, std::string> parseStreamConfig(const nlohmann::json* config) {
  if (!config || !config->is_object())
    return std::string(
        "The web engine did not return stream_config — cannot start Go Live "
        "without real encoder settings.");
  const nlohmann::json& c = *config;
  if (!c.contains("resolution"))
    return std::string("stream_config is missing resolution — cannot guess an encode size.");
  const auto size = c["resolution"].is_string()
                        ? parseResolution(c["resolution"].get<std::string>())
                        : std::nullopt;
  if (!size)
    return "stream_config.resolution " +
           (c["resolution"].is_string() ? c["resolution"].get<std::string>()
                                        : c["resolution"].dump()) +
           " is not a size I can parse.";
  auto number = [&](const char* key) { return c.contains(key) ? intValue(c[key]) : std::nullopt; };
  const auto video = number("bitrate_kbps"), fps = number("fps"),
             audio = number("audio_bitrate_kbps");
  if (!video || *video < 1)
    return std::string("stream_config is missing bitrate_kbps — cannot guess a video bitrate.");
  if (!fps || *fps < 1 || *fps > 120)
    return std::string("stream_config is missing a usable fps — cannot guess a frame rate.");
  if (!audio || *audio < 1)
    return std::string(
        "stream_config is missing audio_bitrate_kbps — cannot guess an audio bitrate.");
  auto bitsPerSecond = [](long long kbps) { return int(std::min(kbps, 2'000'000LL) * 1000); };
  return StreamConfig{size->first, size->second, int(*fps), bitsPerSecond(*video),
                      bitsPerSecond(*audio)};
}

std::vector<Destination> eligibleDestinations(const std::vector<Destination>& all) {
  std::vector<Destination> out;
  std::copy_if(all.begin(), all.end(), std::back_inserter(out),
               [](const Destination& d) { return d.isEnabled && d.hasKey; });
  return out;
}

std::string noDestinationMessage(const std::vector<Destination>& all,
                                 const std::string& dashboardHost, bool forChecklist) {
  if (all.empty()) return "Add a destination at " + dashboardHost + ", then try again.";
  auto keyless = std::find_if(all.begin(), all.end(),
                              [](const Destination& d) { return d.isEnabled && !d.hasKey; });
  if (keyless != all.end())
    return platformName(keyless->platform) + " isn't connected. Connect it at " + dashboardHost +
           (forChecklist ? ", or turn it off." : ", then try again.");
  return forChecklist ? "Turn on at least one destination."
                      : "Turn on at least one destination, then try again.";
}

const nlohmann::json& sessionObject(const nlohmann::json& reply) {
  if (reply.is_object()) {
    auto it = reply.find("session");
    if (it != reply.end() && it->is_object()) return *it;
  }
  return reply;
}

EmbedLink parseEmbedLink(const nlohmann::json& reply) {
  EmbedLink link{EmbedLink::Kind::none};
  if (!reply.is_object()) return link;
  const std::string url = textOf(reply, "embed_url");
  if (!url.starts_with("https://")) return link;
  link.kind = EmbedLink::Kind::ready;
  link.url = url;
  link.playsStudio = flagOf(reply, "studio_live");
  return link;
}

}  // namespace qvn::QvnCloud
