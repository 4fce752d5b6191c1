// What the operator chooses for a recording, and which sound it takes.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/enum_text.h"

namespace qvn {

struct RecordOptions {
  std::string container = "mp4";  // mp4, mov
  std::string codec = "h264";     // h264, hevc
  std::string quality = "high";   // low, medium, high
  std::string size = "program";   // program, hd1080, hd720
  std::string prefix = "Quorvane Recording";
  bool includeDate = true;
  bool includeTime = true;
  bool includeWorkspace = false;
  std::optional<std::vector<std::uint8_t>> folderBookmark;

  // "{prefix}[_{workspace}][_{date}_{time}].{container}", blanks made "_" in the prefix and
  // "-" in the workspace; local time `when` (seconds since 1970).
  std::string fileName(const std::optional<std::string>& workspace, std::int64_t when) const;
  // The chosen folder, or `fallback` when none was chosen.
  std::filesystem::path folderOr(const std::filesystem::path& fallback) const;
  // The video bit rate for a picture size: more pixels and a higher quality ask for more.
  std::int64_t videoBitrate(int width, int height) const;
  // Every key but folderBookmark must be present, and each text one of its values.
  std::string toJSON() const;
  static std::optional<RecordOptions> fromJSON(std::string_view json);

  bool operator==(const RecordOptions&) const = default;
};

// What the operator picks for the sound of a recording.
enum class RecordAudioChoice { mix, mac, camera, silent };

// Where a recording's sound comes from, as the recorder sees it.
struct RecordAudioSource {
  enum class Kind { mix, mac, camera, none };
  Kind kind = Kind::mix;
  std::optional<std::string> micID;  // for `mac`: none means the default microphone
  bool operator==(const RecordAudioSource&) const = default;

  static RecordAudioSource from(RecordAudioChoice choice);
};

template <>
struct EnumTexts<RecordAudioChoice> {
  static constexpr std::array<std::pair<RecordAudioChoice, std::string_view>, 4> table{{
      {RecordAudioChoice::mix, "mix"},
      {RecordAudioChoice::mac, "mac"},
      {RecordAudioChoice::camera, "camera"},
      {RecordAudioChoice::silent, "silent"},
  }};
};

}  // namespace qvn
