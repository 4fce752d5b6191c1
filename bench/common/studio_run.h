// The headless studio and its simulated phones as child processes, and what this side reads
// of them: the studio's log as it grows, and its threads' CPU from /proc.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/bench_run.h"
#include "testing/child_process.h"

namespace qvn::bench {

// While waiting for a line the studio's log is read this often, so a line's time is this
// coarse; the studio's own real-time lines may come up to 20 ms late anyway.
constexpr auto kPollEvery = std::chrono::milliseconds(2);
// Liveness bounds only: the studio listening, and a phone's first picture in it.
constexpr double kListenSeconds = 20;
constexpr double kFirstFrameSeconds = 30;

// What a run of studio cases takes from the command line.
struct RunSettings {
  double seconds = 0;  // the steady window of each case
  int repetitions = 0;
  std::string jsonPath;  // empty: no file
};

// "--seconds N", "--repetitions N" and "--json FILE" from args[1] on, into `settings`; false,
// with the usage line, on anything else. Exits with status 2 when a value is missing.
bool readRunOptions(int count, char* const* args, const char* program, RunSettings& settings);

// The run's settings in its JSON file; `skipSeconds` settle each case before its window.
nlohmann::json runJson(const RunSettings& settings, double skipSeconds);

// Calls `step` every kPollEvery until it is done (true), or `studio` ends, `gaveUp` says so
// or `limit` seconds pass (false).
template <typename Step, typename GaveUp>
bool pollUntil(test::ChildProcess& studio, double limit, Step&& step, GaveUp&& gaveUp) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(limit);
  for (;;) {
    if (step()) return true;
    if (!studio.running() || gaveUp() || Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollEvery);
  }
}

std::string readText(const std::filesystem::path& file);

// The last `bytes` of a log, for a failure's message.
std::string tailOf(const std::filesystem::path& file, size_t bytes = 600);

// The number right after `prefix` in `line`, when `suffix` follows it.
std::optional<long> numberBetween(std::string_view line, std::string_view prefix,
                                  std::string_view suffix);

// The studio's log as it grows, each line stamped with when this side first saw it.
class LogTail {
 public:
  explicit LogTail(std::filesystem::path file) : file_(std::move(file)) {}

  struct Line {
    std::string text;
    Clock::time_point seen;
  };

  // Reads what was added since the last call; the new complete lines.
  std::vector<Line> poll();
  const std::vector<Line>& all() const { return all_; }

 private:
  std::filesystem::path file_;
  size_t offset_ = 0;
  std::string partial_;
  std::vector<Line> all_;
};

struct ThreadSample {
  std::string name;
  double cpu = 0;
};

// Every live thread of `pid` by its id: its name with the digits left out, so the same
// GStreamer element in two pipelines adds up ("queue3:src" and "queue5:src" are both
// "queue:src"), and its time on a CPU.
std::map<std::string, ThreadSample> threadsOf(pid_t pid);

// CPU seconds by thread name between two looks; a thread that ended in between is not counted.
std::map<std::string, double> threadCpuBetween(const std::map<std::string, ThreadSample>& before,
                                               const std::map<std::string, ThreadSample>& after);

// The headless studio taking phones on loopback `port`, its data under `root`.
std::vector<std::string> studioCommand(std::uint16_t port, const std::filesystem::path& root);

// A simulated phone looping its picture to the studio on loopback `port` for `forSeconds`.
std::vector<std::string> phoneSimCommand(std::uint16_t port, int width, int height, int fps,
                                         const std::string& name, int forSeconds);

// The movie's pictures per ffprobe: their count, their seconds, and each one's time.
struct MovieProbe {
  double frames = NAN, seconds = NAN;
  std::vector<double> times;
};
// Reads `movie` with ffprobe (keeping its output under `work`), bounded by `limitSeconds`;
// `failure` says why when it couldn't.
MovieProbe probeMovie(const std::filesystem::path& movie, const std::filesystem::path& work,
                      double limitSeconds, std::string& failure);

// The "studio thread" table: a row per thread name over `shownFrom` s/s in some case, the
// largest in the last case first, and a row for the rest; a column per case.
void printThreadTable(const std::vector<std::string>& caseNames,
                      const std::vector<std::map<std::string, double>>& threadCpu,
                      double shownFrom);

}  // namespace qvn::bench
