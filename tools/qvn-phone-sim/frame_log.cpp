#include "frame_log.h"

#include <cerrno>
#include <cstring>
#include <ctime>

namespace qvn {

double monotonicSeconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

std::unique_ptr<FrameLog> FrameLog::open(const std::string& path, std::string& error) {
  std::FILE* file = std::fopen(path.c_str(), "a");
  if (!file) {
    error = "can't open " + path + " for the frame log: " + std::strerror(errno);
    return nullptr;
  }
  return std::unique_ptr<FrameLog>(new FrameLog(file));
}

FrameLog::~FrameLog() {
  std::fclose(file_);
}

void FrameLog::write(std::uint32_t code, double seconds) {
  std::fprintf(file_, "%u %.6f\n", code, seconds);
  std::fflush(file_);
}

}  // namespace qvn
