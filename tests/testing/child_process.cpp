#include "testing/child_process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string errnoText(const std::string& what, int error) {
  return what + ": " + strerror(error);
}

int openOutput(const fs::path& file) {
  const char* path = file.empty() ? "/dev/null" : file.c_str();
  const int fd = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error(errnoText("can't open " + std::string(path), errno));
  return fd;
}

double rusageSeconds(const rusage& usage) {
  return usage.ru_utime.tv_sec + usage.ru_utime.tv_usec * 1e-6 + usage.ru_stime.tv_sec +
         usage.ru_stime.tv_usec * 1e-6;
}

std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace

fs::path makeTempDir(const std::string& tag) {
  const char* base = getenv("TMPDIR");
  std::string pattern =
      (fs::path(base && *base ? base : "/tmp") / ("qvn-" + tag + "-XXXXXX")).string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error(errnoText("mkdtemp " + pattern, errno));
  return pattern;
}

std::vector<std::uint16_t> freeLoopbackPorts(int count) {
  // All bound at once so the kernel hands out distinct ports, then released together.
  std::vector<int> sockets;
  std::vector<std::uint16_t> ports;
  for (int i = 0; i < count; ++i) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw std::runtime_error(errnoText("socket", errno));
    sockets.push_back(fd);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      const int error = errno;
      for (int s : sockets) ::close(s);
      throw std::runtime_error(errnoText("binding a loopback port", error));
    }
    ports.push_back(ntohs(address.sin_port));
  }
  for (int s : sockets) ::close(s);
  return ports;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const fs::path& outFile,
                           const fs::path& errFile) {
  const int out = openOutput(outFile);
  int err = -1;
  try {
    err = openOutput(errFile);
    pid_ = tools::startChild(argv, {out, err}, SIGKILL);
  } catch (...) {
    ::close(out);
    if (err >= 0) ::close(err);
    throw;
  }
  ::close(out);
  ::close(err);
}

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && !status_) stop(SIGKILL, 10);
}

void ChildProcess::reaped(int status, double cpu) {
  status_ = status;
  finalCpu_ = cpu;
}

bool ChildProcess::running() {
  if (status_) return false;
  int status = 0;
  rusage usage{};
  const pid_t r = ::wait4(pid_, &status, WNOHANG, &usage);
  if (r == pid_) reaped(status, rusageSeconds(usage));
  return !status_;
}

std::optional<int> ChildProcess::wait(double seconds) {
  const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
  while (running()) {
    if (Clock::now() >= deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return status_;
}

int ChildProcess::stop(int signal, double graceSeconds) {
  if (status_) return *status_;
  ::kill(pid_, signal);
  if (!wait(graceSeconds)) {
    ::kill(pid_, SIGKILL);
    int status = 0;
    rusage usage{};
    pid_t r;
    do r = ::wait4(pid_, &status, 0, &usage);
    while (r < 0 && errno == EINTR);
    reaped(status, rusageSeconds(usage));
  }
  return *status_;
}

std::optional<double> ChildProcess::cpuSeconds() const {
  if (status_) return std::nullopt;
  return processCpuSeconds(pid_);
}

std::optional<double> processCpuSeconds(pid_t pid) {
  // Each live thread's time on a CPU in nanoseconds, where the kernel keeps it: /proc's
  // utime and stime come in clock ticks, too coarse for a tool that idles most of a second.
  const fs::path tasks = "/proc/" + std::to_string(pid) + "/task";
  std::error_code error;
  double nanoseconds = 0;
  bool any = false;
  for (const auto& task : fs::directory_iterator(tasks, error)) {
    std::ifstream in(task.path() / "schedstat");
    double onCpu = 0;
    if (in >> onCpu) {
      nanoseconds += onCpu;
      any = true;
    }
  }
  if (any) return nanoseconds * 1e-9;

  const std::string stat = readText("/proc/" + std::to_string(pid) + "/stat");
  // The name in parentheses may hold spaces; the fields after it are plain numbers. utime
  // and stime are the 14th and 15th fields, the 12th and 13th after the name.
  const auto close = stat.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::istringstream fields(stat.substr(close + 1));
  std::string field;
  double ticks = 0;
  for (int i = 0; i < 13 && fields >> field; ++i)
    if (i >= 11) ticks += std::stod(field);
  if (!fields) return std::nullopt;
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

bool RunResult::succeeded() const {
  return finished && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string RunResult::describe() const {
  std::string text;
  if (!finished)
    text = "still running at the time limit";
  else if (WIFEXITED(status))
    text = "exit " + std::to_string(WEXITSTATUS(status));
  else if (WIFSIGNALED(status))
    text = "signal " + std::to_string(WTERMSIG(status));
  if (!err.empty()) text += ": " + err;
  return text;
}

RunResult runProgram(const std::vector<std::string>& argv, double limitSeconds,
                     const fs::path& workDir) {
  static std::atomic<int> serial{0};
  const std::string stem =
      fs::path(argv.at(0)).filename().string() + "-" + std::to_string(++serial);
  const fs::path outFile = workDir / (stem + ".out");
  const fs::path errFile = workDir / (stem + ".err");
  RunResult result;
  {
    ChildProcess child(argv, outFile, errFile);
    if (auto status = child.wait(limitSeconds)) {
      result.finished = true;
      result.status = *status;
    } else {
      child.stop(SIGKILL, 10);
    }
  }
  result.out = readText(outFile);
  result.err = readText(errFile);
  return result;
}

}  // namespace qvn::test
