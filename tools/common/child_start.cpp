#include "child_start.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace qvn::tools {

namespace {

std::string errnoText(const std::string& what, int error) {
  return what + ": " + strerror(error);
}

}  // namespace

std::string findProgram(const std::string& name) {
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
  // Everything the child touches is made before fork: after it, in a process with threads,
  // only async-signal-safe calls are allowed.
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  if (null < 0) throw std::runtime_error(errnoText("can't open /dev/null", errno));
  // A failed exec reports its errno through this pipe; a good one closes it.
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    const int error = errno;
    ::close(null);
    throw std::runtime_error(errnoText("pipe", error));
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
    throw std::runtime_error(errnoText("fork", forkError));
  }
  int execError = 0;
  ssize_t n;
  do n = ::read(report[0], &execError, sizeof execError);
  while (n < 0 && errno == EINTR);
  ::close(report[0]);
  if (n == sizeof execError) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    throw std::runtime_error(errnoText("can't run " + argv[0], execError));
  }
  return pid;
}

bool acceptsOnLoopback(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace qvn::tools
