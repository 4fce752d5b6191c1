#include "phones/line_framer.h"

#include <algorithm>

#include "support/camera_slot.h"

namespace qvn {

bool validUTF8(std::span<const std::uint8_t> bytes) {
  const size_t n = bytes.size();
  for (size_t i = 0; i < n;) {
    const std::uint8_t c = bytes[i];
    const int extra = c < 0x80             ? 0
                      : (c & 0xE0) == 0xC0 ? 1
                      : (c & 0xF0) == 0xE0 ? 2
                      : (c & 0xF8) == 0xF0 ? 3
                                           : -1;
    // A stray continuation byte, or a sequence cut short by the end.
    if (extra < 0 || size_t(extra) > n - i - 1) return false;
    for (size_t k = 1; k <= size_t(extra); ++k)
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
    i += size_t(extra) + 1;
  }
  return true;
}

std::vector<std::string> LineFramer::feed(std::span<const std::uint8_t> bytes) {
  std::vector<std::string> lines;
  if (tooLong_) return lines;
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  size_t start = 0;
  for (auto newline = std::find(buffer_.begin() + long(scanned_), buffer_.end(), '\n');
       newline != buffer_.end(); newline = std::find(newline + 1, buffer_.end(), '\n')) {
    const size_t end = size_t(newline - buffer_.begin());
    const std::span<const std::uint8_t> line(buffer_.data() + start, end - start);
    start = end + 1;
    if (!validUTF8(line)) continue;  // not text: dropped
    std::string text = trimmed(std::string(line.begin(), line.end()));
    if (!text.empty()) lines.push_back(std::move(text));
  }
  buffer_.erase(buffer_.begin(), buffer_.begin() + long(start));
  scanned_ = buffer_.size();  // no line feed in what is left
  if (buffer_.size() > longestLine_) {
    tooLong_ = true;
    buffer_ = {};  // nothing more will come of it
    scanned_ = 0;
  }
  return lines;
}

}  // namespace qvn
