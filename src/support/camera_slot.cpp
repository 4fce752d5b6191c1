#include "support/camera_slot.h"

namespace qvn {

std::string trimmed(const std::string& text) {
  const char* space = " \t\n\r\f\v";
  const auto first = text.find_first_not_of(space);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(space) - first + 1);
}

CameraSlot CameraSlot::empty(int index) {
  CameraSlot row;
  row.index = index;
  row.title = "Source " + std::to_string(index);
  row.status = "Off";
  row.kind = "phone";
  return row;
}

std::string CameraSlot::inputName() const {
  std::string name = trimmed(label);
  return name.empty() ? "Source " + std::to_string(index) : name;
}

std::string CameraSlot::displayName() const {
  std::string name = trimmed(label);
  return name.empty() ? title : name;
}

std::string CameraSlot::detectedKind() const {
  if (!live) return "Empty";
  if (kind == "usb") return "USB";
  if (kind == "ndi") return "NDI®";
  if (kind == "file" || kind == "image") return "Local file";
  if (kind == "playlist") return "Playlist";
  if (kind == "slideshow") return "Slideshow";
  if (kind == "document") return "Document";
  if (kind == "screen") return "Window";
  if (kind == "audio") return "Audio";
  return "Phone";
}

}  // namespace qvn
