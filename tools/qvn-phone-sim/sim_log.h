// The sim's log: one line at a time on standard output, behind "qvn-phone-sim[NAME]", flushed
// per line so a test reading the pipe sees each event as it happens. Any thread.
#pragma once

#include <string>

namespace qvn {

class SimLog {
 public:
  // Set once, before any thread logs.
  static void setName(const std::string& name);
  static void line(const std::string& text);
  // Raw text with no prefix (the offer SDP for --print-offer).
  static void raw(const std::string& text);
};

}  // namespace qvn
