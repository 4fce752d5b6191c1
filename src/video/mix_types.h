// Small values the mix is steered with: the transition kind, the canvas size and a crop.
#pragma once

#include <array>
#include <string_view>
#include <utility>

#include "support/enum_text.h"

namespace qvn {

enum class MixTransition { instant, fade, slide };
enum class MixCanvasSize { hd, uhd };

// Canvas pixels of a canvas size: 1920x1080 or 3840x2160.
struct CanvasPixels {
  int width;
  int height;
};
constexpr CanvasPixels canvasPixels(MixCanvasSize size) {
  return size == MixCanvasSize::uhd ? CanvasPixels{3840, 2160} : CanvasPixels{1920, 1080};
}

// Zoom and pan of a still or a source inside its frame; the neutral crop changes nothing.
struct ImageCrop {
  double zoom = 1.0;
  double panX = 0.0;
  double panY = 0.0;
  bool operator==(const ImageCrop&) const = default;
};

template <>
struct EnumTexts<MixTransition> {
  static constexpr std::array<std::pair<MixTransition, std::string_view>, 3> table{{
      {MixTransition::instant, "instant"},
      {MixTransition::fade, "fade"},
      {MixTransition::slide, "slide"},
  }};
};

template <>
struct EnumTexts<MixCanvasSize> {
  static constexpr std::array<std::pair<MixCanvasSize, std::string_view>, 2> table{{
      {MixCanvasSize::hd, "1920x1080"},
      {MixCanvasSize::uhd, "3840x2160"},
  }};
};

}  // namespace qvn
