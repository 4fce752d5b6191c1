// How long frames spend in each stage on the way out, reported as percentiles every 10 s:
// waiting for the encoder, encoding, reaching the socket, and the ingest's confirmation.
// The publisher's queue only.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace qvn {

class QvnPublishTiming {
 public:
  static constexpr double kReportSeconds = 10;

  void add(double wait, double encode, double handoff);
  void addDelivery(double seconds) { delivery_.push_back(seconds); }
  // The report line once 10 s have gone with frames in them; the first call starts the clock.
  std::optional<std::string> reportIfDue(double now);
  void reset() { *this = {}; }

  // Milliseconds with one decimal of the value at p (0..1) of the sorted list; "–" when empty.
  static std::string percentile(std::vector<double> values, double p);

 private:
  std::vector<double> wait_, encode_, handoff_, delivery_;
  double since_ = 0;
};

}  // namespace qvn
