// What phones cost the studio: the headless studio as its own process, with 0, 1 and 2
// simulated phones (qvn-phone-sim --loop, 1280x720 at 30/s) on loopback, measured side by
// side in one run. Each case gets a fresh studio; the cases take turns, repetition after
// repetition, so a change in the machine's load falls on all of them alike. Per case:
//
//   - the studio's CPU seconds per second over a steady window: from 2 s after the last
//     phone's first frame (idle: after "Listening on:") for `--seconds` (10);
//   - the sims' CPU over the same window, and the frames they sent in it;
//   - from starting each sim to the studio's "cam N first frame" line, and from its offer
//     to that line (the studio's share: answer, ICE, DTLS, the first decode);
//   - the studio's CPU and threads a little after the phones said bye.
//
// Prints the medians, their ratios to the idle studio, and where the studio's CPU goes by
// thread; `--json FILE` also writes it. `--repetitions N` changes how many turns.
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
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_run.h"
#include "common/studio_run.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn::bench;
using namespace qvn::test;

constexpr int kWidth = 1280, kHeight = 720, kFps = 30;
constexpr int kCases[] = {0, 1, 2};
// The first seconds after the pictures arrive settle the decoder, the pools and the mix.
constexpr double kSkipSeconds = 2;
// After the phones say bye: time for the studio to let them go, then a short look.
constexpr double kAfterSettleSeconds = 2;
constexpr double kAfterSeconds = 3;
// Liveness bounds only.
constexpr double kByeSeconds = 10;
constexpr double kStopSeconds = 10;
// A thread under this in every case is folded into one line of the breakdown.
constexpr double kThreadShown = 0.002;

struct PhoneRun {
  std::string name;
  int slot = 0;
  double firstFrameMs = NAN;    // sim started -> "cam N first frame"
  double offerToFrameMs = NAN;  // "Cam N offer" -> "cam N first frame"
  double cpu = NAN;             // s/s over the window
  double sentFps = NAN;         // frames the sim pushed per second of the window
};

struct Sample {
  int phones = 0;
  double studioCpu = NAN;  // s/s over the window
  double mixTickMs = NAN;  // the mix's own average, from its lines in the window
  int mixTicks = 0;        // ticks those lines counted
  double mixSeconds = 0;   // and the seconds they covered
  int threads = 0;         // at the window's end
  double afterCpu = NAN;   // s/s a little after the phones said bye
  int afterThreads = 0;
  std::vector<PhoneRun> runs;
  std::map<std::string, double> threadCpu;  // CPU seconds by thread name, over the window
  double window = 0;
  std::string failure;
};

// Counts the frame-log lines stamped inside [from, to] (CLOCK_MONOTONIC, as steady_clock).
double framesIn(const fs::path& frameLog, Clock::time_point from, Clock::time_point to) {
  const double a = std::chrono::duration<double>(from.time_since_epoch()).count();
  const double b = std::chrono::duration<double>(to.time_since_epoch()).count();
  std::ifstream in(frameLog);
  long code = 0;
  double at = 0;
  int count = 0;
  while (in >> code >> at)
    if (at >= a && at <= b) ++count;
  return count;
}

Sample runCase(int phones, int repetition, const fs::path& work, const RunSettings& settings) {
  Sample sample{.phones = phones};
  const std::string tag = std::to_string(phones) + "-" + std::to_string(repetition);
  const fs::path root = work / ("root-" + tag), studioLog = work / ("studio-" + tag + ".log");
  const std::uint16_t port = freeLoopbackPorts(1).at(0);
  ChildProcess studio(studioCommand(port, root), studioLog, studioLog);
  LogTail log(studioLog);
  // Reads the log until `done` says so, the studio ends, `gaveUp` says so, or `limit` passes.
  auto waitFor = [&](double limit, auto&& done, auto&& gaveUp) {
    return pollUntil(
        studio, limit,
        [&] {
          for (const auto& line : log.poll())
            if (done(line)) return true;
          return false;
        },
        gaveUp);
  };
  const auto never = [] { return false; };

  if (!waitFor(
          kListenSeconds,
          [](const LogTail::Line& l) { return l.text.starts_with("Listening on:"); }, never)) {
    sample.failure = "the studio didn't listen: " + tailOf(studioLog);
    return sample;
  }

  // All phones at once, as when a crew switches their phones on together.
  std::vector<std::unique_ptr<ChildProcess>> sims;
  std::vector<Clock::time_point> startedAt;
  const double simSeconds = kFirstFrameSeconds + kSkipSeconds + settings.seconds + 30;
  for (int i = 0; i < phones; ++i) {
    PhoneRun& run = sample.runs.emplace_back();
    run.name = "bench-" + std::to_string(i + 1);
    const fs::path simLog = work / (run.name + "-" + tag + ".log");
    const fs::path frameLog = work / (run.name + "-" + tag + ".frames");
    startedAt.push_back(Clock::now());
    auto command = phoneSimCommand(port, kWidth, kHeight, kFps, run.name, int(simSeconds));
    command.insert(command.end(), {"--frame-log", frameLog.string()});
    sims.push_back(std::make_unique<ChildProcess>(command, simLog, simLog));
  }

  std::map<int, Clock::time_point> offers;
  int framesSeen = 0;
  const bool allFrames =
      phones == 0 ||
      waitFor(
          kFirstFrameSeconds,
          [&](const LogTail::Line& l) {
            for (PhoneRun& run : sample.runs)
              if (auto slot = numberBetween(l.text, "Cam ", " reserved for " + run.name);
                  slot && l.text.ends_with(" reserved for " + run.name))
                run.slot = int(*slot);
            if (auto slot = numberBetween(l.text, "Cam ", " offer m="))
              offers.try_emplace(int(*slot), l.seen);
            if (auto slot = numberBetween(l.text, "cam ", " first frame")) {
              for (size_t i = 0; i < sample.runs.size(); ++i) {
                PhoneRun& run = sample.runs[i];
                if (run.slot != *slot || !std::isnan(run.firstFrameMs)) continue;
                run.firstFrameMs = secondsOf(l.seen - startedAt[i]) * 1000;
                if (auto offer = offers.find(*slot); offer != offers.end())
                  run.offerToFrameMs = secondsOf(l.seen - offer->second) * 1000;
                ++framesSeen;
              }
            }
            return framesSeen == phones;
          },
          [&] {
            // A sim that has ended won't show a picture any more.
            return std::any_of(sims.begin(), sims.end(), [](auto& sim) { return !sim->running(); });
          });
  if (!allFrames) {
    sample.failure = std::to_string(framesSeen) + " of " + std::to_string(phones) +
                     " phones showed a picture: " + tailOf(studioLog);
    for (int i = 0; i < phones; ++i)
      if (!sims[size_t(i)]->running())
        sample.failure += " | " + sample.runs[size_t(i)].name + ": " +
                          tailOf(work / (sample.runs[size_t(i)].name + "-" + tag + ".log"));
    return sample;
  }

  // The steady window. Nothing on this side runs in it but two reads at its ends.
  std::this_thread::sleep_for(std::chrono::duration<double>(kSkipSeconds));
  log.poll();
  const auto threads0 = threadsOf(studio.pid());
  const auto studio0 = processCpuSeconds(studio.pid());
  std::vector<std::optional<double>> sims0;
  for (auto& sim : sims) sims0.push_back(sim->cpuSeconds());
  const auto from = Clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(settings.seconds));
  const auto to = Clock::now();
  const auto studio1 = processCpuSeconds(studio.pid());
  std::vector<std::optional<double>> sims1;
  for (auto& sim : sims) sims1.push_back(sim->cpuSeconds());
  const auto threads1 = threadsOf(studio.pid());
  sample.window = secondsOf(to - from);
  if (!studio0 || !studio1 || !studio.running()) {
    sample.failure = "the studio ended in the window: " + tailOf(studioLog);
    return sample;
  }
  sample.studioCpu = (*studio1 - *studio0) / sample.window;
  sample.threads = int(threads1.size());
  sample.threadCpu = threadCpuBetween(threads0, threads1);
  for (size_t i = 0; i < sims.size(); ++i) {
    PhoneRun& run = sample.runs[i];
    if (sims0[i] && sims1[i]) run.cpu = (*sims1[i] - *sims0[i]) / sample.window;
    run.sentFps = framesIn(work / (run.name + "-" + tag + ".frames"), from, to) / sample.window;
  }
  // The mix says how it did every 3 s; the lines that came out in the window.
  double tickMs = 0;
  for (const auto& line : log.poll()) {
    const auto at = line.text.find("mix tick 3s n=");
    if (at == std::string::npos) continue;
    int n = 0;
    double avg = 0;
    if (std::sscanf(line.text.c_str() + at, "mix tick 3s n=%d avg=%lfms", &n, &avg) != 2) continue;
    sample.mixTicks += n;
    sample.mixSeconds += 3;
    tickMs += avg * n;
  }
  if (sample.mixTicks > 0) sample.mixTickMs = tickMs / sample.mixTicks;

  // The phones say bye; what the studio keeps running after they have gone.
  if (phones > 0) {
    for (auto& sim : sims) sim->stop(SIGTERM, kByeSeconds);
    int gone = 0;
    waitFor(
        kByeSeconds,
        [&](const LogTail::Line& l) {
          return numberBetween(l.text, "Cam ", " disconnected") && ++gone == phones;
        },
        never);
    std::this_thread::sleep_for(std::chrono::duration<double>(kAfterSettleSeconds));
    const auto after0 = processCpuSeconds(studio.pid());
    const auto at0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(kAfterSeconds));
    const auto after1 = processCpuSeconds(studio.pid());
    if (after0 && after1) sample.afterCpu = (*after1 - *after0) / secondsOf(Clock::now() - at0);
    sample.afterThreads = int(threadsOf(studio.pid()).size());
    if (gone < phones) sample.failure = std::to_string(phones - gone) + " phones not seen to leave";
    for (size_t i = 0; i < sims.size(); ++i) {
      const int status = sims[i]->stop(SIGKILL, 0);
      if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        sample.failure += (sample.failure.empty() ? "" : "; ") + sample.runs[i].name +
                          " didn't leave cleanly: " +
                          tailOf(work / (sample.runs[i].name + "-" + tag + ".log"), 300);
    }
  }

  const int status = studio.stop(SIGTERM, kStopSeconds);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    sample.failure += (sample.failure.empty() ? "" : "; ") +
                      std::string("the studio didn't quit cleanly: ") + tailOf(studioLog, 300);
  return sample;
}

struct Summary {
  int phones = 0;
  double studioCpu = NAN, mixTickMs = NAN, simsCpu = NAN, sentFps = NAN;
  double afterCpu = NAN;
  double threads = NAN, afterThreads = NAN;
  std::vector<double> firstFrameMs, offerToFrameMs;  // per phone, in starting order
  std::map<std::string, double> threadCpu;           // s/s over all the windows
  int measured = 0;
};

Summary summarize(int phones, const std::vector<Sample>& samples) {
  Summary s{.phones = phones};
  std::vector<double> studio, mix, sims, sent, after, threads, afterThreads;
  std::vector<std::vector<double>> first(static_cast<size_t>(phones)),
      offer(static_cast<size_t>(phones));
  double windows = 0;
  for (const Sample& x : samples) {
    if (x.phones != phones || std::isnan(x.studioCpu)) continue;
    ++s.measured;
    studio.push_back(x.studioCpu);
    mix.push_back(x.mixTickMs);
    threads.push_back(x.threads);
    double simCpu = 0, minSent = INFINITY;
    for (size_t i = 0; i < x.runs.size(); ++i) {
      simCpu += x.runs[i].cpu;
      minSent = std::min(minSent, x.runs[i].sentFps);
      first[i].push_back(x.runs[i].firstFrameMs);
      offer[i].push_back(x.runs[i].offerToFrameMs);
    }
    if (phones > 0) {
      sims.push_back(simCpu);
      sent.push_back(minSent);
      after.push_back(x.afterCpu);
      afterThreads.push_back(x.afterThreads);
    }
    for (const auto& [name, cpu] : x.threadCpu) s.threadCpu[name] += cpu;
    windows += x.window;
  }
  for (auto& [name, cpu] : s.threadCpu) cpu /= windows;
  s.studioCpu = median(studio);
  s.mixTickMs = median(mix);
  s.threads = median(threads);
  if (phones > 0) {
    s.simsCpu = median(sims);
    s.sentFps = median(sent);
    s.afterCpu = median(after);
    s.afterThreads = median(afterThreads);
  }
  for (int i = 0; i < phones; ++i) {
    s.firstFrameMs.push_back(median(first[size_t(i)]));
    s.offerToFrameMs.push_back(median(offer[size_t(i)]));
  }
  return s;
}

std::string cells(const std::vector<double>& values, const char* format) {
  if (values.empty()) return "-";
  std::string text;
  for (double v : values) text += (text.empty() ? "" : " ") + cell(v, format);
  return text;
}

std::string caseName(int phones) {
  return phones == 0 ? "idle" : std::to_string(phones) + (phones == 1 ? " phone" : " phones");
}

using qvn::bench::jsonOf;

nlohmann::json jsonOf(const std::vector<double>& values) {
  nlohmann::json j = nlohmann::json::array();
  for (double v : values) j.push_back(jsonOf(v));
  return j;
}

int run(const RunSettings& settings) {
  const TempDir temp("phones-bench");
  const fs::path& work = temp.path;

  std::printf(
      "qvn-bench-phones: the headless studio with 0, 1 and 2 phones (%dx%d at %d/s, looped), "
      "a fresh studio per case, the cases in turn %d times, %.0f s windows\n",
      kWidth, kHeight, kFps, settings.repetitions, settings.seconds);
  std::fflush(stdout);

  std::vector<Sample> samples;
  for (int repetition = 1; repetition <= settings.repetitions; ++repetition)
    for (int phones : kCases) {
      Sample sample = runCase(phones, repetition, work, settings);
      std::printf("  %d/%d %-9s studio %s s/s, first frames %s ms%s%s\n", repetition,
                  settings.repetitions, caseName(phones).c_str(),
                  cell(sample.studioCpu, "%.4f").c_str(),
                  cells(
                      [&] {
                        std::vector<double> v;
                        for (const PhoneRun& r : sample.runs) v.push_back(r.firstFrameMs);
                        return v;
                      }(),
                      "%.0f")
                      .c_str(),
                  sample.failure.empty() ? "" : " — ", sample.failure.c_str());
      std::fflush(stdout);
      samples.push_back(std::move(sample));
    }

  std::vector<Summary> summaries;
  for (int phones : kCases) summaries.push_back(summarize(phones, samples));
  const double idle = summaries[0].studioCpu;
  auto perPhone = [&](const Summary& s) {
    return s.phones == 0 ? NAN : (s.studioCpu - idle) / s.phones;
  };

  std::printf("\n%-9s %9s %8s %10s %8s %9s %8s %14s %14s %8s %10s %8s\n", "case", "studio s/s",
              "x idle", "per phone", "mix ms", "sims s/s", "sent/s", "first frame ms",
              "offer→frame ms", "threads", "after s/s", "after th");
  for (const Summary& s : summaries) {
    if (s.measured == 0) {
      std::printf("%-9s not measured\n", caseName(s.phones).c_str());
      continue;
    }
    std::printf("%-9s %10s %8s %10s %8s %9s %8s %14s %14s %8s %10s %8s\n",
                caseName(s.phones).c_str(), cell(s.studioCpu, "%.4f").c_str(),
                cell(s.studioCpu / idle, "%.1f").c_str(), cell(perPhone(s), "%.4f").c_str(),
                cell(s.mixTickMs, "%.2f").c_str(), cell(s.simsCpu, "%.4f").c_str(),
                cell(s.sentFps, "%.1f").c_str(), cells(s.firstFrameMs, "%.0f").c_str(),
                cells(s.offerToFrameMs, "%.0f").c_str(), cell(s.threads, "%.0f").c_str(),
                cell(s.afterCpu, "%.4f").c_str(), cell(s.afterThreads, "%.0f").c_str());
  }
  std::printf(
      "studio s/s: the studio's CPU seconds per second over %.0f s from %.0f s after the last "
      "first frame (idle: after \"Listening on:\"), median of the turns; x idle: over the idle "
      "studio's; per phone: the increment over idle per phone.\n",
      settings.seconds, kSkipSeconds);
  std::printf(
      "mix ms: the mix's own average tick from its log in the window. sims s/s: all sims "
      "together over the window; sent/s: frames the slowest sim pushed per second in it.\n");
  std::printf(
      "first frame ms: from starting each sim (all at once) to the studio's \"cam N first "
      "frame\" line, per phone; offer→frame: from the studio logging the phone's offer to that "
      "line (the sim's start-up and loop encoding left out); both read every %lld ms.\n",
      static_cast<long long>(kPollEvery.count()));
  std::printf(
      "threads: the studio's at the window's end; after s/s, after th: its CPU over %.0f s and "
      "its threads, from %.0f s after the phones said bye.\n",
      kAfterSeconds, kAfterSettleSeconds);

  // Where the studio's CPU goes, by thread name.
  std::vector<std::string> caseNames;
  std::vector<std::map<std::string, double>> threadCpu;
  for (const Summary& s : summaries) {
    caseNames.push_back(caseName(s.phones));
    threadCpu.push_back(s.threadCpu);
  }
  printThreadTable(caseNames, threadCpu, kThreadShown);
  std::printf(
      "\nCPU s/s by thread name over all the windows, digits left out of the name (one row "
      "adds up the same element of every pipeline); a thread that ended in a window is not "
      "counted.\n");

  if (!settings.jsonPath.empty()) {
    nlohmann::json j = runJson(settings, kSkipSeconds);
    j["width"] = kWidth;
    j["height"] = kHeight;
    j["fps"] = kFps;
    for (const Summary& s : summaries) {
      j["cases"].push_back({{"phones", s.phones},
                            {"measured", s.measured},
                            {"studioCpuPerSecond", jsonOf(s.studioCpu)},
                            {"overIdle", jsonOf(s.studioCpu / idle)},
                            {"perPhoneCpuPerSecond", jsonOf(perPhone(s))},
                            {"mixTickMs", jsonOf(s.mixTickMs)},
                            {"simsCpuPerSecond", jsonOf(s.simsCpu)},
                            {"slowestSimSentPerSecond", jsonOf(s.sentFps)},
                            {"firstFrameMs", jsonOf(s.firstFrameMs)},
                            {"offerToFirstFrameMs", jsonOf(s.offerToFrameMs)},
                            {"threads", jsonOf(s.threads)},
                            {"afterByeCpuPerSecond", jsonOf(s.afterCpu)},
                            {"afterByeThreads", jsonOf(s.afterThreads)},
                            {"threadCpuPerSecond", nlohmann::json(s.threadCpu)}});
    }
    for (const Sample& x : samples) {
      nlohmann::json runs = nlohmann::json::array();
      for (const PhoneRun& r : x.runs)
        runs.push_back({{"name", r.name},
                        {"slot", r.slot},
                        {"firstFrameMs", jsonOf(r.firstFrameMs)},
                        {"offerToFirstFrameMs", jsonOf(r.offerToFrameMs)},
                        {"cpuPerSecond", jsonOf(r.cpu)},
                        {"sentPerSecond", jsonOf(r.sentFps)}});
      j["samples"].push_back({{"phones", x.phones},
                              {"studioCpuPerSecond", jsonOf(x.studioCpu)},
                              {"mixTickMs", jsonOf(x.mixTickMs)},
                              {"mixTicks", x.mixTicks},
                              {"mixSeconds", x.mixSeconds},
                              {"windowSeconds", x.window},
                              {"threads", x.threads},
                              {"afterByeCpuPerSecond", jsonOf(x.afterCpu)},
                              {"afterByeThreads", x.afterThreads},
                              {"phoneRuns", runs},
                              {"failure", x.failure}});
    }
    if (!writeJson(j, settings.jsonPath, "qvn-bench-phones")) return 1;
  }
  for (const Summary& s : summaries)
    if (s.measured == 0) return 1;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  RunSettings settings{.seconds = 10, .repetitions = 3};
  if (!readRunOptions(argc, argv, "qvn-bench-phones", settings)) return 2;
  if (settings.seconds < 1 || settings.repetitions < 1) {
    std::fprintf(stderr, "qvn-bench-phones: --seconds and --repetitions need 1 or more\n");
    return 2;
  }
  return runReporting("qvn-bench-phones", [&] { return run(settings); });
}
