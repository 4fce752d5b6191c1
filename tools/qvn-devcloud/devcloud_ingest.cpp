#include "devcloud_ingest.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "devcloud_child.h"

namespace qvn::devcloud {
namespace {

namespace fs = std::filesystem;

// Liveness bounds: nginx up in this long on a loaded machine, or broken.
constexpr double kStartSeconds = 15;
constexpr double kStopSeconds = 5;
constexpr const char* kInstallHint = "apt install nginx libnginx-mod-rtmp";
constexpr std::string_view kPrefixStem = "qvn-devcloud-ingest-";
constexpr const char* kLockName = "devcloud.lock";

// Whether the port can be bound now: another program there would answer in nginx's place.
bool bindable(std::uint16_t port) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  const bool ok = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

// The last line nginx wrote that says something went wrong, for the reason it gives.
std::string lastComplaint(const fs::path& log) {
  std::ifstream in(log);
  std::string line, complaint;
  while (std::getline(in, line))
    if (line.find("[emerg]") != std::string::npos || line.find("[alert]") != std::string::npos ||
        line.find("[crit]") != std::string::npos)
      complaint = line;
  return complaint.empty() ? "see " + log.string() : complaint;
}

// nginx reads a quoted word with backslash escapes.
std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  return out + "\"";
}

// The prefixes of devclouds that died without cleaning up: their lock is free. A lock file
// made a moment ago may not be locked yet, so young ones are left alone.
void sweepStalePrefixes(const fs::path& tmp) {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(tmp, error)) {
    if (!entry.path().filename().string().starts_with(kPrefixStem)) continue;
    const fs::path lock = entry.path() / kLockName;
    const int fd = ::open(lock.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) continue;
    const auto age = fs::file_time_type::clock::now() - fs::last_write_time(lock, error);
    if (!error && age > std::chrono::seconds(10) && ::flock(fd, LOCK_EX | LOCK_NB) == 0)
      fs::remove_all(entry.path(), error);
    ::close(fd);
  }
}

}  // namespace

fs::path nginxModulesDir() {
  const char* dir = getenv("QVN_NGINX_MODULES");
  return dir && *dir ? fs::path(dir) : fs::path("/usr/lib/nginx/modules");
}

std::string ingestConfig(const IngestSettings& s, const fs::path& modules, const fs::path& prefix) {
  const std::string api = "http://127.0.0.1:" + std::to_string(s.apiPort);
  std::ostringstream c;
  c << "load_module " << quoted((modules / "ngx_rtmp_module.so").string())
    << ";\n"
    // One process: the pid we started is the one serving, and the relays are its children.
    << "master_process off;\n"
       "worker_processes 1;\n"
       // nginx empties the environment of what it runs: the relay finds ffmpeg on this PATH.
       "env PATH;\n"
    << "error_log " << quoted((prefix / "logs" / "error.log").string()) << " info;\n"
    << "pid " << quoted((prefix / "nginx.pid").string()) << ";\n"
    << "events { worker_connections 256; }\n"
    << "rtmp {\n"
       "  server {\n"
    << "    listen 127.0.0.1:" << s.rtmpPort << ";\n"
    << "    chunk_size 4096;\n"
       "    notify_method post;\n"
       // A relay ends its ffmpeg and says so on TERM; nginx's default would be KILL.
       "    exec_kill_signal term;\n"
       "    respawn_timeout 3s;\n"
       "    application live {\n"
       "      live on;\n"
       "      record off;\n"
    << "      on_publish " << api << "/dev/rtmp/on_publish;\n"
    << "      on_publish_done " << api
    << "/dev/rtmp/on_publish_done;\n"
    // Asked every second, so a deleted session's publisher is dropped within one.
    << "      on_update " << api << "/dev/rtmp/on_update;\n"
    << "      notify_update_timeout 1s;\n"
       "      notify_update_strict on;\n"
    << "      exec_push " << quoted(s.relayProgram) << " relay --api " << api
    << " --key $name;\n"
       "    }\n"
       "  }\n"
       "}\n";
  return c.str();
}

Ingest::Ingest(const IngestSettings& settings, std::function<void(const std::string&)> log)
    : settings_(settings), log_(std::move(log)) {
  const std::string nginx = findProgram("nginx");
  if (nginx.empty())
    throw IngestUnavailable(std::string("nginx is not installed (") + kInstallHint + ")");
  const fs::path modules = nginxModulesDir();
  std::error_code error;
  if (!fs::exists(modules / "ngx_rtmp_module.so", error))
    throw IngestUnavailable("nginx's RTMP module " + (modules / "ngx_rtmp_module.so").string() +
                            " is missing (" + kInstallHint + ")");
  if (!bindable(settings_.rtmpPort))
    throw IngestUnavailable("127.0.0.1:" + std::to_string(settings_.rtmpPort) +
                            " is taken by another program");
  if (findProgram("ffmpeg").empty())
    log_(
        "ingest: ffmpeg is not installed, so streams will reach no destination "
        "(apt install ffmpeg)");

  const char* tmpEnv = getenv("TMPDIR");
  const fs::path tmp = tmpEnv && *tmpEnv ? tmpEnv : "/tmp";
  sweepStalePrefixes(tmp);
  std::string pattern = (tmp / (std::string(kPrefixStem) + "XXXXXX")).string();
  if (!mkdtemp(pattern.data()))
    throw IngestUnavailable("can't make a folder for nginx under " + tmp.string());
  prefix_ = pattern;
  lock_ = ::open((prefix_ / kLockName).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_ >= 0) ::flock(lock_, LOCK_EX);
  try {
    fs::create_directories(prefix_ / "logs");
    const fs::path conf = prefix_ / "nginx.conf";
    std::ofstream(conf) << ingestConfig(settings_, modules, prefix_);
    const fs::path errorLog = prefix_ / "logs" / "error.log";
    const int out = ::open((prefix_ / "logs" / "nginx.out").c_str(),
                           O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    try {
      // -e: the log is its own from the first line, before the configuration is read.
      pid_ = startChild({nginx, "-p", prefix_.string() + "/", "-c", conf.string(), "-e",
                         errorLog.string(), "-g", "daemon off;"},
                        {out, out}, SIGTERM);
    } catch (const std::runtime_error& e) {
      if (out >= 0) ::close(out);
      throw IngestUnavailable(e.what());
    }
    if (out >= 0) ::close(out);

    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(kStartSeconds);
    while (!tools::acceptsOnLoopback(settings_.rtmpPort)) {
      if (childEnded(pid_)) {
        pid_ = -1;
        throw IngestUnavailable("nginx stopped at its start: " + lastComplaint(errorLog));
      }
      if (std::chrono::steady_clock::now() >= deadline)
        throw IngestUnavailable(
            "nginx is not listening on 127.0.0.1:" + std::to_string(settings_.rtmpPort) +
            " after " + std::to_string(int(kStartSeconds)) + " s");
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  } catch (...) {
    stop();
    throw;
  }
  log_("ingest: nginx " + std::to_string(pid_) + " on " + url() + ", its files in " +
       prefix_.string());
}

Ingest::~Ingest() {
  stop();
}

void Ingest::stop() {
  if (pid_ > 0) {
    stopChild(pid_, SIGTERM, kStopSeconds);
    log_("ingest: nginx " + std::to_string(pid_) + " stopped");
    pid_ = -1;
  }
  std::error_code ignored;
  if (!prefix_.empty()) fs::remove_all(prefix_, ignored);
  if (lock_ >= 0) ::close(lock_);
  lock_ = -1;
}

std::string Ingest::url() const {
  return "rtmp://127.0.0.1:" + std::to_string(settings_.rtmpPort) + "/live";
}

}  // namespace qvn::devcloud
