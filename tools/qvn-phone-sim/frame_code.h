// A frame number written into the picture as large black and white cells, so that whatever
// reads the studio's pictures back (tests, latency benchmarks) can tell which sent frame it
// is looking at, after scaling and after H.264.
//
// The code sits in the top-left corner: a black plate and a grid of 4 rows by 11 square
// cells, each 1/40 of the picture's width, one cell in from both edges. The first column
// holds references (white, black, white, black) that set the threshold; the other 40 cells
// are 24 bits of code and a 16-bit CRC, most significant first, white for 1. Every position
// is a fraction of the width, so a picture scaled evenly to any size reads the same.
//
// Free functions, no state: any thread, one picture per call.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/pixel_buffer.h"

namespace qvn {

// Codes are 24 bits; higher bits are dropped (a running count at 30 fps wraps after six days).
inline constexpr std::uint32_t kFrameCodeMask = 0xFF'FFFF;

// Draws the code over the picture, in BGRA, I420 or NV12 (the plate's chroma is neutral).
// Pictures narrower than 80 pixels are left as they are.
void drawFrameCode(PixelBuffer& picture, std::uint32_t code);

// The code of an upright BGRA picture, or none when there is none to read: any cell that is
// neither clearly black nor clearly white, too little contrast, or a failed check.
std::optional<std::uint32_t> readFrameCode(const PixelBuffer& bgra);

}  // namespace qvn
