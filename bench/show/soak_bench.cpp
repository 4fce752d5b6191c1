// The show for a long time: one studio publishing to nginx and recording 1080p H.264 for
// `--minutes` (30), cutting and fading on its own with the inset on, while one to four phones
// (720p30 and 1080p30) join and leave at random and the ingest is stopped and started again
// twice, at a third and at two thirds of the run. The stream is read back all along, by a new
// reader once the ingest is back.
//
// It passes when:
//   - memory stays flat: after the warm-up (the first tenth of the run, at least 2 minutes),
//     with the same phones on (by number and picture size), the studio's resident memory at
//     the last look stays within 5 % of the first (each phone takes its own, so only like is
//     set against like);
//   - nothing stalls: the studio runs to the end and its mix reports every 3 s (no gap in its
//     tick lines over 10 s), and no tick goes out late apart from the ingest's outages;
//   - the stream goes on: no gap over 1 s in the pictures read back, apart from each outage
//     (from the ingest's stop until the first picture read after it comes back);
//   - the recording goes on: the movie is as long as the run, with no gap over 0.5 s.
//
// Prints the figures and the verdicts; `--json FILE` writes them, `--seed N` changes the
// phones' comings and goings.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_run.h"
#include "common/studio_run.h"
#include "golive/nginx_ingest.h"
#include "show/show_measure.h"
#include "show/show_studio.h"
#include "show/stream_reader.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn::bench;
using namespace qvn::test;

constexpr int kMostPhones = 4;
constexpr double kSampleSeconds = 10;
constexpr double kOutageSeconds = 3;      // how long the ingest stays down
constexpr double kRssTolerance = 0.05;    // after the warm-up
constexpr double kStreamGapSeconds = 1;   // outside the outages
constexpr double kMovieGapSeconds = 0.5;  // anywhere
constexpr double kTickGapSeconds = 10;    // between two of the mix's 3 s lines
constexpr double kReaderRetrySeconds = 5;
// Liveness bound only: the publisher waits up to 16 s between its attempts to reconnect.
constexpr double kBackSeconds = 60;

struct Options {
  double minutes = 30;
  unsigned seed = 1;
  std::string jsonPath;
};

bool readOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&] { return optionValue(i, argc, argv, argv[0]); };
    try {
      if (arg == "--minutes")
        o.minutes = std::stod(value());
      else if (arg == "--seed")
        o.seed = unsigned(std::stoul(value()));
      else if (arg == "--json")
        o.jsonPath = value();
      else
        throw std::invalid_argument(arg);
    } catch (const std::exception&) {
      std::fprintf(stderr, "usage: %s [--minutes N] [--seed N] [--json FILE]\n", argv[0]);
      return false;
    }
  }
  return o.minutes > 0;
}

// A time span in CLOCK_MONOTONIC seconds.
struct Span {
  double from = 0, to = 0;
  bool contains(double t) const { return t >= from && t <= to; }
};

// The longest gap between neighbouring `times` (sorted) that doesn't touch an excused span,
// and how many such gaps are over `limit`.
std::pair<double, int> gapsOutside(const std::vector<double>& times,
                                   const std::vector<Span>& excused, double limit) {
  double longest = 0;
  int over = 0;
  for (size_t i = 1; i < times.size(); ++i) {
    const double a = times[i - 1], b = times[i];
    const bool isExcused = std::any_of(excused.begin(), excused.end(),
                                       [&](const Span& s) { return a <= s.to && b >= s.from; });
    if (isExcused) continue;
    longest = std::max(longest, b - a);
    if (b - a > limit) ++over;
  }
  return {longest, over};
}

// The phones: one to four, one joining or leaving every 20 to 60 s.
class PhoneChurn {
 public:
  PhoneChurn(ShowStudio& studio, unsigned seed, double bound)
      : studio_(studio), random_(seed), bound_(bound) {}

  void begin(double now) {
    join();
    next_ = now + delay();
  }
  void step(double now) {
    if (now < next_) return;
    const auto live = studio_.phones();
    const bool leave = int(live.size()) >= kMostPhones ||
                       (live.size() > 1 && std::bernoulli_distribution()(random_));
    if (leave) {
      studio_.removePhone(live[std::uniform_int_distribution<size_t>(0, live.size() - 1)(random_)]);
      ++leaves_;
    } else {
      join();
    }
    next_ = now + delay();
  }
  int joins() const { return joins_; }
  int leaves() const { return leaves_; }

 private:
  double delay() { return std::uniform_real_distribution<double>(20, 60)(random_); }
  void join() {
    const auto live = studio_.phones();
    int index = 0;
    while (std::find(live.begin(), live.end(), index) != live.end()) ++index;
    // The first two places send 720p, the others 1080p.
    studio_.addPhone(index, index < 2 ? PhoneShape{1280, 720} : PhoneShape{1920, 1080}, bound_);
    ++joins_;
  }

  ShowStudio& studio_;
  std::mt19937 random_;
  double bound_;
  double next_ = 0;
  int joins_ = 0, leaves_ = 0;
};

struct Verdict {
  const char* what;
  bool passed;
  std::string figures;
};

int soak(const Options& o) {
  const double seconds = o.minutes * 60;
  const double warmUp = std::max(120.0, seconds / 10);
  TempDir work("soak");
  NginxIngest ingest;
  const std::string url = ingest.rtmpURL() + "/soak";
  const fs::path movie = work.path / "soak.mp4";
  const double bound = seconds + 2 * kBackSeconds + 120;
  ShowStudio studio(work.path, "soak", url, movie, bound);
  PhoneChurn churn(studio, o.seed, bound);

  const double start = monotonicNow();
  churn.begin(start);
  if (!studio.waitFor(kBackSeconds,
                      [&] { return studio.firstFrames() >= 1 && studio.publishing(); }))
    throw std::runtime_error("the show didn't start: " + studio.logTail());
  std::vector<std::unique_ptr<StreamReader>> readers;
  readers.push_back(std::make_unique<StreamReader>(url, work.path, "0"));

  std::vector<double> restartsAt = {start + seconds / 3, start + 2 * seconds / 3};
  std::vector<Span> outages;
  struct Sample {
    double at, rss, cpu;
    std::string phones;  // by picture size
  };
  std::vector<Sample> samples;
  double nextSample = start, nextReader = start;
  for (double now = start; now < start + seconds; now = monotonicNow()) {
    studio.poll();
    churn.step(now);
    if (!restartsAt.empty() && now >= restartsAt.front()) {
      restartsAt.erase(restartsAt.begin());
      std::fprintf(stderr, "ingest down at %.0f s\n", now - start);
      outages.push_back({now, now});
      ingest.stop();
      std::this_thread::sleep_for(std::chrono::duration<double>(kOutageSeconds));
      ingest.start();
      // The studio publishes again on its own; then the stream is read anew.
      const int published = studio.publishStarts();
      studio.waitFor(kBackSeconds, [&] { return studio.publishStarts() > published; });
      readers.push_back(
          std::make_unique<StreamReader>(url, work.path, std::to_string(readers.size())));
    }
    // A reader that came too early, or lost the stream, tries again.
    if (!readers.back()->running() && now >= nextReader) {
      readers.push_back(
          std::make_unique<StreamReader>(url, work.path, std::to_string(readers.size())));
      nextReader = now + kReaderRetrySeconds;
    }
    if (now >= nextSample) {
      samples.push_back({now - start, residentMiB(studio.pid()).value_or(NAN),
                         processCpuSeconds(studio.pid()).value_or(NAN), studio.phoneSizes()});
      nextSample += kSampleSeconds;
    }
    if (!studio.running()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  const double end = monotonicNow();
  const bool ranToEnd = studio.running();

  // Each outage lasts until the first picture read after the ingest came back.
  std::vector<double> pictures;
  for (const auto& reader : readers)
    for (const auto& p : reader->pictures())
      if (p.at >= start + warmUp / 4 && p.at <= end) pictures.push_back(p.at);
  std::sort(pictures.begin(), pictures.end());
  for (auto& outage : outages) {
    const auto after =
        std::upper_bound(pictures.begin(), pictures.end(), outage.from + kOutageSeconds);
    outage.to = after == pictures.end() ? end : *after;
  }
  readers.clear();
  studio.poll();
  const auto ticks = studio.ticks();
  const auto health = studio.health();
  const bool quitCleanly = studio.quit();

  std::vector<Verdict> verdicts;
  // Memory: the first and the last look with each set of phones, after the warm-up.
  std::map<std::string, std::pair<double, double>> rssByPhones;
  for (const auto& sample : samples)
    if (sample.at >= warmUp && !std::isnan(sample.rss)) {
      auto [entry, fresh] = rssByPhones.try_emplace(sample.phones, sample.rss, sample.rss);
      if (!fresh) entry->second.second = sample.rss;
    }
  double worstGrowth = 0;
  std::string rssText;
  char text[200];
  for (const auto& [phones, rss] : rssByPhones) {
    worstGrowth = std::max(worstGrowth, rss.second / rss.first - 1);
    std::snprintf(text, sizeof text, "%s%s: %.0f → %.0f MiB", rssText.empty() ? "" : "; ",
                  phones.c_str(), rss.first, rss.second);
    rssText += text;
  }
  verdicts.push_back(
      {"memory flat within 5 %", !rssByPhones.empty() && worstGrowth <= kRssTolerance, rssText});
  // Stalls.
  std::vector<double> tickTimes;
  for (const auto& t : ticks) tickTimes.push_back(t.at);
  const auto [tickGap, tickGaps] = gapsOutside(tickTimes, {}, kTickGapSeconds);
  long lateOutside = 0, lateAll = health.empty() ? 0 : health.back().health.lateTicks;
  for (size_t i = 1; i < health.size(); ++i) {
    const Span span{health[i - 1].at, health[i].at};
    const bool touches = std::any_of(outages.begin(), outages.end(), [&](const Span& s) {
      return span.from <= s.to && span.to >= s.from;
    });
    if (!touches && span.from >= start + warmUp / 4)
      lateOutside += health[i].health.lateTicks - health[i - 1].health.lateTicks;
  }
  std::snprintf(
      text, sizeof text,
      "longest gap between tick lines %.1f s; late ticks %ld outside the outages, %ld in all",
      tickGap, lateOutside, lateAll);
  verdicts.push_back({"nothing stalls", ranToEnd && tickGaps == 0, text});
  // The stream.
  const auto [streamGap, streamGaps] = gapsOutside(pictures, outages, kStreamGapSeconds);
  std::string outageText;
  for (const auto& s : outages)
    outageText += (outageText.empty() ? "" : ", ") + cell(s.to - s.from, "%.1f") + " s";
  std::snprintf(text, sizeof text, "%zu pictures read; longest gap %.2f s outside the outages (%s)",
                pictures.size(), streamGap, outageText.c_str());
  verdicts.push_back({"the stream goes on", streamGaps == 0 && !pictures.empty(), text});
  // The recording.
  std::string failure;
  const MovieProbe probe = probeMovie(movie, work.path, 300, failure);
  auto times = probe.times;
  std::sort(times.begin(), times.end());
  const auto [movieGap, movieGaps] = gapsOutside(times, {}, kMovieGapSeconds);
  std::snprintf(text, sizeof text, "%.0f s of %.0f s run, %.0f pictures, longest gap %.2f s%s",
                probe.seconds, end - start, probe.frames, movieGap,
                failure.empty() ? "" : (" — " + failure).c_str());
  verdicts.push_back(
      {"the recording goes on",
       failure.empty() && movieGaps == 0 && probe.seconds > (end - start) - 30 && quitCleanly,
       text});

  const double cpu = samples.size() >= 2 ? (samples.back().cpu - samples.front().cpu) /
                                               (samples.back().at - samples.front().at) * 100
                                         : NAN;
  std::printf(
      "\nsoak: %.0f min, %d joins, %d leaves, 2 ingest restarts, studio CPU %s %% of one core\n",
      (end - start) / 60, churn.joins(), churn.leaves(), cell(cpu, "%.0f").c_str());
  bool all = true;
  for (const auto& v : verdicts) {
    std::printf("  %-24s %-4s %s\n", v.what, v.passed ? "ok" : "FAIL", v.figures.c_str());
    all = all && v.passed;
  }
  if (!o.jsonPath.empty()) {
    nlohmann::json j = {{"minutes", (end - start) / 60},
                        {"joins", churn.joins()},
                        {"leaves", churn.leaves()},
                        {"cpuPercent", jsonOf(cpu)},
                        {"passed", all}};
    for (const auto& v : verdicts)
      j["verdicts"].push_back({{"what", v.what}, {"passed", v.passed}, {"figures", v.figures}});
    for (const auto& s : samples) j["rssMiB"].push_back({s.at, jsonOf(s.rss)});
    if (!writeJson(j, o.jsonPath, "qvn-bench-soak")) return 1;
  }
  return all ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  return runReporting(argv[0], [&] {
    Options o;
    if (!readOptions(argc, argv, o)) return 2;
    return soak(o);
  });
}
