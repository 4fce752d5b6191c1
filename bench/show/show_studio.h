// A show on this machine for the benches: the headless studio switching on its own (a cut and
// a fade in turn, the inset on), publishing to an ingest and recording if asked, with
// simulated phones that come and go. The studio's log is read as it grows into its tick and
// health lines. One thread; every process is ended by its own id.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/studio_run.h"
#include "show/show_measure.h"
#include "testing/child_process.h"

namespace qvn::bench {

struct PhoneShape {
  int width = 1280, height = 720;
};

class ShowStudio {
 public:
  // How often the studio goes to the next input.
  static constexpr double kSwitchSeconds = 4;

  // Starts the studio publishing to `publishURL` and, with `movie`, recording to it; it ends on
  // its own after `boundSeconds` if this side loses track of it. Throws when it doesn't listen.
  ShowStudio(const std::filesystem::path& work, const std::string& tag,
             const std::string& publishURL, std::optional<std::filesystem::path> movie,
             double boundSeconds);
  ~ShowStudio();
  ShowStudio(const ShowStudio&) = delete;
  ShowStudio& operator=(const ShowStudio&) = delete;

  // A phone looping its picture and tone, its frame codes from index × kCodesPerPhone.
  void addPhone(int index, PhoneShape shape, double forSeconds);
  // The phone says goodbye and leaves.
  void removePhone(int index);
  std::vector<int> phones() const;
  // The phones on now by picture size, as "2×1280x720 1×1920x1080".
  std::string phoneSizes() const;

  // Reads the log until `done()` or `limit` seconds; false when the studio ended or time ran out.
  template <typename Done>
  bool waitFor(double limit, Done&& done) {
    return pollUntil(
        *studio_, limit,
        [&] {
          poll();
          return done();
        },
        [] { return false; });
  }
  void poll();

  // What the log has said so far.
  int firstFrames() const { return firstFrames_; }
  bool publishing() const { return publishStarts_ > 0; }
  // How often the ingest has taken the stream: once more after each reconnection.
  int publishStarts() const { return publishStarts_; }
  struct Seen {
    double at;  // CLOCK_MONOTONIC seconds
    TickLine tick;
  };
  const std::vector<Seen>& ticks() const { return ticks_; }
  struct SeenHealth {
    double at;
    HealthLine health;
  };
  const std::vector<SeenHealth>& health() const { return health_; }
  // Every phone's frame log so far.
  PushTimes pushTimes() const;

  pid_t pid() const { return studio_->pid(); }
  bool running() { return studio_->running(); }
  std::string logTail() const { return tailOf(log_); }
  // Quits it as Ctrl-C would and waits for the movie to be finished; false if it had to be
  // killed.
  bool quit();

 private:
  std::filesystem::path work_, log_;
  std::string tag_;
  std::uint16_t port_ = 0;
  std::unique_ptr<test::ChildProcess> studio_;
  std::map<int, std::unique_ptr<test::ChildProcess>> phones_;
  std::map<int, PhoneShape> shapes_;
  std::vector<std::filesystem::path> frameLogs_;
  LogTail tail_;
  bool listening_ = false;
  int firstFrames_ = 0;
  int publishStarts_ = 0;
  std::vector<Seen> ticks_;
  std::vector<SeenHealth> health_;
};

}  // namespace qvn::bench
