#include "outputs/record_options.h"

#include <algorithm>
#include <ctime>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <vector>

#include "platform/base64.h"

namespace qvn {

using nlohmann::json;

namespace {

bool readText(const json& j, const char* key, std::string& out,
              std::initializer_list<std::string_view> allowed) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_string()) return false;
  out = it->get<std::string>();
  return allowed.size() == 0 || std::find(allowed.begin(), allowed.end(), out) != allowed.end();
}

bool readBool(const json& j, const char* key, bool& out) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_boolean()) return false;
  out = it->get<bool>();
  return true;
}

}  // namespace

std::string RecordOptions::toJSON() const {
  json j = {{"container", container},     {"codec", codec},
            {"quality", quality},         {"size", size},
            {"prefix", prefix},           {"includeDate", includeDate},
            {"includeTime", includeTime}, {"includeWorkspace", includeWorkspace}};
  if (folderBookmark) j["folderBookmark"] = base64Encode(*folderBookmark);
  return j.dump();
}

std::optional<RecordOptions> RecordOptions::fromJSON(std::string_view text) {
  const json j = json::parse(text, nullptr, false);
  if (!j.is_object()) return std::nullopt;
  RecordOptions o;
  const bool ok = readText(j, "container", o.container, {"mp4", "mov"}) &&
                  readText(j, "codec", o.codec, {"h264", "hevc"}) &&
                  readText(j, "quality", o.quality, {"low", "medium", "high"}) &&
                  readText(j, "size", o.size, {"program", "hd1080", "hd720"}) &&
                  readText(j, "prefix", o.prefix, {}) &&
                  readBool(j, "includeDate", o.includeDate) &&
                  readBool(j, "includeTime", o.includeTime) &&
                  readBool(j, "includeWorkspace", o.includeWorkspace);
  if (!ok) return std::nullopt;
  if (auto it = j.find("folderBookmark"); it != j.end() && it->is_string())
    o.folderBookmark = base64Decode(it->get<std::string>());
  return o;
}

std::string RecordOptions::fileName(const std::optional<std::string>& workspace,
                                    std::int64_t when) const {
  auto replaceBlanks = [](std::string text, char with) {
    std::replace(text.begin(), text.end(), ' ', with);
    return text;
  };
  std::string first = prefix;
  first.erase(0, first.find_first_not_of(" \t\r\n"));
  first.erase(first.find_last_not_of(" \t\r\n") + 1);
  std::vector<std::string> parts{first.empty() ? "Quorvane_Recording" : replaceBlanks(first, '_')};
  if (includeWorkspace && workspace && !workspace->empty())
    parts.push_back(replaceBlanks(*workspace, '-'));
  const char* format = includeDate && includeTime ? "%Y-%m-%d_%H-%M-%S"
                       : includeDate              ? "%Y-%m-%d"
                       : includeTime              ? "%H-%M-%S"
                                                  : nullptr;
  if (format) {
    const std::time_t t = when;
    std::tm local{};
    localtime_r(&t, &local);
    char text[32];
    std::strftime(text, sizeof text, format, &local);
    parts.emplace_back(text);
  }
  std::string name;
  for (const auto& part : parts) name += (name.empty() ? "" : "_") + part;
  return name + "." + container;
}

std::filesystem::path RecordOptions::folderOr(const std::filesystem::path& fallback) const {
  if (!folderBookmark || folderBookmark->empty()) return fallback;
  return std::filesystem::path(std::string(folderBookmark->begin(), folderBookmark->end()));
}

std::int64_t RecordOptions::videoBitrate(int width, int height) const {
  const std::int64_t q = quality == "low" ? 0 : quality == "medium" ? 1 : 2;
  return std::max<std::int64_t>(std::int64_t(width) * height * (2 * q + 2), (q + 1) * 4'000'000);
}

RecordAudioSource RecordAudioSource::from(RecordAudioChoice choice) {
  switch (choice) {
    case RecordAudioChoice::mac:
      return {Kind::mac, std::nullopt};
    case RecordAudioChoice::camera:
      return {Kind::camera, std::nullopt};
    case RecordAudioChoice::silent:
      return {Kind::none, std::nullopt};
    case RecordAudioChoice::mix:
      break;
  }
  return {};
}

}  // namespace qvn
