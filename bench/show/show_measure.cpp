#include "show/show_measure.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace qvn::bench {

void readFrameLog(const std::filesystem::path& file, PushTimes& into) {
  std::ifstream in(file);
  std::uint32_t code = 0;
  double at = 0;
  while (in >> code >> at) into[code].push_back(at);
  for (auto& [c, times] : into) std::sort(times.begin(), times.end());
}

std::vector<double> latenciesMs(const std::vector<ReadPicture>& pictures, const PushTimes& pushed,
                                double from, double to) {
  std::vector<double> latencies;
  std::optional<std::uint32_t> previous;
  for (const auto& picture : pictures) {
    const auto code = picture.code;
    const bool repeat = code && code == previous;
    previous = code;
    if (!code || repeat || picture.at < from || picture.at > to) continue;
    const auto times = pushed.find(*code);
    if (times == pushed.end()) continue;
    const auto after = std::upper_bound(times->second.begin(), times->second.end(), picture.at);
    if (after == times->second.begin()) continue;
    latencies.push_back((picture.at - *std::prev(after)) * 1000);
  }
  return latencies;
}

std::optional<TickLine> parseTickLine(std::string_view line) {
  const auto at = line.find("mix tick 3s n=");
  if (at == std::string_view::npos) return std::nullopt;
  TickLine t;
  int n = 0;
  double avg = 0;
  const std::string text(line.substr(at));
  if (std::sscanf(text.c_str(), "mix tick 3s n=%d avg=%lfms p50=%lfms p95=%lfms max=%lfms", &n,
                  &avg, &t.p50, &t.p95, &t.max) != 5)
    return std::nullopt;
  return t;
}

std::optional<HealthLine> parseHealthLine(std::string_view line) {
  const auto at = line.find("health late ticks=");
  if (at == std::string_view::npos) return std::nullopt;
  HealthLine h;
  const std::string text(line.substr(at));
  if (std::sscanf(text.c_str(),
                  "health late ticks=%ld publish dropped=%ld record dropped=%ld audio "
                  "overruns=%ld",
                  &h.lateTicks, &h.publishDropped, &h.recordDropped, &h.audioOverruns) != 4)
    return std::nullopt;
  return h;
}

std::optional<double> residentMiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.starts_with("VmRSS:")) {
      std::istringstream fields(line.substr(6));
      double kB = 0;
      if (fields >> kB) return kB / 1024;
    }
  return std::nullopt;
}

double percentile(std::vector<double> values, double share) {
  if (values.empty()) return NAN;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, size_t(share * double(values.size())))];
}

}  // namespace qvn::bench
