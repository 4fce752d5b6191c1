// AMF0, as much of it as a publishing client speaks: numbers, strings, null and flat objects
// out; numbers, booleans, strings, nulls and objects of strings in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace qvn::amf0 {

// What an object holds when written: a string, a number, or anything else (written as null).
using Value = std::variant<std::monostate, double, std::string>;

class Writer {
 public:
  Writer& number(double value);
  Writer& string(const std::string& value);
  Writer& null();
  // The pairs in their order.
  Writer& object(const std::vector<std::pair<std::string, Value>>& pairs);
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  void key(const std::string& text);
  std::vector<std::uint8_t> bytes_;
};

// Reads values from a message body with one cursor. Each read returns none when the bytes
// run out; a marker it doesn't know moves the cursor one byte and gives none.
class Reader {
 public:
  explicit Reader(std::span<const std::uint8_t> body) : body_(body) {}
  std::optional<std::string> string();
  std::optional<double> number();
  // An object's string entries; other entries are read past. One that runs out of bytes
  // gives what it has so far.
  std::optional<std::map<std::string, std::string>> object();
  // Reads past any one value.
  void skip();

 private:
  // Each reads the value after a marker already taken.
  std::optional<std::string> shortString();
  bool take(size_t n, std::span<const std::uint8_t>& out);
  void skipValueAfter(std::uint8_t marker);

  static constexpr int kMaxDepth = 32;
  std::span<const std::uint8_t> body_;
  size_t at_ = 0;
  int depth_ = 0;
};

}  // namespace qvn::amf0
