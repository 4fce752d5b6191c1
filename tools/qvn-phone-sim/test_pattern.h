// The sim's picture, drawn straight into I420: colour bars over a grey ramp, a box that
// crosses the picture once per cycle, the camera's look (the back camera's colours, zoom
// into the centre, a focus mark), a label with the phone's name, and the frame code.
//
// One thread at a time; the pattern keeps its label picture and its rows of bars between
// calls, so a steady look costs little more than the copying.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "camera_look.h"
#include "platform/pixel_buffer.h"

namespace qvn {

class TestPattern {
 public:
  explicit TestPattern(std::string name);
  ~TestPattern();
  TestPattern(const TestPattern&) = delete;
  TestPattern& operator=(const TestPattern&) = delete;

  // `phase` in [0, 1) is where in its cycle the box is; `code` goes into the corner.
  void draw(PixelBuffer& i420, double phase, std::uint32_t code, const CameraLook& look);

 private:
  void prepare(const PixelBuffer& picture, const CameraLook& look);
  void drawBox(PixelBuffer& picture, double phase, double zoom);
  void drawFocus(PixelBuffer& picture, const FocusPoint& focus);
  void drawLabel(PixelBuffer& picture, const CameraLook& look);

  std::string name_;
  std::vector<std::uint8_t> barY_, barU_, barV_, rampY_;  // one row of each
  int preparedWidth_ = 0;
  CameraLook preparedLook_;
  PixelBufferRef label_;  // I420, for `labelText_` at `labelFontSize_`
  std::string labelText_;
  int labelFontSize_ = 0;
};

}  // namespace qvn
