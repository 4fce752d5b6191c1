#include "app/health_log.h"

#include <cinttypes>
#include <cstdio>

#include "support/qvn_log.h"

HealthLog::HealthLog(qvn::Queue& main, std::function<HealthCounts()> read)
    : read_(std::move(read)), timer_(main, kEverySeconds, [this] {
        const HealthCounts c = read_();
        char line[160];
        std::snprintf(line, sizeof line,
                      "health late ticks=%ld publish dropped=%ld record dropped=%ld audio "
                      "overruns=%" PRId64,
                      c.lateTicks, c.publishDropped, c.recordDropped, c.audioOverruns);
        qvn::QvnLog::line(line);
      }) {}
