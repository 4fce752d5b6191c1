// What a decoded phone picture costs on its way to the studio: orient() turning I420 at
// 1280x720 and 1920x1080, unturned and a quarter turn, bounded to 1920, into upright BGRA,
// measured side by side with a memcpy of the same BGRA bytes (the floor). One thread pinned
// to one core. Prints a table of medians and ratios and whether 1080p stays under 1 ms;
// `--json FILE` also writes it. Google Benchmark's own flags pass through.
#include <benchmark/benchmark.h>

#include <sched.h>
#include "common/json_argument.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/pixel_buffer.h"
#include "video/video_orient.h"

namespace {

using namespace qvn;

constexpr int kBound = 1920;
constexpr int kRepetitions = 7;
constexpr double kMinSeconds = 0.3;  // per repetition
constexpr double kTargetMs = 1.0;    // for 1080p, either way up

enum class Work { memcpy, orient };

struct Case {
  std::string name;  // the benchmark's name
  Work work;
  int width, height;
  int rotation;
};

std::vector<Case> gCases;

// A decoded picture with something in every plane: ramps of luma, slow chroma swings.
PixelBufferRef makeI420(int width, int height) {
  auto picture = PixelBuffer::make(PixelFormat::i420, width, height);
  if (!picture) return nullptr;
  for (int y = 0; y < height; ++y) {
    std::uint8_t* row = picture->data(0) + y * picture->stride(0);
    for (int x = 0; x < width; ++x) row[x] = std::uint8_t(16 + (x + 2 * y) % 220);
  }
  for (int plane = 1; plane < 3; ++plane)
    for (int y = 0; y < picture->planeHeight(plane); ++y) {
      std::uint8_t* row = picture->data(plane) + y * picture->stride(plane);
      for (int x = 0; x < picture->planeWidth(plane); ++x)
        row[x] = std::uint8_t(16 + (plane == 1 ? x : y) % 225);
    }
  return picture;
}

// Bytes of a BGRA picture of that size, rows and their padding.
size_t bgraBytes(const PixelBuffer& picture) {
  return size_t(picture.stride()) * size_t(picture.height());
}

void copyFloor(benchmark::State& state, const Case& c) {
  auto from = PixelBuffer::make(PixelFormat::bgra, c.width, c.height);
  auto to = PixelBuffer::make(PixelFormat::bgra, c.width, c.height);
  if (!from || !to) return state.SkipWithError("no memory for two pictures");
  std::memset(from->data(), 0x40, bgraBytes(*from));
  std::memset(to->data(), 0, bgraBytes(*to));  // touched, so no page faults are timed
  for (auto _ : state) {
    std::memcpy(to->data(), from->data(), bgraBytes(*from));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(bgraBytes(*from)));
}

void orientFrames(benchmark::State& state, const Case& c) {
  const PixelBufferRef source = makeI420(c.width, c.height);
  if (!source) return state.SkipWithError("no memory for the source picture");
  // As the frame store does, the last picture is held while the next one is made.
  PixelBufferRef shown;
  for (int i = 0; i < 3; ++i) shown = QvnVideoOrient::orient(source, c.rotation, kBound);
  for (auto _ : state) {
    PixelBufferRef upright = QvnVideoOrient::orient(source, c.rotation, kBound);
    if (!upright || upright == source) return state.SkipWithError("orient gave no new picture");
    benchmark::DoNotOptimize(upright->data());
    shown = std::move(upright);
  }
}

void registerCases() {
  for (auto [width, height] : {std::pair{1280, 720}, std::pair{1920, 1080}}) {
    const std::string size = std::to_string(height) + "p";
    gCases.push_back({"memcpy/" + size, Work::memcpy, width, height, 0});
    for (int rotation : {0, 90})
      gCases.push_back({"orient/" + size + "/" + std::to_string(rotation), Work::orient, width,
                        height, rotation});
  }
  for (const Case& c : gCases)
    benchmark::RegisterBenchmark(c.name.c_str(),
                                 [&c](benchmark::State& s) {
                                   c.work == Work::memcpy ? copyFloor(s, c) : orientFrames(s, c);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(kMinSeconds)
        ->Repetitions(kRepetitions)
        ->ReportAggregatesOnly(true);
}

// Keeps the process on the first core it may use, so a run is one core's numbers and the
// scheduler can't move it mid-repetition; none when the mask can't be set.
std::optional<int> pinToOneCore() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof allowed, &allowed) != 0) return std::nullopt;
  for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0) return std::nullopt;
    return cpu;
  }
  return std::nullopt;
}

struct Measured {
  std::optional<double> ms;  // median real time per frame
  std::string error;
};

// Prints what Google Benchmark prints, and keeps each case's median for the table.
class TableReporter final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      Measured& m = measured[run.run_name.function_name];
      if (run.error_occurred)
        m.error = run.error_message;
      else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median")
        m.ms = run.GetAdjustedRealTime();
    }
  }
  std::map<std::string, Measured> measured;
};

// ---- The table ---------------------------------------------------------------------------

struct Row {
  const Case* c;
  Measured m;
  std::optional<double> toFloor;
  std::optional<bool> met;  // 1080p orient only
};

std::vector<Row> buildRows(const std::map<std::string, Measured>& measured) {
  auto floorOf = [&](const Case& c) -> std::optional<double> {
    for (const Case& f : gCases)
      if (f.work == Work::memcpy && f.width == c.width && f.height == c.height)
        if (auto it = measured.find(f.name); it != measured.end()) return it->second.ms;
    return std::nullopt;
  };
  std::vector<Row> rows;
  for (const Case& c : gCases) {
    Row row{&c, {}, {}, {}};
    if (auto it = measured.find(c.name); it != measured.end()) row.m = it->second;
    if (!row.m.ms && row.m.error.empty()) row.m.error = "not run";
    if (row.m.ms) {
      if (auto floor = floorOf(c); floor && *floor > 0) row.toFloor = *row.m.ms / *floor;
      if (c.work == Work::orient && c.height == 1080) row.met = *row.m.ms < kTargetMs;
    }
    rows.push_back(row);
  }
  return rows;
}

std::string labelOf(const Case& c) {
  const std::string size = std::to_string(c.width) + "x" + std::to_string(c.height);
  if (c.work == Work::memcpy) return "floor: memcpy of " + size + " BGRA";
  return "orient I420 " + size + " turned " + std::to_string(c.rotation);
}

std::string cell(const std::optional<double>& v, const char* format) {
  if (!v) return "-";
  char text[32];
  std::snprintf(text, sizeof text, format, *v);
  return text;
}

void printTable(const std::vector<Row>& rows, std::optional<int> core) {
  std::printf("\nqvn-bench-ingest: one frame on one thread%s, median of %d repetitions\n",
              core ? (" pinned to core " + std::to_string(*core)).c_str() : " (not pinned)",
              kRepetitions);
  std::printf("%-36s %10s %9s %8s\n", "case", "ms/frame", "x memcpy", "< 1 ms");
  for (const Row& row : rows) {
    const std::string label = labelOf(*row.c);
    if (!row.m.ms) {
      std::printf("%-36s failed: %s\n", label.c_str(), row.m.error.c_str());
      continue;
    }
    std::printf("%-36s %10.3f %9s %8s\n", label.c_str(), *row.m.ms,
                cell(row.toFloor, "%.2f").c_str(), row.met ? (*row.met ? "met" : "missed") : "");
  }
  std::printf(
      "x memcpy: time over copying the same BGRA bytes once. orient bounds the long edge to "
      "%d and gives a new picture each frame; the last one is held meanwhile, as the frame "
      "store holds it.\n",
      kBound);
}

nlohmann::json jsonOf(const std::optional<double>& v) {
  return v ? nlohmann::json(*v) : nlohmann::json(nullptr);
}

bool writeJson(const std::string& path, const std::vector<Row>& rows, std::optional<int> core) {
  nlohmann::json out;
  out["benchmark"] = "ingest";
  out["threads"] = 1;
  out["core"] = core ? nlohmann::json(*core) : nlohmann::json(nullptr);
  out["statistic"] = "median";
  out["repetitions"] = kRepetitions;
  out["bound"] = kBound;
  out["target_ms_1080p"] = kTargetMs;
  nlohmann::json list = nlohmann::json::array();
  for (const Row& row : rows) {
    const Case& c = *row.c;
    list.push_back({{"case", c.name},
                    {"work", c.work == Work::memcpy ? "memcpy" : "orient"},
                    {"label", labelOf(c)},
                    {"width", c.width},
                    {"height", c.height},
                    {"rotation", c.rotation},
                    {"ms_per_frame", jsonOf(row.m.ms)},
                    {"ratio_to_memcpy", jsonOf(row.toFloor)},
                    {"target_met", row.met ? nlohmann::json(*row.met) : nlohmann::json(nullptr)},
                    {"error", row.m.ms ? nlohmann::json(nullptr) : nlohmann::json(row.m.error)}});
  }
  out["rows"] = std::move(list);
  std::ofstream file(path);
  file << out.dump(2) << '\n';
  return bool(file);
}

}  // namespace

int main(int argc, char** argv) {
  auto [jsonPath, args, count] = bench::takeJsonArgument(argc, argv, "qvn-bench-ingest");

  const std::optional<int> core = pinToOneCore();
  registerCases();
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const std::vector<Row> rows = buildRows(reporter.measured);
  printTable(rows, core);
  int status = 0;
  if (!jsonPath.empty() && !writeJson(jsonPath, rows, core)) {
    std::fprintf(stderr, "qvn-bench-ingest: can't write %s\n", jsonPath.c_str());
    status = 1;
  }
  benchmark::Shutdown();
  return status;
}
