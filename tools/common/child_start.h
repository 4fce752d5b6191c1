// Starting the real programs our tools and tests drive (nginx, ffmpeg, ffprobe, a sound
// server): found like a login shell of root would, started with fork/exec so that they die
// with the thread that started them, and never sharing our sockets. Ending them, by their own
// process id only, is the caller's.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace qvn::tools {

// Where `name` would run from: PATH (or the usual folders when PATH is empty, as nginx runs
// its programs), then the sbin folders (nginx lives in /usr/sbin). Empty when it is nowhere.
std::string findProgram(const std::string& name);

struct ChildIo {
  int out = -1;  // the child's stdout; -1: /dev/null
  int err = -1;  // the child's stderr; -1: /dev/null
};

// Starts `argv` (argv[0] a path) with stdin from /dev/null. `deathSignal` reaches the child
// when the calling thread ends. The descriptors in `io` stay the caller's. Throws
// std::runtime_error when it can't be started; a child whose exec failed is already reaped.
pid_t startChild(const std::vector<std::string>& argv, ChildIo io, int deathSignal);

// Whether something accepts TCP connections on 127.0.0.1:`port` right now.
bool acceptsOnLoopback(std::uint16_t port);

}  // namespace qvn::tools
