#include "outputs/record_options.h"

#include <algorithm>
#include <initializer_list>
#include <nlohmann/json.hpp>

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
