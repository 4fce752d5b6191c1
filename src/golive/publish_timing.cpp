#include "golive/publish_timing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace qvn {

void QvnPublishTiming::add(double wait, double encode, double handoff) {
  wait_.push_back(wait);
  encode_.push_back(encode);
  handoff_.push_back(handoff);
}

std::string QvnPublishTiming::percentile(std::vector<double> values, double p) {
  if (values.empty()) return "–";
  std::sort(values.begin(), values.end());
  const size_t index = std::min(values.size() - 1, size_t(std::floor(p * double(values.size()))));
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", values[index] * 1000);
  return text;
}

std::optional<std::string> QvnPublishTiming::reportIfDue(double now) {
  if (since_ == 0) {
    since_ = now;
    return std::nullopt;
  }
  if (now - since_ < kReportSeconds || wait_.empty()) return std::nullopt;
  auto pair = [](const std::vector<double>& v) {
    return percentile(v, 0.5) + "/" + percentile(v, 0.95);
  };
  std::string line = "golive timing " + std::to_string(wait_.size()) +
                     " frames (ms p50/p95): mix→encoder " + pair(wait_) + " · encode " +
                     pair(encode_) + " · to socket " + pair(handoff_) + " · ingest confirms " +
                     pair(delivery_);
  wait_.clear();
  encode_.clear();
  handoff_.clear();
  delivery_.clear();
  since_ = now;
  return line;
}

}  // namespace qvn
