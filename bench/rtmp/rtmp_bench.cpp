// Publishing a camera's stream through RTMPSocket to nginx on loopback, measured side by
// side with ffmpeg sending the same file (`ffmpeg -re -i FILE -c copy -f flv URL`):
//
//   (a)  CPU seconds per second of stream at 6 Mb/s: real H.264 frames padded to ~25 KB at
//        30/s with AAC, for ten seconds each; steady (after the first second) and whole
//        (connect to close, or ffmpeg's whole life);
//   (b)  the largest video message the client keeps up with at 30/s: sizes doubled from
//        (a)'s until what waits to be sent grows, a couple of seconds each.
//
// Prints a table; `--json FILE` also writes it. `--seconds N` and `--step-seconds N` change
// the lengths. Loopback has no bandwidth limit to speak of, so (b) finds where the client's
// (or nginx's) CPU runs out, not the network.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/bench_run.h"
#include "golive/flv_tags.h"
#include "golive/nginx_ingest.h"
#include "golive/paced_publisher.h"
#include "testing/child_process.h"

namespace {

namespace fs = std::filesystem;
using namespace qvn;
using namespace qvn::test;
using Clock = std::chrono::steady_clock;

constexpr double kStreamBitsPerSecond = 6'000'000;
constexpr int kFramesPerSecond = 30;
// Liveness bounds only.
constexpr double kDecideSeconds = 30;
constexpr double kProgramSeconds = 60;
constexpr double kDrainSeconds = 10;
// Past this much waiting to be sent a step has plainly lost, and memory is spared.
constexpr std::int64_t kGiveUpPending = 64 << 20;
// A message can't be longer than its 24-bit length field allows.
constexpr std::size_t kLargestMessage = (1 << 24) - 1;
// Keeping up: before each video message, no more than this many of them wait to be sent,
// and none goes out later than this against its timestamp.
constexpr int kKeptUpMessages = 4;
constexpr double kKeptUpLagSeconds = 0.25;

struct Settings {
  double seconds = 10;
  double stepSeconds = 2;
  std::string jsonPath;
};

double processCpu() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec * 1e-6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec * 1e-6;
}

double threadCpu() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return ts.tv_sec + ts.tv_nsec * 1e-9;
}

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

struct CpuRow {
  std::string name;
  double streamSeconds = 0;
  double steadyCpu = 0;             // CPU s per s over the steady window
  double wholeCpu = 0;              // CPU s per s of stream, start to end
  double publisherThreadCpu = NAN;  // ours only: the sending thread's share, steady
  double nginxCpu = 0;              // nginx's CPU s per s over the same steady window
  std::int64_t maxPending = -1;
};

struct StepRow {
  std::size_t videoBytes = 0;
  double offeredMbps = 0;
  double takenMbps = 0;
  std::int64_t maxPending = 0;
  double maxLagMs = 0;
  bool keptUp = false;
  std::string note;
};

void waitForDrain(Publication& publication) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(kDrainSeconds);
  while (publication.socket().sendCounters().pending > 0 && Clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

// (a) for RTMPSocket: published from this thread, as the client's owner would.
CpuRow measureClient(NginxIngest& ingest, const FlvClip& stream, const Settings& settings) {
  CpuRow row{.name = "RTMPSocket"};
  const double cpuStart = processCpu();
  Publication publication(ingest.rtmpURL(), "bench-client");
  if (publication.waitUntilDecided(kDecideSeconds) != Publication::Outcome::ready)
    throw std::runtime_error("the client didn't get to publish: " + publication.failure());
  publication.socket().setStreamRate(std::int64_t(stream.bitsPerSecond()));

  std::optional<double> steadyCpu, steadyThread, steadyNginx;
  Clock::time_point steadyAt;
  PaceOptions options;
  options.maxSeconds = settings.seconds;
  options.beforeSend = [&](const PaceTick& tick) {
    if (!steadyCpu && tick.timestamp >= 1000) {
      steadyCpu = processCpu();
      steadyThread = threadCpu();
      steadyNginx = processCpuSeconds(ingest.pid());
      steadyAt = Clock::now();
    }
    row.maxPending = std::max(row.maxPending, publication.socket().sendCounters().pending);
    return publication.failureCount() == 0;
  };
  const PaceResult paced = publishPaced(publication.socket(), stream, options);
  const double wall = seconds(Clock::now() - steadyAt);
  const double cpuEnd = processCpu(), threadEnd = threadCpu();
  const auto nginxEnd = processCpuSeconds(ingest.pid());
  waitForDrain(publication);
  publication.close();
  if (publication.failureCount() > 0)
    throw std::runtime_error("the client failed while publishing: " + publication.failure());
  row.streamSeconds = paced.streamSeconds;
  if (steadyCpu && wall > 0) {
    row.steadyCpu = (cpuEnd - *steadyCpu) / wall;
    row.publisherThreadCpu = (threadEnd - *steadyThread) / wall;
    if (steadyNginx && nginxEnd) row.nginxCpu = (*nginxEnd - *steadyNginx) / wall;
  }
  row.wholeCpu = (processCpu() - cpuStart) / settings.seconds;
  return row;
}

// (a) for ffmpeg: the same stream from a file, read at its own pace.
CpuRow measureFfmpeg(NginxIngest& ingest, const std::string& ffmpeg, const fs::path& file,
                     const fs::path& work, const Settings& settings) {
  CpuRow row{.name = "ffmpeg -c copy"};
  ChildProcess child({ffmpeg, "-nostdin", "-v", "error", "-re", "-i", file.string(), "-c", "copy",
                      "-f", "flv", ingest.rtmpURL() + "/bench-ffmpeg"},
                     work / "ffmpeg.out", work / "ffmpeg.err");
  const auto started = Clock::now();
  // The steady window: from a second in to half a second before the file ends.
  std::this_thread::sleep_until(started + std::chrono::seconds(1));
  const auto cpu0 = child.cpuSeconds();
  const auto nginx0 = processCpuSeconds(ingest.pid());
  const auto at0 = Clock::now();
  std::this_thread::sleep_until(started + std::chrono::duration<double>(settings.seconds - 0.5));
  const auto cpu1 = child.cpuSeconds();
  const auto nginx1 = processCpuSeconds(ingest.pid());
  const double wall = seconds(Clock::now() - at0);
  const auto status = child.wait(settings.seconds + kProgramSeconds);
  if (!status) child.stop(SIGKILL, 10);
  if (!status || !WIFEXITED(*status) || WEXITSTATUS(*status) != 0 || !cpu0 || !cpu1) {
    std::ifstream err(work / "ffmpeg.err");
    std::string text((std::istreambuf_iterator<char>(err)), std::istreambuf_iterator<char>());
    throw std::runtime_error("ffmpeg didn't publish the file: " + text);
  }
  row.streamSeconds = settings.seconds;
  row.steadyCpu = (*cpu1 - *cpu0) / wall;
  if (nginx0 && nginx1) row.nginxCpu = (*nginx1 - *nginx0) / wall;
  row.wholeCpu = child.finalCpuSeconds().value_or(NAN) / settings.seconds;
  return row;
}

// (b), one size: every video message padded to `videoBytes`, the audio as it is.
StepRow runStep(NginxIngest& ingest, const FlvClip& clip, std::size_t videoBytes, int index,
                const Settings& settings) {
  StepRow row{.videoBytes = videoBytes};
  double audioBytes = 0;
  for (const FlvTag& tag : clip.media)
    if (tag.type == FlvTag::kAudio) audioBytes += double(tag.body.size());
  row.offeredMbps =
      (double(videoBytes) * kFramesPerSecond + audioBytes * 1000 / clip.loopMs) * 8 / 1e6;

  Publication publication(ingest.rtmpURL(), "bench-step-" + std::to_string(index));
  if (publication.waitUntilDecided(kDecideSeconds) != Publication::Outcome::ready) {
    row.note = "not published: " + publication.failure();
    return row;
  }
  publication.socket().setStreamRate(std::int64_t(row.offeredMbps * 1e6));
  const int lengthSize = nalLengthSize(clip.videoConfig);
  std::vector<std::uint8_t> scratch;
  scratch.reserve(videoBytes + 64);
  bool gaveUp = false;
  std::int64_t sent0 = -1;
  Clock::time_point at0;
  PaceOptions options;
  options.maxSeconds = settings.stepSeconds;
  options.bodyFor = [&](const FlvTag& tag) -> std::span<const std::uint8_t> {
    if (tag.type != FlvTag::kVideo) return tag.body;
    scratch.assign(tag.body.begin(), tag.body.end());
    padVideoBody(scratch, videoBytes, lengthSize);
    return scratch;
  };
  options.beforeSend = [&](const PaceTick& tick) {
    const auto counters = publication.socket().sendCounters();
    if (sent0 < 0) {
      sent0 = counters.sent;
      at0 = Clock::now();
    }
    // The first half warms up; keeping up is judged on the second.
    if (tick.tag.type == FlvTag::kVideo && tick.timestamp >= settings.stepSeconds * 500) {
      row.maxPending = std::max(row.maxPending, counters.pending);
      row.maxLagMs = std::max(row.maxLagMs, tick.lagSeconds * 1000);
    }
    if (counters.pending > kGiveUpPending) gaveUp = true;
    return !gaveUp && publication.failureCount() == 0;
  };
  publishPaced(publication.socket(), clip, options);
  const double wall = seconds(Clock::now() - at0);
  row.takenMbps = double(publication.socket().sendCounters().sent - sent0) * 8 / wall / 1e6;
  publication.close();
  row.keptUp = !gaveUp && publication.failureCount() == 0 &&
               row.maxPending <= std::int64_t(kKeptUpMessages * videoBytes) &&
               row.maxLagMs <= kKeptUpLagSeconds * 1000;
  if (gaveUp) row.note = "over 64 MiB waiting; stopped";
  if (publication.failureCount() > 0) row.note = "failed: " + publication.failure();
  return row;
}

std::string bytesText(double bytes) {
  char text[32];
  if (bytes >= 1 << 20)
    std::snprintf(text, sizeof text, "%.1f MiB", bytes / (1 << 20));
  else if (bytes >= 1 << 10)
    std::snprintf(text, sizeof text, "%.1f KiB", bytes / (1 << 10));
  else
    std::snprintf(text, sizeof text, "%.0f B", bytes);
  return text;
}

int run(const Settings& settings) {
  const std::string ffmpeg = findProgram("ffmpeg");
  if (ffmpeg.empty()) throw std::runtime_error("ffmpeg is not installed (scripts/setup does)");
  const bench::TempDir temp("rtmp-bench");
  const fs::path& work = temp.path;

  // Small real frames, so the stream decodes; the bitrate comes from padding them.
  const fs::path base = work / "base.flv";
  const RunResult made = runProgram({ffmpeg,       "-nostdin",
                                     "-v",         "error",
                                     "-f",         "lavfi",
                                     "-i",         "testsrc=size=320x180:rate=30",
                                     "-f",         "lavfi",
                                     "-i",         "sine=frequency=440:sample_rate=48000",
                                     "-t",         std::to_string(int(std::ceil(settings.seconds))),
                                     "-c:v",       "libx264",
                                     "-preset",    "ultrafast",
                                     "-bf",        "0",
                                     "-g",         "30",
                                     "-pix_fmt",   "yuv420p",
                                     "-c:a",       "aac",
                                     "-b:a",       "96k",
                                     "-f",         "flv",
                                     base.string()},
                                    kProgramSeconds, work);
  if (!made.succeeded())
    throw std::runtime_error("ffmpeg couldn't make a clip: " + made.describe());
  const FlvClip clip = clipOf(readFlvFile(base));
  double audioBytesPerSecond = 0;
  for (const FlvTag& tag : clip.media)
    if (tag.type == FlvTag::kAudio) audioBytesPerSecond += double(tag.body.size());
  audioBytesPerSecond = audioBytesPerSecond * 1000 / clip.loopMs;
  const auto videoBytes =
      std::size_t((kStreamBitsPerSecond / 8 - audioBytesPerSecond) / kFramesPerSecond);
  const FlvClip stream = paddedClip(clip, videoBytes);
  const fs::path streamFile = work / "stream.flv";
  writeFlvFile(streamFile, tagsOf(stream));

  NginxIngest ingest;
  std::printf(
      "qvn-bench-rtmp: %.0f s at %.2f Mb/s (%zu-byte video at %d/s, AAC %.0f kb/s) "
      "to nginx on loopback\n\n",
      settings.seconds, stream.bitsPerSecond() / 1e6, videoBytes, kFramesPerSecond,
      audioBytesPerSecond * 8 / 1000);
  std::fflush(stdout);

  std::vector<CpuRow> cpu;
  cpu.push_back(measureClient(ingest, stream, settings));
  cpu.push_back(measureFfmpeg(ingest, ffmpeg, streamFile, work, settings));

  std::vector<StepRow> steps;
  std::optional<std::size_t> largest;
  int index = 0;
  for (std::size_t size = videoBytes; size <= kLargestMessage; size *= 2) {
    steps.push_back(runStep(ingest, clip, size, ++index, settings));
    if (!steps.back().keptUp) break;
    largest = size;
  }

  std::printf("%-18s %14s %14s %16s %14s %12s\n", "publisher", "CPU s/s steady", "CPU s/s whole",
              "sending thread", "nginx CPU s/s", "max pending");
  for (const CpuRow& r : cpu) {
    char thread[32] = "-";
    if (!std::isnan(r.publisherThreadCpu))
      std::snprintf(thread, sizeof thread, "%.4f", r.publisherThreadCpu);
    std::printf("%-18s %14.4f %14.4f %16s %14.4f %12s\n", r.name.c_str(), r.steadyCpu, r.wholeCpu,
                thread, r.nginxCpu,
                r.maxPending < 0 ? "-" : bytesText(double(r.maxPending)).c_str());
  }
  const double steadyRatio = cpu[0].steadyCpu / cpu[1].steadyCpu;
  const double wholeRatio = cpu[0].wholeCpu / cpu[1].wholeCpu;
  std::printf("%-18s %13.2fx %13.2fx\n\n", "RTMPSocket/ffmpeg", steadyRatio, wholeRatio);

  std::printf("%-12s %13s %11s %12s %11s  %s\n", "video msg", "offered Mb/s", "taken Mb/s",
              "max pending", "max lag ms", "keeps up at 30/s");
  for (const StepRow& s : steps)
    std::printf("%-12s %13.1f %11.1f %12s %11.1f  %s%s%s\n",
                bytesText(double(s.videoBytes)).c_str(), s.offeredMbps, s.takenMbps,
                bytesText(double(s.maxPending)).c_str(), s.maxLagMs, s.keptUp ? "yes" : "no",
                s.note.empty() ? "" : ", ", s.note.c_str());
  if (largest)
    std::printf("\nlargest video message kept up with: %s (%.0f Mb/s)%s\n",
                bytesText(double(*largest)).c_str(), double(*largest) * kFramesPerSecond * 8 / 1e6,
                steps.back().keptUp ? ", the largest a message may be" : "");
  else
    std::printf("\nno size kept up, not even %s\n", bytesText(double(videoBytes)).c_str());

  if (!settings.jsonPath.empty()) {
    nlohmann::json j;
    j["streamBitsPerSecond"] = stream.bitsPerSecond();
    j["videoMessageBytes"] = videoBytes;
    j["seconds"] = settings.seconds;
    for (const CpuRow& r : cpu)
      j["cpu"].push_back({{"name", r.name},
                          {"steadyCpuPerSecond", r.steadyCpu},
                          {"wholeCpuPerSecond", r.wholeCpu},
                          {"sendingThreadCpuPerSecond", std::isnan(r.publisherThreadCpu)
                                                            ? nlohmann::json(nullptr)
                                                            : nlohmann::json(r.publisherThreadCpu)},
                          {"nginxCpuPerSecond", r.nginxCpu},
                          {"maxPendingBytes", r.maxPending < 0 ? nlohmann::json(nullptr)
                                                               : nlohmann::json(r.maxPending)}});
    j["steadyRatio"] = steadyRatio;
    j["wholeRatio"] = wholeRatio;
    for (const StepRow& s : steps)
      j["steps"].push_back({{"videoMessageBytes", s.videoBytes},
                            {"offeredMbps", s.offeredMbps},
                            {"takenMbps", s.takenMbps},
                            {"maxPendingBytes", s.maxPending},
                            {"maxLagMs", s.maxLagMs},
                            {"keptUp", s.keptUp},
                            {"note", s.note}});
    j["largestKeptUpBytes"] = largest ? nlohmann::json(*largest) : nlohmann::json(nullptr);
    if (!bench::writeJson(j, settings.jsonPath, "qvn-bench-rtmp")) return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Settings settings;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&] { return bench::optionValue(i, argc, argv, "qvn-bench-rtmp"); };
    if (arg == "--json")
      settings.jsonPath = value();
    else if (arg == "--seconds")
      settings.seconds = std::stod(value());
    else if (arg == "--step-seconds")
      settings.stepSeconds = std::stod(value());
    else {
      std::fprintf(stderr,
                   "usage: qvn-bench-rtmp [--seconds N] [--step-seconds N] [--json FILE]\n");
      return 2;
    }
  }
  if (settings.seconds < 3 || settings.stepSeconds < 1) {
    std::fprintf(stderr, "qvn-bench-rtmp: --seconds needs 3 or more, --step-seconds 1 or more\n");
    return 2;
  }
  return bench::runReporting("qvn-bench-rtmp", [&] { return run(settings); });
}
