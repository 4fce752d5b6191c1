// Ready-made insets the operator picks from: templates place and dress the inset, styles
// only dress it.
#pragma once

#include <array>
#include <string_view>
#include <utility>
#include <vector>

#include "support/enum_text.h"
#include "video/pip_layout.h"

namespace qvn {

enum class QvnPiPCategory { standard, broadcast, podcast, church, event };

struct QvnPiPTemplate {
  std::string_view id;
  std::string_view name;
  QvnPiPCategory category = QvnPiPCategory::standard;
  std::string_view blurb;
  QvnPiPLayout layout;

  // Every built-in template, in the order the picker shows them.
  static const std::vector<QvnPiPTemplate>& all();
};

struct QvnPiPStyle {
  std::string_view id;
  std::string_view name;
  // Changes the look of a layout in place; position and size stay as they are.
  void (*apply)(QvnPiPLayout& layout) = nullptr;

  // Every built-in style, in the order the picker shows them.
  static const std::vector<QvnPiPStyle>& all();
};

template <>
struct EnumTexts<QvnPiPCategory> {
  static constexpr std::array<std::pair<QvnPiPCategory, std::string_view>, 5> table{{
      {QvnPiPCategory::standard, "standard"},
      {QvnPiPCategory::broadcast, "broadcast"},
      {QvnPiPCategory::podcast, "podcast"},
      {QvnPiPCategory::church, "church"},
      {QvnPiPCategory::event, "event"},
  }};
};

}  // namespace qvn
