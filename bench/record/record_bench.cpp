// What recording costs the studio: the headless studio as its own process with one simulated
// phone (qvn-phone-sim --loop, 1280x720 at 30/s) on Program and the 1080p30 canvas, on
// loopback, in four cases measured side by side in one run: the phone only, recording H.264
// 1080p (--record), publishing 6 Mb/s to an nginx started here (--publish), and both. Each
// case gets a fresh studio; with --repetitions the cases take turns, so a change in the
// machine's load falls on all of them alike. Per case:
//
//   - the studio's CPU seconds per second over a steady window: from 2 s after the phone's
//     first frame on Program for `--seconds` (60), and what that adds to the phone alone;
//   - the movie: the frames the recorder says it wrote, the frames and seconds ffprobe
//     finds, and so the pictures it dropped; and its frames per second inside the window;
//   - the stream: the frames the publisher sent per second inside the window, and the frames
//     it dropped because the socket backed up;
//   - the mix's own rate in the window, which is all a recorder or publisher can be offered.
//
// Prints the medians, what each costs beside the phone alone, and where the studio's CPU goes
// by thread; `--json FILE` also writes it.
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "common/bench_run.h"
#include "common/json_argument.h"
#include "common/studio_run.h"
#include "golive/nginx_ingest.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn::bench;
using namespace qvn::test;

constexpr int kWidth = 1280, kHeight = 720, kFps = 30;

struct Case {
  const char* name;
  bool record;
  bool publish;
};
constexpr Case kCases[] = {{"phone only", false, false},
                           {"+ record", true, false},
                           {"+ publish", false, true},
                           {"+ both", true, true}};
constexpr size_t kCaseCount = std::size(kCases);

// The first seconds after the picture arrives settle the decoder, the pools, the mix and the
// encoders.
constexpr double kSkipSeconds = 2;
// In the window it is read less often: the rates come from lines seconds apart.
constexpr auto kWindowPollEvery = std::chrono::milliseconds(20);
// Liveness bounds only. Finishing the movie at quit may take the studio a while.
constexpr double kPublishSeconds = 15;
constexpr double kStopSeconds = 45;
constexpr double kProbeSeconds = 60;
// A thread under this in every case is folded into one line of the breakdown.
constexpr double kThreadShown = 0.005;

// A count that grows through the log, against when each of its lines was seen: its rate per
// second between the first and the last line inside [from, to].
struct Counter {
  std::vector<std::pair<Clock::time_point, double>> points;  // (seen, running total)
  double total = 0;

  void add(Clock::time_point seen, double increment) {
    total += increment;
    points.emplace_back(seen, total);
  }
  void set(Clock::time_point seen, double value) {
    total = value;
    points.emplace_back(seen, value);
  }
  double rate(Clock::time_point from, Clock::time_point to) const {
    const std::pair<Clock::time_point, double>*first = nullptr, *last = nullptr;
    for (const auto& point : points) {
      if (point.first < from || point.first > to) continue;
      if (!first) first = &point;
      last = &point;
    }
    if (!first || first == last || last->first == first->first) return NAN;
    return (last->second - first->second) / secondsOf(last->first - first->first);
  }
};

struct Sample {
  size_t which = 0;
  double studioCpu = NAN;  // s/s over the window
  double window = 0;
  double mixFps = NAN;  // from the mix's "mix tick 3s n=…" lines in the window
  std::map<std::string, double> threadCpu;  // CPU seconds by thread name, over the window
  // The movie.
  double loggedFrames = NAN;  // "record finished … frames=N"
  double movieFrames = NAN;   // ffprobe's count of pictures, and their seconds
  double movieSeconds = NAN;
  double droppedFrames = NAN;    // the movie's seconds at 30/s, less its pictures
  double windowRecordFps = NAN;  // its pictures stamped inside the window, per second
  // The stream.
  double publishFps = NAN;         // frames sent per second in the window ("golive publish #N")
  double backpressureDrops = NAN;  // the most it said it dropped, over the whole run
  double audioOverflows = NAN;     // sound blocks dropped for a full queue, over the whole run
  std::string failure;
};

Sample runCase(size_t which, int repetition, const fs::path& work, NginxIngest& ingest,
               const RunSettings& settings) {
  const Case& c = kCases[which];
  Sample sample{.which = which};
  const std::string tag = std::to_string(which + 1) + "-" + std::to_string(repetition);
  const fs::path root = work / ("root-" + tag), studioLog = work / ("studio-" + tag + ".log");
  const fs::path movie = work / ("movie-" + tag + ".mp4");
  const fs::path simLog = work / ("phone-" + tag + ".log");
  const std::uint16_t port = freeLoopbackPorts(1).at(0);
  // --for only bounds a studio this side lost track of; the case ends it with SIGTERM.
  const double bound =
      kListenSeconds + kFirstFrameSeconds + kPublishSeconds + kSkipSeconds + settings.seconds + 30;
  std::vector<std::string> argv = studioCommand(port, root);
  argv.insert(argv.end(),
              {"--api-base", "http://127.0.0.1:9", "--for", std::to_string(int(bound))});
  if (c.record) argv.insert(argv.end(), {"--record", movie.string()});
  if (c.publish) argv.insert(argv.end(), {"--publish", ingest.rtmpURL() + "/bench-" + tag});
  ChildProcess studio(argv, studioLog, studioLog);

  // What the lines say, taken as they are read.
  LogTail log(studioLog);
  bool listening = false, firstFrame = false, onProgram = false, publishing = false;
  std::optional<Clock::time_point> recordingFrom;
  Counter mixTicks, published;
  auto note = [&](const LogTail::Line& l) {
    const std::string_view text = l.text;
    if (text.find("Listening on:") != std::string_view::npos) listening = true;
    if (numberBetween(text, "cam ", " first frame")) firstFrame = true;
    if (text.find("program ← input ") != std::string_view::npos) onProgram = true;
    if (text.find("NetStream.Publish.Start") != std::string_view::npos) publishing = true;
    // The movie's time zero is its first media, a block or a picture after this line.
    if (!recordingFrom && text.find("  recording H.264 ") != std::string_view::npos)
      recordingFrom = l.seen;
    if (auto n = numberBetween(text, "mix tick 3s n=", " ")) mixTicks.add(l.seen, double(*n));
    if (auto n = numberBetween(text, "golive publish #", ": ")) published.set(l.seen, double(*n));
    if (auto n = numberBetween(text, "golive rtmp backpressure — dropped ", " "))
      sample.backpressureDrops = std::fmax(sample.backpressureDrops, double(*n));
    if (auto n = numberBetween(text, "dropped oldest chunk, totalDrops=", ""))
      sample.audioOverflows = double(*n);
  };
  auto read = [&] {
    for (const auto& line : log.poll()) note(line);
  };
  // Reads the log until `done` says so, the studio ends, `gaveUp` says so, or `limit` passes.
  auto waitFor = [&](double limit, auto&& done, auto&& gaveUp) {
    return pollUntil(
        studio, limit,
        [&] {
          read();
          return done();
        },
        gaveUp);
  };
  const auto never = [] { return false; };

  if (!waitFor(
          kListenSeconds, [&] { return listening; }, never)) {
    sample.failure = "the studio didn't listen: " + tailOf(studioLog);
    return sample;
  }
  ChildProcess sim(phoneSimCommand(port, kWidth, kHeight, kFps, "bench-record", int(bound)), simLog,
                   simLog);
  if (!waitFor(
          kFirstFrameSeconds, [&] { return firstFrame && onProgram; },
          [&] { return !sim.running(); })) {
    sample.failure =
        "the phone didn't reach Program: " + tailOf(studioLog) + " | phone: " + tailOf(simLog, 300);
    return sample;
  }
  if (c.publish && !waitFor(
                       kPublishSeconds, [&] { return publishing; }, never)) {
    sample.failure =
        "nginx never took the stream: " + tailOf(studioLog) + " | nginx: " + ingest.errorLog();
    return sample;
  }
  if (c.record && !recordingFrom) {
    sample.failure = "the studio never said it was recording: " + tailOf(studioLog);
    return sample;
  }

  // The steady window: this side only reads the log now and then, and /proc at its ends.
  std::this_thread::sleep_for(std::chrono::duration<double>(kSkipSeconds));
  read();
  const auto threads0 = threadsOf(studio.pid());
  const auto cpu0 = processCpuSeconds(studio.pid());
  const auto from = Clock::now();
  const auto until = from + std::chrono::duration_cast<Clock::duration>(
                                std::chrono::duration<double>(settings.seconds));
  while (Clock::now() < until) {
    std::this_thread::sleep_for(std::min<Clock::duration>(kWindowPollEvery, until - Clock::now()));
    read();
  }
  const auto to = Clock::now();
  const auto cpu1 = processCpuSeconds(studio.pid());
  const auto threads1 = threadsOf(studio.pid());
  sample.window = secondsOf(to - from);
  if (!cpu0 || !cpu1 || !studio.running()) {
    sample.failure = "the studio ended in the window: " + tailOf(studioLog);
    return sample;
  }
  sample.studioCpu = (*cpu1 - *cpu0) / sample.window;
  sample.threadCpu = threadCpuBetween(threads0, threads1);
  // A line is seen within a poll of being written: the rates are good to a few per mille.
  read();
  sample.mixFps = mixTicks.rate(from, to);
  if (c.publish) {
    sample.publishFps = published.rate(from, to);
    if (std::isnan(sample.backpressureDrops)) sample.backpressureDrops = 0;
    if (std::isnan(sample.audioOverflows)) sample.audioOverflows = 0;
  }

  // The studio first, so the phone stays on Program to the movie's end.
  const int status = studio.stop(SIGTERM, kStopSeconds);
  read();
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    sample.failure = "the studio didn't quit cleanly: " + tailOf(studioLog, 300);
  sim.stop(SIGTERM, 10);

  if (c.record) {
    for (const auto& line : log.all())
      if (line.text.find("record finished " + movie.filename().string() + " status=completed") !=
          std::string::npos)
        if (auto n = numberBetween(line.text, " frames=", " ")) sample.loggedFrames = double(*n);
    if (std::isnan(sample.loggedFrames))
      sample.failure += (sample.failure.empty() ? "" : "; ") +
                        std::string("no completed recording in the log: ") + tailOf(studioLog, 300);
    std::string failure;
    const MovieProbe probe = probeMovie(movie, work, kProbeSeconds, failure);
    if (!failure.empty()) sample.failure += (sample.failure.empty() ? "" : "; ") + failure;
    sample.movieFrames = probe.frames;
    sample.movieSeconds = probe.seconds;
    sample.droppedFrames = std::round(probe.seconds * kFps) - probe.frames;
    const double a = secondsOf(from - *recordingFrom), b = secondsOf(to - *recordingFrom);
    const auto inWindow = std::count_if(probe.times.begin(), probe.times.end(),
                                        [&](double t) { return t >= a && t < b; });
    if (!probe.times.empty()) sample.windowRecordFps = double(inWindow) / sample.window;
    // The movies add up to gigabytes over a long run.
    std::error_code ignored;
    fs::remove(movie, ignored);
  }
  return sample;
}

struct Summary {
  size_t which = 0;
  int measured = 0;
  double studioCpu = NAN, mixFps = NAN;
  double loggedFrames = NAN, movieFrames = NAN, movieSeconds = NAN, droppedFrames = NAN,
         windowRecordFps = NAN;
  double publishFps = NAN, backpressureDrops = NAN, audioOverflows = NAN;
  std::map<std::string, double> threadCpu;  // s/s over all the windows
};

Summary summarize(size_t which, const std::vector<Sample>& samples) {
  Summary s{.which = which};
  std::vector<double> studio, mix, logged, frames, seconds, dropped, recordFps, publishFps,
      backpressure, overflows;
  double windows = 0;
  for (const Sample& x : samples) {
    if (x.which != which || std::isnan(x.studioCpu)) continue;
    ++s.measured;
    studio.push_back(x.studioCpu);
    mix.push_back(x.mixFps);
    logged.push_back(x.loggedFrames);
    frames.push_back(x.movieFrames);
    seconds.push_back(x.movieSeconds);
    dropped.push_back(x.droppedFrames);
    recordFps.push_back(x.windowRecordFps);
    publishFps.push_back(x.publishFps);
    backpressure.push_back(x.backpressureDrops);
    overflows.push_back(x.audioOverflows);
    for (const auto& [name, cpu] : x.threadCpu) s.threadCpu[name] += cpu;
    windows += x.window;
  }
  for (auto& [name, cpu] : s.threadCpu) cpu /= windows;
  s.studioCpu = median(studio);
  s.mixFps = median(mix);
  s.loggedFrames = median(logged);
  s.movieFrames = median(frames);
  s.movieSeconds = median(seconds);
  s.droppedFrames = median(dropped);
  s.windowRecordFps = median(recordFps);
  s.publishFps = median(publishFps);
  s.backpressureDrops = median(backpressure);
  s.audioOverflows = median(overflows);
  return s;
}

int run(const RunSettings& settings) {
  const TempDir temp("record-bench");
  const fs::path& work = temp.path;
  NginxIngest ingest;

  std::printf(
      "qvn-bench-record: the headless studio with one phone (%dx%d at %d/s, looped) on Program, "
      "alone, recording H.264 1080p, publishing 6 Mb/s to nginx on loopback, and both; a fresh "
      "studio per case, the cases in turn %d times, %.0f s windows\n",
      kWidth, kHeight, kFps, settings.repetitions, settings.seconds);
  std::fflush(stdout);

  std::vector<Sample> samples;
  for (int repetition = 1; repetition <= settings.repetitions; ++repetition)
    for (size_t which = 0; which < kCaseCount; ++which) {
      Sample x = runCase(which, repetition, work, ingest, settings);
      std::printf("  %d/%d %-10s studio %s s/s", repetition, settings.repetitions,
                  kCases[which].name, cell(x.studioCpu, "%.4f").c_str());
      if (kCases[which].record)
        std::printf(", movie %s frames in %s s", cell(x.movieFrames, "%.0f").c_str(),
                    cell(x.movieSeconds, "%.2f").c_str());
      if (kCases[which].publish) std::printf(", sent %s/s", cell(x.publishFps, "%.2f").c_str());
      std::printf("%s%s\n", x.failure.empty() ? "" : " — ", x.failure.c_str());
      std::fflush(stdout);
      samples.push_back(std::move(x));
    }

  std::vector<Summary> summaries;
  for (size_t which = 0; which < kCaseCount; ++which)
    summaries.push_back(summarize(which, samples));
  const double phoneOnly = summaries[0].studioCpu;
  // The same case without the recording: what recording adds on top of whatever else runs.
  auto recorderShare = [&](const Summary& s) {
    if (!kCases[s.which].record) return double(NAN);
    for (const Summary& other : summaries)
      if (!kCases[other.which].record && kCases[other.which].publish == kCases[s.which].publish)
        return s.studioCpu - other.studioCpu;
    return double(NAN);
  };
  auto expected = [](const Summary& s) { return std::round(s.movieSeconds * kFps); };

  std::printf("\n%-10s %10s %10s %9s %6s %10s %8s %8s %7s %6s %6s %9s\n", "case", "studio s/s",
              "over phone", "recorder", "mix/s", "rec frames", "movie s", "expected", "dropped",
              "rec/s", "sent/s", "pub drops");
  for (const Summary& s : summaries) {
    if (s.measured == 0) {
      std::printf("%-10s not measured\n", kCases[s.which].name);
      continue;
    }
    std::printf("%-10s %10s %10s %9s %6s %10s %8s %8s %7s %6s %6s %9s\n", kCases[s.which].name,
                cell(s.studioCpu, "%.4f").c_str(),
                s.which == 0 ? "-" : cell(s.studioCpu - phoneOnly, "%+.4f").c_str(),
                cell(recorderShare(s), "%+.4f").c_str(), cell(s.mixFps, "%.2f").c_str(),
                cell(s.loggedFrames, "%.0f").c_str(), cell(s.movieSeconds, "%.2f").c_str(),
                cell(expected(s), "%.0f").c_str(), cell(s.droppedFrames, "%.0f").c_str(),
                cell(s.windowRecordFps, "%.2f").c_str(), cell(s.publishFps, "%.2f").c_str(),
                cell(s.backpressureDrops, "%.0f").c_str());
  }
  std::printf(
      "studio s/s: the studio's CPU seconds per second over %.0f s from %.0f s after the "
      "phone's first frame (1.0 = one core), median of the turns; over phone: the increment "
      "over the phone alone; recorder: the increment over the same case without recording.\n",
      settings.seconds, kSkipSeconds);
  std::printf(
      "mix/s: the mix's ticks per second in the window, from its own lines. rec frames: the "
      "pictures the recorder says it wrote (\"record finished … frames=N\"); movie s: the "
      "movie's video seconds per ffprobe; expected: those at %d/s; dropped: expected less the "
      "pictures ffprobe counts, over the whole movie, its start and the phone's arrival "
      "included; rec/s: the movie's pictures stamped inside the window, per "
      "second (the movie's zero taken from its \"recording\" line, good to a frame or so).\n",
      kFps);
  std::printf(
      "sent/s: frames the publisher sent per second in the window (its \"golive publish #N\" "
      "lines, read every %lld ms), which falls short of mix/s when its encoder can't keep up; "
      "pub drops: frames it dropped over the whole run because the "
      "socket backed up (the most its backpressure lines said).\n",
      static_cast<long long>(kWindowPollEvery.count()));

  // Where the studio's CPU goes, by thread name.
  std::vector<std::string> caseNames;
  std::vector<std::map<std::string, double>> threadCpu;
  for (const Summary& s : summaries) {
    caseNames.push_back(kCases[s.which].name);
    threadCpu.push_back(s.threadCpu);
  }
  printThreadTable(caseNames, threadCpu, kThreadShown);
  std::printf(
      "\nCPU s/s by thread name over all the windows, digits left out of the name; a thread "
      "that ended in a window is not counted.\n");

  if (!settings.jsonPath.empty()) {
    nlohmann::json j = runJson(settings, kSkipSeconds);
    j["phoneWidth"] = kWidth;
    j["phoneHeight"] = kHeight;
    j["fps"] = kFps;
    for (const Summary& s : summaries) {
      j["cases"].push_back({{"case", kCases[s.which].name},
                            {"record", kCases[s.which].record},
                            {"publish", kCases[s.which].publish},
                            {"measured", s.measured},
                            {"studioCpuPerSecond", jsonOf(s.studioCpu)},
                            {"overPhoneOnly", jsonOf(s.which == 0 ? NAN : s.studioCpu - phoneOnly)},
                            {"recorderCpuPerSecond", jsonOf(recorderShare(s))},
                            {"mixPerSecond", jsonOf(s.mixFps)},
                            {"recordedFrames", jsonOf(s.loggedFrames)},
                            {"movieFrames", jsonOf(s.movieFrames)},
                            {"movieSeconds", jsonOf(s.movieSeconds)},
                            {"expectedFrames", jsonOf(expected(s))},
                            {"droppedFrames", jsonOf(s.droppedFrames)},
                            {"recordedPerSecondInWindow", jsonOf(s.windowRecordFps)},
                            {"sentPerSecondInWindow", jsonOf(s.publishFps)},
                            {"publishBackpressureDrops", jsonOf(s.backpressureDrops)},
                            {"publishAudioOverflows", jsonOf(s.audioOverflows)},
                            {"threadCpuPerSecond", nlohmann::json(s.threadCpu)}});
    }
    for (const Sample& x : samples)
      j["samples"].push_back({{"case", kCases[x.which].name},
                              {"studioCpuPerSecond", jsonOf(x.studioCpu)},
                              {"windowSeconds", x.window},
                              {"mixPerSecond", jsonOf(x.mixFps)},
                              {"recordedFrames", jsonOf(x.loggedFrames)},
                              {"movieFrames", jsonOf(x.movieFrames)},
                              {"movieSeconds", jsonOf(x.movieSeconds)},
                              {"droppedFrames", jsonOf(x.droppedFrames)},
                              {"recordedPerSecondInWindow", jsonOf(x.windowRecordFps)},
                              {"sentPerSecondInWindow", jsonOf(x.publishFps)},
                              {"publishBackpressureDrops", jsonOf(x.backpressureDrops)},
                              {"publishAudioOverflows", jsonOf(x.audioOverflows)},
                              {"failure", x.failure}});
    if (!writeJson(j, settings.jsonPath, "qvn-bench-record")) return 1;
  }
  for (const Summary& s : summaries)
    if (s.measured == 0) return 1;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const auto taken = qvn::bench::takeJsonArgument(argc, argv, "qvn-bench-record");
  RunSettings settings{.seconds = 60, .repetitions = 1, .jsonPath = taken.jsonPath};
  if (!readRunOptions(taken.count, taken.args.data(), "qvn-bench-record", settings)) return 2;
  if (settings.seconds < 5 || settings.repetitions < 1) {
    std::fprintf(stderr, "qvn-bench-record: --seconds needs 5 or more, --repetitions 1 or more\n");
    return 2;
  }
  return runReporting("qvn-bench-record", [&] { return run(settings); });
}
