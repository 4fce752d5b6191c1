// The programs the devcloud runs (nginx for the ingest, ffmpeg in a relay): started so that
// they die with the thread that started them, and ended by their own process id only. Start
// from the thread that stays alive as long as the child should.
#pragma once

#include <sys/types.h>

#include <optional>

#include "child_start.h"

namespace qvn::devcloud {

using tools::ChildIo;
using tools::findProgram;
using tools::startChild;

// Its wait status once it has ended (and been reaped), none while it runs.
std::optional<int> childEnded(pid_t pid);
// Sends `signal`, waits at most `graceSeconds`, then SIGKILL; always reaps. The wait status.
int stopChild(pid_t pid, int signal, double graceSeconds);

}  // namespace qvn::devcloud
