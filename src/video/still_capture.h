// Still pictures of a slot: encoded to JPEG or PNG bytes, or saved as a PNG file in the
// media library's Stills.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "video/frame_hub.h"

namespace qvn {

enum class StillType { jpeg, png };

struct EncodedStill {
  std::vector<std::uint8_t> data;  // a whole JPEG or PNG file
  int width = 0;
  int height = 0;
};

// The slot's latest picture, encoded. None when the slot holds no picture, when it is 1
// pixel or less on a side, or when encoding fails. A finite `maxWidth` below the picture's
// width scales it down uniformly to that width (sizes rounded to the nearest pixel).
// `quality` (0 to 1) applies to JPEG only. A JPEG shows the picture over black; a PNG keeps
// its transparency. Any thread but the mix and real-time ones: it converts and compresses
// a whole picture.
std::optional<EncodedStill> encodeStill(const FrameHub& hub, int slot, StillType type,
                                        double maxWidth, double quality);

namespace StillCapture {

// Makes sure the media library's folders exist, writes the slot's picture at full size as a
// PNG into its Stills, named by its stamp (" 2", " 3", ... before the extension when the name
// is taken), and logs it. Returns the file, or none when the slot
// has no picture or the write fails. Same threads as encodeStill; also does file I/O.
std::optional<std::filesystem::path> save(const FrameHub& hub, int slot, const std::string& name);

}  // namespace StillCapture
}  // namespace qvn
