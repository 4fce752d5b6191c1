#include "sim_log.h"

#include <cstdio>
#include <mutex>

namespace qvn {
namespace {

std::mutex& outputLock() {
  static std::mutex lock;
  return lock;
}

std::string& prefix() {
  static std::string text = "qvn-phone-sim: ";
  return text;
}

}  // namespace

void SimLog::setName(const std::string& name) {
  prefix() = "qvn-phone-sim[" + name + "]: ";
}

void SimLog::line(const std::string& text) {
  raw(prefix() + text + "\n");
}

void SimLog::raw(const std::string& text) {
  std::lock_guard lock(outputLock());
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

}  // namespace qvn
