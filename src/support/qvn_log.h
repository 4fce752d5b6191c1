// The studio's one log: a plain text file every subsystem appends to, one line at a time,
// with no levels. Each line is "{UTC date to the second}Z  {text}" and is also printed to
// standard output.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string_view>

namespace qvn {

class QvnLog {
 public:
  // Appends one line. Callable from any thread; never fails its caller, takes no lock.
  // On a thread marked real-time the line is copied into a fixed ring without allocating
  // and written by the log's own thread, so the caller never waits on the disk.
  static void line(std::string_view text);

  // A copy of a JSON value that is safe to log: values under keys that name a key, token,
  // secret or password become "<redacted>" (containers under such keys are redacted inside).
  static nlohmann::json redacted(const nlohmann::json& value);

  // Marks the calling thread real-time for `line` (audio render threads).
  static void markRealtimeThread();

  // Waits until lines handed over by real-time threads are written (tests, quit).
  static void flush();
};

}  // namespace qvn
