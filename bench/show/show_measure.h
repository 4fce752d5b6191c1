// What a whole show is judged by, read from outside the studio: its log's mix tick and health
// lines, its memory from /proc, and the latency from each phone's frame log to the picture
// read back from the ingest. Plain functions and values; one thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "show/stream_reader.h"

namespace qvn::bench {

// Each phone's codes start this far apart ("--code-base"), so a code names its phone.
constexpr std::uint32_t kCodesPerPhone = 1000;

// When each code was pushed, from the phones' frame logs: code → CLOCK_MONOTONIC seconds,
// in order.
using PushTimes = std::map<std::uint32_t, std::vector<double>>;
void readFrameLog(const std::filesystem::path& file, PushTimes& into);

// Milliseconds from a code's latest push to the first time it was read back, for the
// pictures read in [from, to]; a picture whose code was read just before (the same frame shown
// twice) or that can't be paired is left out.
std::vector<double> latenciesMs(const std::vector<ReadPicture>& pictures, const PushTimes& pushed,
                                double from, double to);

// The studio's "mix tick 3s …" line.
struct TickLine {
  double p50 = 0, p95 = 0, max = 0;
};
std::optional<TickLine> parseTickLine(std::string_view line);

// The studio's "health …" line: what it has lost since it started.
struct HealthLine {
  long lateTicks = 0, publishDropped = 0, recordDropped = 0, audioOverruns = 0;
};
std::optional<HealthLine> parseHealthLine(std::string_view line);

// The resident memory of `pid` in MiB; none when it can't be read.
std::optional<double> residentMiB(pid_t pid);

// The value at `share` (0..1) of sorted `values`; NaN when empty.
double percentile(std::vector<double> values, double share);

}  // namespace qvn::bench
