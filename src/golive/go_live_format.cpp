#include "golive/go_live_format.h"

#include <algorithm>
#include <cstdio>

namespace qvn::GoLiveFormat {

std::string resolutionName(int width, int height) {
  switch (height) {
    case 720:
      return "720p HD";
    case 1080:
      return "1080p HD";
    case 1440:
      return "1440p QHD";
    case 2160:
      return "4K UHD";
    default:
      return std::to_string(width) + " × " + std::to_string(height);
  }
}

std::string mbps(std::int64_t bitsPerSecond) {
  char text[32];
  std::snprintf(text, sizeof text, bitsPerSecond >= 10'000'000 ? "%.0f Mbps" : "%.1f Mbps",
                double(bitsPerSecond) / 1'000'000);
  return text;
}

std::optional<std::pair<int, int>> choiceSize(StreamOutputChoice choice) {
  switch (choice) {
    case StreamOutputChoice::canvas:
      return std::nullopt;
    case StreamOutputChoice::uhd2160:
      return std::pair{3840, 2160};
    case StreamOutputChoice::qhd1440:
      return std::pair{2560, 1440};
    case StreamOutputChoice::fhd1080:
      return std::pair{1920, 1080};
    case StreamOutputChoice::hd720:
      return std::pair{1280, 720};
  }
  return std::nullopt;
}

std::pair<int, int> outputSize(const StreamConfig& config, std::pair<int, int> canvas,
                               std::optional<std::pair<int, int>> chosen) {
  int width = std::min(config.width, canvas.first);
  int height = std::min(config.height, canvas.second);
  if (chosen) {
    width = std::min(width, chosen->first);
    height = std::min(height, chosen->second);
  }
  return {width - width % 2, height - height % 2};
}

}  // namespace qvn::GoLiveFormat
