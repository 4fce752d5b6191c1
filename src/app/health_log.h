// One line every ten seconds of what the show has lost since it started: mix ticks that went
// out late, pictures the publisher and the recorder dropped, and sound the stream and record
// buses could not hand on in time. Whoever watches a studio without a window reads it, and so
// do the benchmarks. Main thread; the counters it reads are written on their own threads.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/dispatch.h"

struct HealthCounts {
  long lateTicks = 0;
  long publishDropped = 0;
  long recordDropped = 0;
  std::int64_t audioOverruns = 0;
};

class HealthLog {
 public:
  static constexpr double kEverySeconds = 10;
  HealthLog(qvn::Queue& main, std::function<HealthCounts()> read);

 private:
  std::function<HealthCounts()> read_;
  qvn::RepeatingTimer timer_;
};
