// Turns a decoded picture upright and bounds its size, so screens and the mix get a BGRA
// buffer of the studio's own whatever the decoder handed over.
#pragma once

#include <optional>

#include "platform/pixel_buffer.h"

namespace qvn::QvnVideoOrient {

// `rotation` is the decoder's rotation tag in degrees: the picture shows upright once it is
// turned that far clockwise, so 90, 180 and 270 turn it clockwise by that angle; any other
// value turns nothing. With `maxLongEdge`, a picture whose longer side exceeds it is scaled
// down uniformly to that side; sizes are rounded to the nearest pixel.
//
// Takes BGRA, NV12 or I420 and always renders into a new BGRA buffer, also when nothing
// turns or shrinks. Returns the input itself when the result would be under 2 pixels on a
// side or no buffer can be made.
//
// Any thread. The result and the one or two buffers in between (for YUV, rotation or
// scaling) come from pools kept per thread, so a stream allocates nothing once warm. A
// result goes back to its pool only when its last reference is dropped; a thread keeps up
// to three idle results and one of each buffer in between, of its last sizes, until it ends.
PixelBufferRef orient(const PixelBufferRef& buffer, int rotation,
                      std::optional<int> maxLongEdge = std::nullopt);

}  // namespace qvn::QvnVideoOrient
