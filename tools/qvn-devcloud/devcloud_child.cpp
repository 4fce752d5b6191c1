#include "devcloud_child.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <sstream>
#include <thread>

namespace qvn::devcloud {

std::string findProgram(const std::string& name) {
  // nginx runs its programs with an empty environment unless told otherwise.
  const char* given = getenv("PATH");
  std::string path = given && *given ? given : "/usr/local/bin:/usr/bin:/bin";
  path += ":/usr/local/sbin:/usr/sbin:/sbin";
  std::stringstream folders(path);
  for (std::string folder; std::getline(folders, folder, ':');) {
    if (folder.empty()) continue;
    const std::filesystem::path candidate = std::filesystem::path(folder) / name;
    std::error_code error;
    if (::access(candidate.c_str(), X_OK) == 0 && !std::filesystem::is_directory(candidate, error))
      return candidate.string();
  }
  return {};
}

pid_t startChild(const std::vector<std::string>& argv, ChildIo io, int deathSignal) {
  if (argv.empty()) throw std::runtime_error("no program to start");
  // Everything the child needs is made before fork: after it only async-signal-safe calls.
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) throw std::runtime_error(std::string("can't open /dev/null: ") + strerror(errno));
  // A failed exec reports its errno through this pipe; a good one closes it.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    const int error = errno;
    ::close(null);
    throw std::runtime_error(std::string("pipe: ") + strerror(error));
  }
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    prctl(PR_SET_PDEATHSIG, deathSignal);
    if (::getppid() != parent) _exit(127);
    ::dup2(null, 0);
    ::dup2(io.out >= 0 ? io.out : null, 1);
    ::dup2(io.err >= 0 ? io.err : null, 2);
    // Our sockets and pipes must not live on in the child.
    ::close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    ::execv(args[0], args.data());
    const int error = errno;
    [[maybe_unused]] auto n = ::write(report[1], &error, sizeof error);
    _exit(127);
  }
  const int forkError = errno;
  ::close(null);
  ::close(report[1]);
  if (pid < 0) {
    ::close(report[0]);
    throw std::runtime_error(std::string("fork: ") + strerror(forkError));
  }
  int execError = 0;
  ssize_t n;
  do n = ::read(report[0], &execError, sizeof execError);
  while (n < 0 && errno == EINTR);
  ::close(report[0]);
  if (n == sizeof execError) {
    int status = 0;
    ::waitpid(pid, &status, 0);
    throw std::runtime_error("can't run " + argv[0] + ": " + strerror(execError));
  }
  return pid;
}

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
