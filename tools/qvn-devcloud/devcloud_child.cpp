#include "devcloud_child.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <thread>

namespace qvn::devcloud {

std::optional<int> childEnded(pid_t pid) {
  int status = 0;
  pid_t r;
  do r = ::waitpid(pid, &status, WNOHANG);
  while (r < 0 && errno == EINTR);
  if (r == pid) return status;
  // Already reaped, or not ours: either way it no longer runs.
  if (r < 0) return 0;
  return std::nullopt;
}

int stopChild(pid_t pid, int signal, double graceSeconds) {
  if (const auto status = childEnded(pid)) return *status;
  ::kill(pid, signal);
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(graceSeconds);
  while (std::chrono::steady_clock::now() < deadline) {
    if (const auto status = childEnded(pid)) return *status;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::kill(pid, SIGKILL);
  int status = 0;
  pid_t r;
  do r = ::waitpid(pid, &status, 0);
  while (r < 0 && errno == EINTR);
  return status;
}

}  // namespace qvn::devcloud
