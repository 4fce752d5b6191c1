// `qvn-devcloud relay --api http://127.0.0.1:PORT --key KEY`: what the ingest runs for each
// publish. It asks the devcloud where the session's stream goes, copies it there with one
// ffmpeg (the tee muxer, one FLV output per destination, a failed one dropped without
// stopping the others), reads ffmpeg's progress and complaints, and reports each
// destination's state back. SIGTERM (the publish ended) stops ffmpeg and reports "ended".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace qvn::devcloud {

// ffmpeg's tee output list: "[f=flv:onfail=ignore]URL|…", the characters the tee muxer
// reads as syntax escaped in each URL.
std::string teeOutputs(const std::vector<std::string>& urls);

// Destination states from ffmpeg's -progress lines, its stderr and its exit. Each call
// gives the changes it makes, in order; a destination that failed keeps its error.
class RelayWatch {
 public:
  struct Change {
    size_t target;
    std::string status;   // starting, live, error, ended
    std::string message;  // for error
    bool operator==(const Change&) const = default;
  };

  // `urls` in the order they were given to teeOutputs; `secrets` never appear in a message.
  RelayWatch(std::vector<std::string> urls, std::vector<std::string> secrets);

  std::vector<Change> start();
  std::vector<Change> progressLine(std::string_view line);
  std::vector<Change> errorLine(std::string_view line);
  // ffmpeg was told to stop: what it says from now on is about stopping, not a failure, and
  // however it ends the stream is over rather than broken.
  void stopping() { stopping_ = true; }
  std::vector<Change> exited(int waitStatus);

  const std::string& status(size_t target) const { return status_.at(target); }

 private:
  void set(size_t target, const std::string& status, const std::string& message,
           std::vector<Change>& changes);
  std::string redacted(std::string text) const;

  std::vector<std::string> urls_;
  std::vector<std::string> secrets_;
  std::vector<std::string> status_;
  std::vector<std::string> message_;
  bool flowing_ = false;
  bool stopping_ = false;
  std::string lastProblem_;
};

struct RelayOptions {
  std::uint16_t apiPort = 0;
  std::string key;
};

std::variant<RelayOptions, std::string> parseRelayOptions(int argc, const char* const* argv);

// argv[0] is "relay". The exit code.
int runRelay(int argc, const char* const* argv);

}  // namespace qvn::devcloud
