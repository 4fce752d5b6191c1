// Whatever a phone, or anything else that finds the port, sends: framed into lines however
// the reads cut it, each line then read as a message the way the server reads it.
//
// Input: two bytes placing the cuts, one byte choosing the line cap (0: the real one, else a
// small one so it is reached), then the bytes as sent.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "phones/line_framer.h"
#include "phones/signaling_message.h"

namespace {

constexpr size_t kHeader = 3;

void check(bool ok) {
  if (!ok) std::abort();
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// What every line handed out must be.
void checkLine(const std::string& line) {
  check(!line.empty());
  check(line.find('\n') == std::string::npos);
  check(!isSpace(line.front()) && !isSpace(line.back()));
  check(qvn::validUTF8({reinterpret_cast<const std::uint8_t*>(line.data()), line.size()}));
}

void readMessage(const std::string& line) {
  const auto message = qvn::parseSignalingLine(line);
  if (!message) return;
  check(message->is_object() && message->at("type").is_string());
  check(qvn::textOf(*message, "type") == message->at("type").get<std::string>());
  const nlohmann::json candidate = qvn::candidateOf(*message);
  check(candidate.is_object());
  for (const char* key : {"pin", "name", "sdp", "role"}) {
    qvn::textOf(*message, key);
    qvn::textOf(candidate, key);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  if (size < kHeader) return 0;
  const std::span<const std::uint8_t> sent(data + kHeader, size - kHeader);
  size_t first = sent.size() * data[0] / 255;
  size_t second = sent.size() * data[1] / 255;
  if (first > second) std::swap(first, second);
  const size_t cap = data[2] == 0 ? qvn::LineFramer::kLongestLine : size_t(data[2]) * 4;

  qvn::LineFramer chunked(cap);
  std::vector<std::string> lines;
  for (auto chunk :
       {sent.subspan(0, first), sent.subspan(first, second - first), sent.subspan(second)})
    for (std::string& line : chunked.feed(chunk)) lines.push_back(std::move(line));

  // However the reads cut the bytes, the same lines come out, unless a cut left a partial
  // line past the cap for a moment; then those that came out are the first ones.
  qvn::LineFramer whole(cap);
  const std::vector<std::string> once = whole.feed(sent);
  if (whole.tooLong()) check(chunked.tooLong());
  if (chunked.tooLong()) {
    check(lines.size() <= once.size() && std::equal(lines.begin(), lines.end(), once.begin()));
    check(chunked.pending() == 0);
  } else {
    check(lines == once && chunked.pending() == whole.pending());
  }

  for (const std::string& line : lines) {
    checkLine(line);
    readMessage(line);
  }
  return 0;
}
