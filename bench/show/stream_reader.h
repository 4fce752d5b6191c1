// The stream as a viewer of the ingest gets it: ffmpeg plays it back from nginx, small and
// decoded to BGRA, into a pipe this side reads, and every picture's frame code is read off
// as it arrives. What arrives, and when, is the far end of the phone-to-ingest latency and the
// proof that the stream goes on.
//
// Owns one ffmpeg and one reading thread. `pictures` may be called from any thread, the rest
// from the one that made it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "testing/child_process.h"

namespace qvn::bench {

// A picture read back: its code, when there was one, and CLOCK_MONOTONIC seconds.
struct ReadPicture {
  std::optional<std::uint32_t> code;
  double at = 0;
};

class StreamReader {
 public:
  static constexpr int kWidth = 640, kHeight = 360;

  // Plays `url` back; `work` holds the pipe and ffmpeg's log. Throws when ffmpeg can't start.
  StreamReader(const std::string& url, const std::filesystem::path& work, const std::string& tag);
  ~StreamReader();
  StreamReader(const StreamReader&) = delete;
  StreamReader& operator=(const StreamReader&) = delete;

  // False once ffmpeg has ended (the ingest went away, or the stream did).
  bool running() { return ffmpeg_->running(); }
  // Everything read so far.
  std::vector<ReadPicture> pictures() const;

 private:
  void readLoop(int fd);

  mutable std::mutex lock_;
  std::vector<ReadPicture> pictures_;
  int holdOpen_ = -1;
  std::thread reader_;
  std::unique_ptr<test::ChildProcess> ffmpeg_;
};

// CLOCK_MONOTONIC in seconds: the clock of the phones' frame logs.
double monotonicNow();

}  // namespace qvn::bench
