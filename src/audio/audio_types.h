// Values of the audio side that the studio stores and shows.
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "support/enum_text.h"

namespace qvn {

// Whether an input is heard with its own sound or with the master input's.
enum class SlotAudioSource { own, master };

// An audio device as listed by the sound server: a stable id and a name for people.
struct QvnAudioDevice {
  std::string id;
  std::string name;
  bool operator==(const QvnAudioDevice&) const = default;
};

template <>
struct EnumTexts<SlotAudioSource> {
  static constexpr std::array<std::pair<SlotAudioSource, std::string_view>, 2> table{{
      {SlotAudioSource::own, "own"},
      {SlotAudioSource::master, "master"},
  }};
};

}  // namespace qvn
