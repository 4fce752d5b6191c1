// Bilinear drawing of one BGRA picture into a rectangle of another: scaled on each axis,
// edge pixels repeated outward, either replacing what is there or laid over it by the
// premultiplied source-over rule. Our own kernel: pixman's bilinear path costs about twice
// as much per pixel, and this one runs once per source per bus on every mix tick.
//
// One scaler belongs to one thread at a time; it keeps its tables and row buffers between
// calls, so a steady stream of pictures allocates nothing after the first.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/pixel_buffer.h"

namespace qvn {

class BGRAScaler {
 public:
  // Target coordinate = origin + source coordinate × scale, in pixels.
  struct Axis {
    double scale = 1;
    double origin = 0;
  };
  // Target pixels drawn: [left, right) × [top, bottom).
  struct Box {
    int left = 0, top = 0, right = 0, bottom = 0;
  };
  // `overColour` lays the picture over an opaque colour instead of over what the target
  // holds: the colour is painted only under rows that aren't opaque, so a picture covering
  // its box costs one write of each pixel.
  enum class Mode { replace, over, overColour };

  // False, drawing nothing, for pictures that aren't BGRA, a box outside the target or an
  // axis whose scale isn't positive. `colour` is a premultiplied BGRA pixel.
  bool draw(const PixelBuffer& src, PixelBuffer& dst, Axis x, Axis y, Box box, Mode mode,
            std::uint32_t colour = 0);

 private:
  struct Tap {
    int offset;            // bytes to the left pixel of the pair
    std::int32_t weights;  // left | right << 16 in 128ths, summing to 128
  };
  struct Row {
    const std::uint8_t* pixels;
    bool opaque;  // every alpha byte 255
  };
  Row across(const PixelBuffer& src, int row);

  std::vector<Tap> taps_;
  std::vector<std::uint8_t> rows_;  // two source rows scaled across
  int held_[2] = {-1, -1};
  bool heldOpaque_[2] = {false, false};
  std::vector<std::uint8_t> line_;  // one finished row, before it is laid over
  int width_ = 0;
  bool straight_ = false;  // source rows need no scaling across
  int firstColumn_ = 0;    // the source column of the box's left edge, when straight
};

// Premultiplied source-over of `count` pixels: dst = src + dst × (1 − src alpha).
void overRowBGRA(const std::uint8_t* src, std::uint8_t* dst, int count);
// Whether every pixel of a row is opaque.
bool opaqueRowBGRA(const std::uint8_t* row, int count);

}  // namespace qvn
