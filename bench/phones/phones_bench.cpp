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
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn::test;
using Clock = std::chrono::steady_clock;

constexpr int kWidth = 1280, kHeight = 720, kFps = 30;
constexpr int kCases[] = {0, 1, 2};
// The first seconds after the pictures arrive settle the decoder, the pools and the mix.
constexpr double kSkipSeconds = 2;
// After the phones say bye: time for the studio to let them go, then a short look.
constexpr double kAfterSettleSeconds = 2;
constexpr double kAfterSeconds = 3;
// How often the studio's log is read while waiting for a line: the figures in ms are this
// coarse, and the studio's own real-time lines may come up to 20 ms late.
constexpr auto kPollEvery = std::chrono::milliseconds(2);
// Liveness bounds only.
constexpr double kListenSeconds = 20;
constexpr double kFirstFrameSeconds = 30;
constexpr double kByeSeconds = 10;
constexpr double kStopSeconds = 10;
// A thread under this in every case is folded into one line of the breakdown.
constexpr double kThreadShown = 0.002;

struct Settings {
  double seconds = 10;
  int repetitions = 3;
  std::string jsonPath;
};

double secondsOf(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

double median(std::vector<double> values) {
  std::erase_if(values, [](double v) { return std::isnan(v); });
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  const size_t n = values.size();
  return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The number right after `prefix` in `line`, when `suffix` follows it.
std::optional<int> numberBetween(std::string_view line, std::string_view prefix,
                                 std::string_view suffix) {
  const auto at = line.find(prefix);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view rest = line.substr(at + prefix.size());
  int value = 0;
  size_t digits = 0;
  while (digits < rest.size() && rest[digits] >= '0' && rest[digits] <= '9')
    value = value * 10 + (rest[digits++] - '0');
  if (digits == 0 || !rest.substr(digits).starts_with(suffix)) return std::nullopt;
  return value;
}

// The studio's log as it grows, each line stamped with when this side first saw it.
class LogTail {
 public:
  explicit LogTail(fs::path file) : file_(std::move(file)) {}

  struct Line {
    std::string text;
    Clock::time_point seen;
  };

  // Reads what was added since the last call; the new complete lines.
  std::vector<Line> poll() {
    std::vector<Line> lines;
    std::ifstream in(file_, std::ios::binary);
    if (!in) return lines;
    in.seekg(std::streamoff(offset_));
    std::string chunk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    offset_ += chunk.size();
    partial_ += chunk;
    const auto now = Clock::now();
    for (size_t end; (end = partial_.find('\n')) != std::string::npos;) {
      lines.push_back({partial_.substr(0, end), now});
      partial_.erase(0, end + 1);
    }
    all_.insert(all_.end(), lines.begin(), lines.end());
    return lines;
  }
  const std::vector<Line>& all() const { return all_; }

 private:
  fs::path file_;
  size_t offset_ = 0;
  std::string partial_;
  std::vector<Line> all_;
};

struct ThreadSample {
  std::string name;
  double cpu = 0;
};

// Every live thread of `pid`: its name with the digits left out, so the same GStreamer
// element in two pipelines adds up ("queue3:src" and "queue5:src" are both "queue:src"),
// and its time on a CPU.
std::map<std::string, ThreadSample> threadsOf(pid_t pid) {
  std::map<std::string, ThreadSample> threads;
  std::error_code error;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task", error)) {
    std::string name = readText(task.path() / "comm");
    std::erase_if(name, [](char c) { return c == '\n' || (c >= '0' && c <= '9'); });
    std::ifstream stat(task.path() / "schedstat");
    double ns = 0;
    if (!(stat >> ns)) continue;
    threads[task.path().filename().string()] = {name, ns * 1e-9};
  }
  return threads;
}

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

std::string tailOf(const fs::path& file, size_t bytes = 600) {
  const std::string text = readText(file);
  return text.size() > bytes ? "…" + text.substr(text.size() - bytes) : text;
}

Sample runCase(int phones, int repetition, const fs::path& work, const Settings& settings) {
  Sample sample{.phones = phones};
  const std::string tag = std::to_string(phones) + "-" + std::to_string(repetition);
  const fs::path root = work / ("root-" + tag), studioLog = work / ("studio-" + tag + ".log");
  const std::uint16_t port = freeLoopbackPorts(1).at(0);
  ChildProcess studio({QVN_STUDIO, "--headless", "--phones", "--phone-port", std::to_string(port),
                       "--phone-local-addr", "127.0.0.1", "--data-root", root.string()},
                      studioLog, studioLog);
  LogTail log(studioLog);
  // Reads the log until `done` says so, the studio ends, `gaveUp` says so, or `limit` passes.
  auto waitFor = [&](double limit, auto&& done, auto&& gaveUp) {
    const auto deadline = Clock::now() + std::chrono::duration<double>(limit);
    for (;;) {
      for (const auto& line : log.poll())
        if (done(line)) return true;
      if (!studio.running() || gaveUp() || Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(kPollEvery);
    }
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
    sims.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{QVN_PHONE_SIM, "--studio", "127.0.0.1:" + std::to_string(port),
                                 "--local-addr", "127.0.0.1", "--size",
                                 std::to_string(kWidth) + "x" + std::to_string(kHeight), "--fps",
                                 std::to_string(kFps), "--loop", "--name", run.name, "--for",
                                 std::to_string(int(simSeconds)), "--frame-log", frameLog.string()},
        simLog, simLog));
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
                run.slot = *slot;
            if (auto slot = numberBetween(l.text, "Cam ", " offer m="))
              offers.try_emplace(*slot, l.seen);
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
  for (const auto& [tid, thread] : threads1) {
    const auto before = threads0.find(tid);
    sample.threadCpu[thread.name] +=
        thread.cpu - (before == threads0.end() ? 0 : before->second.cpu);
  }
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

std::string cell(double v, const char* format) {
  if (std::isnan(v)) return "-";
  char text[32];
  std::snprintf(text, sizeof text, format, v);
  return text;
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

nlohmann::json jsonOf(double v) {
  return std::isnan(v) ? nlohmann::json(nullptr) : nlohmann::json(v);
}

nlohmann::json jsonOf(const std::vector<double>& values) {
  nlohmann::json j = nlohmann::json::array();
  for (double v : values) j.push_back(jsonOf(v));
  return j;
}

int run(const Settings& settings) {
  const fs::path work = makeTempDir("phones-bench");
  struct Cleanup {
    fs::path dir;
    ~Cleanup() {
      std::error_code ignored;
      fs::remove_all(dir, ignored);
    }
  } cleanup{work};

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
  std::map<std::string, double> largest;
  for (const Summary& s : summaries)
    for (const auto& [name, cpu] : s.threadCpu) largest[name] = std::max(largest[name], cpu);
  std::vector<std::string> shown;
  for (const auto& [name, cpu] : largest)
    if (cpu >= kThreadShown) shown.push_back(name);
  const Summary& most = summaries.back();
  std::sort(shown.begin(), shown.end(), [&](const std::string& a, const std::string& b) {
    const auto x = most.threadCpu.find(a), y = most.threadCpu.find(b);
    return (x == most.threadCpu.end() ? 0 : x->second) >
           (y == most.threadCpu.end() ? 0 : y->second);
  });
  std::printf("\n%-18s", "studio thread");
  for (const Summary& s : summaries) std::printf(" %10s", caseName(s.phones).c_str());
  std::printf("\n");
  auto cpuOf = [](const Summary& s, const std::string& name) {
    const auto it = s.threadCpu.find(name);
    return it == s.threadCpu.end() ? 0.0 : it->second;
  };
  for (const std::string& name : shown) {
    std::printf("%-18s", name.c_str());
    for (const Summary& s : summaries) std::printf(" %10.4f", cpuOf(s, name));
    std::printf("\n");
  }
  std::printf("%-18s", "(the rest)");
  for (const Summary& s : summaries) {
    double rest = 0;
    for (const auto& [name, cpu] : s.threadCpu)
      if (std::find(shown.begin(), shown.end(), name) == shown.end()) rest += cpu;
    std::printf(" %10.4f", rest);
  }
  std::printf(
      "\nCPU s/s by thread name over all the windows, digits left out of the name (one row "
      "adds up the same element of every pipeline); a thread that ended in a window is not "
      "counted.\n");

  if (!settings.jsonPath.empty()) {
    nlohmann::json j;
    j["width"] = kWidth;
    j["height"] = kHeight;
    j["fps"] = kFps;
    j["windowSeconds"] = settings.seconds;
    j["skipSeconds"] = kSkipSeconds;
    j["repetitions"] = settings.repetitions;
    for (const Summary& s : summaries) {
      nlohmann::json threads = nlohmann::json::object();
      for (const auto& [name, cpu] : s.threadCpu) threads[name] = cpu;
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
                            {"threadCpuPerSecond", threads}});
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
    std::ofstream out(settings.jsonPath);
    out << j.dump(2) << "\n";
    if (!out.flush()) {
      std::fprintf(stderr, "qvn-bench-phones: can't write %s\n", settings.jsonPath.c_str());
      return 1;
    }
  }
  for (const Summary& s : summaries)
    if (s.measured == 0) return 1;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "qvn-bench-phones: %s needs a value\n", arg.c_str());
        std::exit(2);
      }
      return argv[++i];
    };
    try {
      if (arg == "--json")
        settings.jsonPath = value();
      else if (arg == "--seconds")
        settings.seconds = std::stod(value());
      else if (arg == "--repetitions")
        settings.repetitions = std::stoi(value());
      else
        throw std::invalid_argument(arg);
    } catch (const std::exception&) {
      std::fprintf(stderr,
                   "usage: qvn-bench-phones [--seconds N] [--repetitions N] [--json FILE]\n");
      return 2;
    }
  }
  if (settings.seconds < 1 || settings.repetitions < 1) {
    std::fprintf(stderr, "qvn-bench-phones: --seconds and --repetitions need 1 or more\n");
    return 2;
  }
  try {
    return run(settings);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qvn-bench-phones: %s\n", e.what());
    return 1;
  }
}
