// One row of the input table. Every source of pictures, whichever hub feeds it, is one of
// these; all parts of the studio address a source by its slot number (1 to 16).
#pragma once

#include <string>

namespace qvn {

struct CameraSlot {
  int index = 0;
  bool live = false;
  std::string title;       // the source's own name
  std::string status;      // "Off", "Live", or why the signal is lost
  std::string resolution;  // human text of the received size; empty when unknown
  int receivedWidth = 0;
  int receivedHeight = 0;
  std::string label;  // the operator's name for the input
  std::string kind;   // phone, usb, ndi, screen, file, image, playlist, slideshow, document, audio
  std::string deviceId;  // identity of the source within its hub

  // The row of a slot with nothing attached.
  static CameraSlot empty(int index);

  // The trimmed label, else "Source {index}".
  std::string inputName() const;
  // The trimmed label, else the source's title.
  std::string displayName() const;
  // The word for what feeds the slot: "Empty", "USB", "NDI®", "Local file", ...
  std::string detectedKind() const;

  bool isPhone() const { return kind == "phone"; }

  bool operator==(const CameraSlot&) const = default;
};

// White space trimmed from both ends.
std::string trimmed(const std::string& text);

}  // namespace qvn
