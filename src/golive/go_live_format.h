// The sizes a stream is sent at and how the Go Live sheet writes them. Any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "golive/go_live_publisher.h"
#include "golive/stream_output.h"

namespace qvn::GoLiveFormat {

// "720p HD", "1080p HD", "1440p QHD", "4K UHD" by height; else "{w} × {h}".
std::string resolutionName(int width, int height);
// "12 Mbps" from 10 Mb/s up, "6.0 Mbps" below.
std::string mbps(std::int64_t bitsPerSecond);
// The fixed size of a choice; none for the canvas as it is.
std::optional<std::pair<int, int>> choiceSize(StreamOutputChoice choice);
// The encoded size: the config's, within the canvas and the chosen size, each side made even.
std::pair<int, int> outputSize(const StreamConfig& config, std::pair<int, int> canvas,
                               std::optional<std::pair<int, int>> chosen);

}  // namespace qvn::GoLiveFormat
