// qvn-phone-sim: a phone on the command line, for the studio's tests, benchmarks and demos.
#include <gst/gst.h>

#include <cstdio>

#include "phone_sim.h"
#include "sim_log.h"
#include "sim_options.h"

int main(int argc, char** argv) {
  auto parsed = qvn::parseSimOptions(argc, argv);
  if (std::holds_alternative<qvn::SimHelp>(parsed)) {
    std::fputs(qvn::simUsage().c_str(), stdout);
    return 0;
  }
  if (const auto* error = std::get_if<std::string>(&parsed)) {
    std::fprintf(stderr, "qvn-phone-sim: %s\n\n%s", error->c_str(), qvn::simUsage().c_str());
    return 2;
  }
  auto& options = std::get<qvn::SimOptions>(parsed);
  qvn::SignalWatcher signals;  // first, so every thread after it leaves the signals to it
  gst_init(nullptr, nullptr);
  qvn::SimLog::setName(options.name);
  qvn::PhoneSim sim(std::move(options), signals);
  return sim.run();
}
