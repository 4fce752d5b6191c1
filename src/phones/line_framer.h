// Cuts a phone's byte stream into lines of text. No I/O and no locks: one thread at a time
// feeds it, and it owns the bytes of the unfinished line it holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qvn {

// Whether the bytes are UTF-8 as far as lead and continuation bytes go: no stray
// continuation byte, no sequence cut short.
bool validUTF8(std::span<const std::uint8_t> bytes);

class LineFramer {
 public:
  // An offer fits many times over; a peer that sends more without a line feed is not a phone.
  static constexpr size_t kLongestLine = 1 << 20;

  explicit LineFramer(size_t longestLine = kLongestLine) : longestLine_(longestLine) {}

  // Takes the next bytes and returns the lines they complete, in order: each trimmed of
  // white space, never empty. A line that isn't UTF-8 is dropped; the unterminated tail is
  // kept for the next call. Once tooLong(), takes nothing more.
  std::vector<std::string> feed(std::span<const std::uint8_t> bytes);

  // The unterminated tail has outgrown the cap; the caller should give up on the peer.
  bool tooLong() const { return tooLong_; }
  // Bytes held back, waiting for their line feed.
  size_t pending() const { return buffer_.size(); }

 private:
  size_t longestLine_;
  std::vector<std::uint8_t> buffer_;
  size_t scanned_ = 0;  // bytes of buffer_ known to hold no line feed
  bool tooLong_ = false;
};

}  // namespace qvn
