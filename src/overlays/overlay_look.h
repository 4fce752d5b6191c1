// The look of the two built-in graphics of older versions, a lower third and a logo. Still
// stored with the studio and in saved scenes; decoding is tolerant, every key may be missing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "video/overlay_rgba.h"

namespace qvn {

struct OverlayLook {
  double lowerWidth = 1.0;
  double lowerScale = 1.0;
  double lowerX = 0.5;
  double lowerY = 0.9;
  OverlayRGBA barColor{15 / 255.0, 17 / 255.0, 23 / 255.0, 0.82};
  OverlayRGBA accentColor{0, 200 / 255.0, 150 / 255.0, 1};
  OverlayRGBA nameColor{1, 1, 1, 1};
  OverlayRGBA titleColor{0, 200 / 255.0, 150 / 255.0, 1};
  std::string nameFont = "Syne-ExtraBold";
  std::string titleFont = "DMSans-Medium";
  double nameSize = 64.0;
  double titleSize = 36.0;
  double logoScale = 0.14;
  double logoOpacity = 1.0;
  double logoX = 0.9;
  double logoY = 0.08;

  std::string toJSON() const;
  // None only when the text isn't a JSON object. `hadLogoPosition` tells whether the stored
  // look carried its own logo position ("logoX"), which older looks did not.
  static std::optional<OverlayLook> fromJSON(std::string_view json,
                                             bool* hadLogoPosition = nullptr);

  bool operator==(const OverlayLook&) const = default;
};

}  // namespace qvn
