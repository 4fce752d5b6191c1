// --frame-log: one line per frame pushed, "<frame code> <CLOCK_MONOTONIC seconds>", appended
// and flushed line by line so a benchmark on the same machine can pair what it reads back
// with when it was sent, even while the sim runs. One thread at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace qvn {

// CLOCK_MONOTONIC in seconds: the clock both the log and its readers go by.
double monotonicSeconds();

class FrameLog {
 public:
  // None, with `error` in plain words, when the file can't be opened for appending.
  static std::unique_ptr<FrameLog> open(const std::string& path, std::string& error);
  ~FrameLog();
  FrameLog(const FrameLog&) = delete;
  FrameLog& operator=(const FrameLog&) = delete;

  void write(std::uint32_t code, double seconds);

 private:
  explicit FrameLog(std::FILE* file) : file_(file) {}
  std::FILE* file_;
};

}  // namespace qvn
