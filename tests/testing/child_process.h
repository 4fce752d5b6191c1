// Real tools the tests and benches talk to (nginx, ffmpeg, ffprobe, openssl, a sound server):
// started with fork/exec, watched, and ended by their own process id only, so nothing else
// on the machine is ever signalled.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "child_start.h"

namespace qvn::test {

using tools::findProgram;

// A fresh folder under $TMPDIR (or /tmp) named "qvn-<tag>-XXXXXX"; throws when it can't.
std::filesystem::path makeTempDir(const std::string& tag);

// A loopback port nothing listens on at the moment of asking. `count` at once are distinct.
std::vector<std::uint16_t> freeLoopbackPorts(int count);

// CPU seconds of process `pid`'s live threads so far, from /proc; none when it can't be read.
std::optional<double> processCpuSeconds(pid_t pid);

class ChildProcess {
 public:
  // Starts `argv` (argv[0] a path) with stdin from /dev/null and stdout and stderr written
  // to the given files (empty: /dev/null). Throws std::runtime_error when it can't start.
  // The child dies with the thread that started it, so a crashed test leaves nothing behind.
  ChildProcess(const std::vector<std::string>& argv, const std::filesystem::path& outFile,
               const std::filesystem::path& errFile);
  // Kills and reaps the child if it still runs.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // False once it has exited (and then it is reaped).
  bool running();
  // Waits at most `seconds` for it to exit; its wait status once it has.
  std::optional<int> wait(double seconds);
  // Sends `signal`, waits at most `graceSeconds`, then SIGKILL; always reaps. The wait status.
  int stop(int signal, double graceSeconds);
  // processCpuSeconds() while it runs; none once reaped.
  std::optional<double> cpuSeconds() const;
  // The same from the kernel's accounting at reaping; none before.
  std::optional<double> finalCpuSeconds() const { return finalCpu_; }

 private:
  void reaped(int status, double cpu);

  pid_t pid_ = -1;
  std::optional<int> status_;
  std::optional<double> finalCpu_;
};

struct RunResult {
  bool finished = false;  // false: still running after the limit, and killed
  int status = -1;        // the wait status when finished
  std::string out;
  std::string err;
  bool succeeded() const;
  // "exit 1: <stderr>" and the like, for failure messages.
  std::string describe() const;
};

// Runs `argv` to its end, bounded by `limitSeconds` for liveness, keeping its output in
// files under `workDir`.
RunResult runProgram(const std::vector<std::string>& argv, double limitSeconds,
                     const std::filesystem::path& workDir);

}  // namespace qvn::test
