// The picture Program shows while no input is on it: the studio's background with the word
// "Program" in the middle.
#pragma once

#include "platform/pixel_buffer.h"
#include "video/overlay_rgba.h"

namespace qvn {

// The compositor's background, "void black".
inline constexpr OverlayRGBA kMixBackground{15 / 255.0, 17 / 255.0, 23 / 255.0, 1};

// None when the buffer can't be made.
PixelBufferRef makeStandbyPicture(int width, int height);

}  // namespace qvn
