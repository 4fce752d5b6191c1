// A whole show on this machine, measured: nginx as the ingest, the headless studio cutting and
// fading between simulated phones every few seconds with the inset on, publishing 6 Mb/s and,
// in some cases, recording 1080p H.264 at the same time. Three cases side by side in one run,
// each with a fresh studio:
//
//   - 2 phones at 720p30, publishing;
//   - the same, also recording;
//   - 4 phones (two 720p30, two 1080p30), publishing and recording.
//
// The window runs from one of the studio's health lines to the one `--seconds` (60) later, so
// its counters cover the window exactly. Per case: the studio's CPU as a share of one core
// (the machine has two: 200 %), the mix tick's p50 (median of its 3 s lines), p95 (the worst)
// and longest; the ticks that went out late, pictures the publisher and the recorder dropped
// and sound the buses overran, from the health lines; the studio's resident memory at both
// ends; and the latency from a phone pushing a frame to the same frame read back from the
// ingest (ffmpeg playing the stream from nginx, the frame code read off each picture).
//
// Prints one table and, with --json FILE, writes it.
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
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

struct Case {
  const char* name;
  std::vector<PhoneShape> phones;
  bool record;
};
const std::vector<Case> kCases = {
    {"2 phones, publish", {{1280, 720}, {1280, 720}}, false},
    {"2 phones, publish + record", {{1280, 720}, {1280, 720}}, true},
    {"4 phones, publish + record", {{1280, 720}, {1280, 720}, {1920, 1080}, {1920, 1080}}, true},
};

// Liveness bounds only.
constexpr double kPhonesSeconds = 60;
constexpr double kHealthSeconds = 15;

struct Result {
  std::string name;
  double cpuPercent = NAN;
  double tickP50 = NAN, tickP95 = NAN, tickMax = NAN;
  long lateTicks = 0, publishDropped = 0, recordDropped = 0, audioOverruns = 0;
  double rssStart = NAN, rssEnd = NAN;
  double latencyMedian = NAN, latencyP95 = NAN;
  size_t latencyCount = 0;
  double streamFps = NAN;
  std::string failure;
};

Result runCase(const Case& c, size_t which, const fs::path& work, NginxIngest& ingest,
               double seconds) {
  Result r{.name = c.name};
  const std::string tag = std::to_string(which + 1);
  const double bound = kListenSeconds + kPhonesSeconds + 2 * kHealthSeconds + seconds + 30;
  const std::string url = ingest.rtmpURL() + "/show-" + tag;
  std::optional<fs::path> movie;
  if (c.record) movie = work / ("show-" + tag + ".mp4");
  ShowStudio studio(work, tag, url, movie, bound);
  for (size_t i = 0; i < c.phones.size(); ++i) studio.addPhone(int(i), c.phones[i], bound);
  if (!studio.waitFor(kPhonesSeconds, [&] {
        return studio.firstFrames() >= int(c.phones.size()) && studio.publishing();
      })) {
    r.failure = std::to_string(studio.firstFrames()) + " phones on, " +
                (studio.publishing() ? "publishing" : "not publishing") + ": " + studio.logTail();
    return r;
  }
  std::this_thread::sleep_for(std::chrono::seconds(3));
  StreamReader reader(url, work, tag);
  // The window opens at a health line and closes at the first one `seconds` later.
  auto nextHealth = [&] {
    const size_t seen = studio.health().size();
    return studio.waitFor(kHealthSeconds, [&] { return studio.health().size() > seen; });
  };
  if (!nextHealth()) {
    r.failure = "no health line: " + studio.logTail();
    return r;
  }
  // The studio's counters, CPU and memory at one of its health lines.
  struct Look {
    ShowStudio::SeenHealth line;
    std::optional<double> cpu;
    double rss;
  };
  auto look = [&] {
    return Look{studio.health().back(), processCpuSeconds(studio.pid()),
                residentMiB(studio.pid()).value_or(NAN)};
  };
  const Look first = look();
  while (studio.health().back().at < first.line.at + seconds - 1)
    if (!nextHealth()) {
      r.failure = "the studio stopped reporting: " + studio.logTail();
      return r;
    }
  const Look last = look();
  const auto& start = first.line;
  const auto& end = last.line;
  r.rssStart = first.rss;
  r.rssEnd = last.rss;
  const double window = end.at - start.at;
  if (first.cpu && last.cpu) r.cpuPercent = (*last.cpu - *first.cpu) / window * 100;
  r.lateTicks = end.health.lateTicks - start.health.lateTicks;
  r.publishDropped = end.health.publishDropped - start.health.publishDropped;
  r.recordDropped = end.health.recordDropped - start.health.recordDropped;
  r.audioOverruns = end.health.audioOverruns - start.health.audioOverruns;

  std::vector<double> p50, p95, longest;
  for (const auto& t : studio.ticks())
    if (t.at > start.at && t.at <= end.at) {
      p50.push_back(t.tick.p50);
      p95.push_back(t.tick.p95);
      longest.push_back(t.tick.max);
    }
  r.tickP50 = median(p50);
  r.tickP95 = p95.empty() ? NAN : *std::max_element(p95.begin(), p95.end());
  r.tickMax = longest.empty() ? NAN : *std::max_element(longest.begin(), longest.end());

  const auto pictures = reader.pictures();
  const auto latencies = latenciesMs(pictures, studio.pushTimes(), start.at, end.at);
  r.latencyMedian = median(latencies);
  r.latencyP95 = percentile(latencies, 0.95);
  r.latencyCount = latencies.size();
  r.streamFps = double(std::count_if(
                    pictures.begin(), pictures.end(),
                    [&](const ReadPicture& p) { return p.at > start.at && p.at <= end.at; })) /
                window;
  if (pictures.empty())
    r.failure = "nothing came back from the ingest: " + tailOf(work / ("stream-" + tag + ".log"));
  if (!studio.quit()) r.failure = "the studio had to be killed at the end";
  return r;
}

void printTable(const std::vector<Result>& results) {
  std::printf("\n%-28s %6s %6s %6s %7s %5s %5s %5s %5s %7s %7s %8s %8s %6s\n", "case", "CPU%",
              "p50ms", "p95ms", "maxms", "late", "pubdr", "recdr", "audov", "RSS0MiB", "RSS1MiB",
              "lat50ms", "lat95ms", "fps");
  for (const auto& r : results) {
    if (!r.failure.empty()) {
      std::printf("%-28s failed: %s\n", r.name.c_str(), r.failure.c_str());
      continue;
    }
    std::printf("%-28s %6s %6s %6s %7s %5ld %5ld %5ld %5ld %7s %7s %8s %8s %6s\n", r.name.c_str(),
                cell(r.cpuPercent, "%.0f").c_str(), cell(r.tickP50, "%.2f").c_str(),
                cell(r.tickP95, "%.2f").c_str(), cell(r.tickMax, "%.1f").c_str(), r.lateTicks,
                r.publishDropped, r.recordDropped, r.audioOverruns,
                cell(r.rssStart, "%.0f").c_str(), cell(r.rssEnd, "%.0f").c_str(),
                cell(r.latencyMedian, "%.0f").c_str(), cell(r.latencyP95, "%.0f").c_str(),
                cell(r.streamFps, "%.1f").c_str());
  }
  std::printf(
      "\nCPU%% is of one core (the machine has 200%%); late, pubdr, recdr and audov count "
      "late mix ticks, pictures the publisher and the recorder dropped, and sound the "
      "buses overran, in the window; lat is phone → ingest (read back with ffmpeg).\n");
}

nlohmann::json resultJson(const Result& r) {
  return {{"case", r.name},
          {"failure", r.failure},
          {"cpuPercent", jsonOf(r.cpuPercent)},
          {"tickP50Ms", jsonOf(r.tickP50)},
          {"tickP95Ms", jsonOf(r.tickP95)},
          {"tickMaxMs", jsonOf(r.tickMax)},
          {"lateTicks", r.lateTicks},
          {"publisherDrops", r.publishDropped},
          {"recorderDrops", r.recordDropped},
          {"audioOverruns", r.audioOverruns},
          {"rssStartMiB", jsonOf(r.rssStart)},
          {"rssEndMiB", jsonOf(r.rssEnd)},
          {"latencyMedianMs", jsonOf(r.latencyMedian)},
          {"latencyP95Ms", jsonOf(r.latencyP95)},
          {"latencyPictures", r.latencyCount},
          {"streamFps", jsonOf(r.streamFps)}};
}

}  // namespace

int main(int argc, char** argv) {
  return runReporting(argv[0], [&] {
    RunSettings settings{.seconds = 60, .repetitions = 1};
    if (!readRunOptions(argc, argv, argv[0], settings)) return 2;
    TempDir work("show");
    NginxIngest ingest;
    std::vector<Result> results;
    for (int rep = 0; rep < settings.repetitions; ++rep)
      for (size_t i = 0; i < kCases.size(); ++i) {
        std::fprintf(stderr, "%s…\n", kCases[i].name);
        const fs::path turn = work.path / std::to_string(rep);
        fs::create_directories(turn);
        results.push_back(runCase(kCases[i], i, turn, ingest, settings.seconds));
      }
    printTable(results);
    if (!settings.jsonPath.empty()) {
      nlohmann::json j = runJson(settings, 0);
      for (const auto& r : results) j["cases"].push_back(resultJson(r));
      if (!writeJson(j, settings.jsonPath, argv[0])) return 1;
    }
    return 0;
  });
}
