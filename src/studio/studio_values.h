// Values the studio keeps for features whose full behaviour lives beside it: scenes, the
// restore of missing files, and what the window is showing.
#pragma once

#include <array>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "overlays/overlay_look.h"
#include "support/enum_text.h"
#include "video/mix_types.h"
#include "video/pip_layout.h"

namespace qvn {

// A saved arrangement of the studio.
struct StudioScene {
  std::string id;  // UUID, upper case
  std::string name;
  int programSlot = 0;
  bool pipEnabled = false;
  int pipSlot = 0;
  PiPCorner pipCorner = PiPCorner::bottomRight;
  MixTransition mixTransition = MixTransition::fade;
  bool overlaysOn = false;
  bool lowerThirdOn = false;
  std::string lowerThirdName;
  std::string lowerThirdTitle;
  bool logoOn = false;
  PiPCorner logoCorner = PiPCorner::topRight;
  std::optional<OverlayLook> overlayLook;
  std::optional<int> functionKey;
  std::optional<std::string> thumbnailFile;
  std::map<int, ImageCrop> imageCrops;
  bool operator==(const StudioScene&) const = default;
};

// A media input of the saved session whose files are not all found yet.
struct SlotRestore {
  int slot = 0;
  std::string kind;
  std::string title;
  std::vector<std::filesystem::path> resolved;
  std::vector<std::string> missing;
  std::optional<bool> muted;
  bool operator==(const SlotRestore&) const = default;
};

// The question on screen about a file that has moved.
struct MissingFilePrompt {
  int slot = 0;
  std::string inputName;
  std::string fileName;
  std::string kindLabel;
  bool operator==(const MissingFilePrompt&) const = default;
};

enum class StudioPage { studio, library };
enum class StudioPanel { inspector, extendOutput, pip, overlays, audio, record, workspace };
enum class SettingsTab { output, network, shortcuts, support, permissions, account };

template <>
struct EnumTexts<StudioPanel> {
  static constexpr std::array<std::pair<StudioPanel, std::string_view>, 7> table{{
      {StudioPanel::inspector, "inspector"},
      {StudioPanel::extendOutput, "extendOutput"},
      {StudioPanel::pip, "pip"},
      {StudioPanel::overlays, "overlays"},
      {StudioPanel::audio, "audio"},
      {StudioPanel::record, "record"},
      {StudioPanel::workspace, "workspace"},
  }};
};

}  // namespace qvn
