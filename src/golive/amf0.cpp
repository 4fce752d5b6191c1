#include "golive/amf0.h"

#include <bit>
#include <cstring>

namespace qvn::amf0 {

namespace {

enum Marker : std::uint8_t {
  kNumber = 0,
  kBoolean = 1,
  kString = 2,
  kObject = 3,
  kNull = 5,
  kUndefined = 6,
};

void putU16(std::vector<std::uint8_t>& out, size_t v) {
  out.push_back(static_cast<std::uint8_t>(v >> 8));
  out.push_back(static_cast<std::uint8_t>(v));
}

}  // namespace

Writer& Writer::number(double value) {
  bytes_.push_back(kNumber);
  const auto bits = std::bit_cast<std::uint64_t>(value);
  for (int shift = 56; shift >= 0; shift -= 8)
    bytes_.push_back(static_cast<std::uint8_t>(bits >> shift));
  return *this;
}

void Writer::key(const std::string& text) {
  putU16(bytes_, text.size());
  bytes_.insert(bytes_.end(), text.begin(), text.end());
}

Writer& Writer::string(const std::string& value) {
  bytes_.push_back(kString);
  key(value);
  return *this;
}

Writer& Writer::null() {
  bytes_.push_back(kNull);
  return *this;
}

Writer& Writer::object(const std::vector<std::pair<std::string, Value>>& pairs) {
  bytes_.push_back(kObject);
  for (const auto& [name, value] : pairs) {
    key(name);
    if (auto* text = std::get_if<std::string>(&value))
      string(*text);
    else if (auto* n = std::get_if<double>(&value))
      number(*n);
    else
      null();
  }
  bytes_.insert(bytes_.end(), {0x00, 0x00, 0x09});
  return *this;
}

bool Reader::take(size_t n, std::span<const std::uint8_t>& out) {
  if (body_.size() - at_ < n) return false;
  out = body_.subspan(at_, n);
  at_ += n;
  return true;
}

std::optional<std::string> Reader::shortString() {
  std::span<const std::uint8_t> length, text;
  if (!take(2, length)) return std::nullopt;
  if (!take(size_t(length[0]) << 8 | length[1], text)) return std::nullopt;
  return std::string(text.begin(), text.end());
}

std::optional<std::string> Reader::string() {
  if (at_ >= body_.size()) return std::nullopt;
  const std::uint8_t marker = body_[at_++];
  if (marker == kString) return shortString();
  skipValueAfter(marker);
  return std::nullopt;
}

std::optional<double> Reader::number() {
  if (at_ >= body_.size()) return std::nullopt;
  const std::uint8_t marker = body_[at_++];
  if (marker != kNumber) {
    skipValueAfter(marker);
    return std::nullopt;
  }
  std::span<const std::uint8_t> raw;
  if (!take(8, raw)) return std::nullopt;
  std::uint64_t bits = 0;
  for (std::uint8_t b : raw) bits = bits << 8 | b;
  return std::bit_cast<double>(bits);
}

std::optional<std::map<std::string, std::string>> Reader::object() {
  if (at_ >= body_.size()) return std::nullopt;
  const std::uint8_t marker = body_[at_++];
  if (marker != kObject) {
    skipValueAfter(marker);
    return std::nullopt;
  }
  std::map<std::string, std::string> entries;
  // Objects nest without limit on the wire; past a sane depth the rest counts as run out.
  if (depth_ >= kMaxDepth) {
    at_ = body_.size();
    return entries;
  }
  ++depth_;
  while (at_ < body_.size()) {
    if (body_.size() - at_ >= 3 && body_[at_] == 0 && body_[at_ + 1] == 0 && body_[at_ + 2] == 9) {
      at_ += 3;
      break;
    }
    auto name = shortString();
    if (!name || at_ >= body_.size()) break;
    const std::uint8_t valueMarker = body_[at_++];
    if (valueMarker == kString) {
      auto value = shortString();
      if (!value) break;
      entries[*name] = *value;
    } else {
      skipValueAfter(valueMarker);
    }
  }
  --depth_;
  return entries;
}

void Reader::skip() {
  if (at_ >= body_.size()) return;
  skipValueAfter(body_[at_++]);
}

void Reader::skipValueAfter(std::uint8_t marker) {
  std::span<const std::uint8_t> ignored;
  switch (marker) {
    case kNumber:
      take(8, ignored);
      break;
    case kBoolean:
      take(1, ignored);
      break;
    case kString:
      shortString();
      break;
    case kObject:
      --at_;  // read it whole, and drop it
      object();
      break;
    default:  // null and undefined have no body; an unknown marker was the one byte
      break;
  }
}

}  // namespace qvn::amf0
