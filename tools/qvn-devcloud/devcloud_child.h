// The programs the devcloud runs (nginx for the ingest, ffmpeg in a relay): started with
// fork/exec so that they die with the thread that started them, and ended by their own
// process id only. Call from the thread that stays alive as long as the child should.
#pragma once

#include <sys/types.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvn::devcloud {

// Where `name` would run from: PATH, then the sbin folders (nginx lives in /usr/sbin).
// Empty when it is nowhere.
std::string findProgram(const std::string& name);

struct ChildIo {
  int out = -1;  // the child's stdout; -1: /dev/null
  int err = -1;  // the child's stderr; -1: /dev/null
};

// Starts `argv` (argv[0] a path) with stdin from /dev/null. `deathSignal` reaches the child
// when the calling thread ends. Throws std::runtime_error when it can't be started.
pid_t startChild(const std::vector<std::string>& argv, ChildIo io, int deathSignal);

// Its wait status once it has ended (and been reaped), none while it runs.
std::optional<int> childEnded(pid_t pid);
// Sends `signal`, waits at most `graceSeconds`, then SIGKILL; always reaps. The wait status.
int stopChild(pid_t pid, int signal, double graceSeconds);

}  // namespace qvn::devcloud
