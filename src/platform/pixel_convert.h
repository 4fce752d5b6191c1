// Matrix: every YUV picture here is BT.709 limited range (Y 16-235, Cb/Cr 16-240).
//
// Conversions between PixelBuffers. Each one fills a buffer the caller made, and returns
// false, leaving it untouched, when the formats or sizes don't fit or when it is the source.
// Any thread; neither buffer may be written by anyone else during the call.
#pragma once

#include "platform/pixel_buffer.h"

namespace qvn {

// YUV to BGRA of the same size; the result is opaque.
bool i420ToBGRA(const PixelBuffer& src, PixelBuffer& dst);
bool nv12ToBGRA(const PixelBuffer& src, PixelBuffer& dst);

// BGRA to YUV of the same size (even, as 4:2:0 needs). Alpha is dropped, so a premultiplied
// pixel comes out as it would show over black; chroma is the mean of each 2x2 block.
bool bgraToNV12(const PixelBuffer& src, PixelBuffer& dst);
bool bgraToI420(const PixelBuffer& src, PixelBuffer& dst);

// Same size, same samples: only the chroma layout changes.
bool i420ToNV12(const PixelBuffer& src, PixelBuffer& dst);

// Bilinear, from src's size to dst's.
bool scaleBGRA(const PixelBuffer& src, PixelBuffer& dst);

// Clockwise by 0, 90, 180 or 270 degrees; dst has src's size, turned.
bool rotateBGRA(const PixelBuffer& src, PixelBuffer& dst, int degrees);
bool rotateI420(const PixelBuffer& src, PixelBuffer& dst, int degrees);

}  // namespace qvn
