#include "platform/files.h"

#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <vector>

namespace qvn {

namespace fs = std::filesystem;

namespace {

constexpr const char* kConfigFolder = "Quorvane Studio";
constexpr const char* kDataFolder = "Quorvane Camera";

std::string errorText(int error) {
  return std::strerror(error);
}

fs::path homeDir() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  // A service started without HOME still has a password entry.
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found &&
      found->pw_dir)
    return found->pw_dir;
  return "/";
}

// XDG says a relative value is invalid and must be ignored.
fs::path xdgDir(const char* variable, const fs::path& fallback) {
  const char* value = std::getenv(variable);
  if (value && *value == '/') return value;
  return fallback;
}

// One line of user-dirs.dirs: XDG_VIDEOS_DIR="$HOME/Videos" or an absolute path in quotes.
std::optional<fs::path> userDir(const fs::path& userDirsFile, std::string_view name,
                                const fs::path& home) {
  std::ifstream in(userDirsFile);
  std::string line;
  std::optional<fs::path> result;
  while (std::getline(in, line)) {
    const auto start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    std::string_view rest = std::string_view(line).substr(start);
    if (!rest.starts_with(name) || rest.substr(name.size(), 2) != "=\"") continue;
    rest.remove_prefix(name.size() + 2);
    std::string value;
    bool closed = false;
    for (size_t i = 0; i < rest.size(); ++i) {
      if (rest[i] == '\\' && i + 1 < rest.size()) {
        value += rest[++i];
      } else if (rest[i] == '"') {
        closed = true;
        break;
      } else {
        value += rest[i];
      }
    }
    if (!closed) continue;
    if (value == "$HOME" || value.starts_with("$HOME/")) {
      result = home / fs::path(value.substr(std::min<size_t>(value.size(), 6)));
    } else if (value.starts_with("/")) {
      result = fs::path(value);
    }
    // The last valid assignment wins, as it would in the shell that reads this file.
  }
  if (result) *result = result->lexically_normal();
  if (result && result->has_filename() == false && result->has_parent_path())
    *result = result->parent_path();
  return result;
}

// The process-wide paths are read on every log line, so reads take no lock: a published
// AppPaths is never freed, only retired (setAppPaths runs a handful of times per process).
std::atomic<const AppPaths*> currentPaths{nullptr};
std::mutex retiredMutex;
std::vector<std::unique_ptr<const AppPaths>>& retired() {
  static auto* list = new std::vector<std::unique_ptr<const AppPaths>>();
  return *list;
}

void retire(const AppPaths* paths) {
  std::lock_guard lock(retiredMutex);
  retired().emplace_back(paths);
}

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

std::string utcStamp() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm tm{};
  gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &tm);
  return text;
}

// Renames without ever replacing an existing file, so two rescues in one second can't
// overwrite each other. EEXIST means "try the next name".
int renameNoReplace(const fs::path& from, const fs::path& to) {
  if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
  if (errno != EINVAL && errno != ENOSYS) return errno;
  // A file system without RENAME_NOREPLACE: a hard link fails on a clash, then the old name goes.
  if (::link(from.c_str(), to.c_str()) == 0) {
    ::unlink(from.c_str());
    return 0;
  }
  if (errno == EEXIST) return EEXIST;
  std::error_code ec;
  if (fs::exists(fs::symlink_status(to, ec))) return EEXIST;
  return ::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace

AppPaths AppPaths::fromEnvironment() {
  const fs::path home = homeDir();
  const fs::path configHome = xdgDir("XDG_CONFIG_HOME", home / ".config");
  AppPaths paths;
  paths.configDir = configHome / kConfigFolder;
  paths.dataDir = xdgDir("XDG_DATA_HOME", home / ".local" / "share") / kDataFolder;
  paths.stateDir = xdgDir("XDG_STATE_HOME", home / ".local" / "state") / kDataFolder;
  paths.moviesDir =
      userDir(configHome / "user-dirs.dirs", "XDG_VIDEOS_DIR", home).value_or(home / "Videos");
  return paths;
}

AppPaths AppPaths::underRoot(const fs::path& root) {
  AppPaths paths;
  paths.configDir = root / "config";
  paths.dataDir = root / "data";
  paths.stateDir = root / "state";
  paths.moviesDir = root / "Videos";
  return paths;
}

AppPaths appPaths() {
  const AppPaths* paths = currentPaths.load(std::memory_order_acquire);
  if (!paths) {
    auto fresh = std::make_unique<const AppPaths>(AppPaths::fromEnvironment());
    const AppPaths* expected = nullptr;
    if (currentPaths.compare_exchange_strong(expected, fresh.get(), std::memory_order_acq_rel)) {
      paths = fresh.release();
    } else {
      paths = expected;  // another thread published first; ours was never seen
    }
  }
  return *paths;
}

void setAppPaths(AppPaths paths) {
  const AppPaths* old =
      currentPaths.exchange(new AppPaths(std::move(paths)), std::memory_order_acq_rel);
  // A reader may still be copying the old value, so it lives on.
  if (old) retire(old);
}

std::optional<std::string> writeFileAtomically(const fs::path& file, std::string_view bytes,
                                               fs::perms permissions) {
  static std::atomic<unsigned> counter{0};
  const fs::path folder = file.has_parent_path() ? file.parent_path() : fs::path(".");
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec) return "could not create " + folder.string() + ": " + ec.message();

  const fs::path temp =
      folder / ("." + file.filename().string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                std::to_string(counter.fetch_add(1, std::memory_order_relaxed)));
  const int fd = ::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                        static_cast<mode_t>(permissions & fs::perms::mask));
  if (fd < 0) return "could not create " + temp.string() + ": " + errorText(errno);

  std::optional<std::string> failure;
  if (!writeAll(fd, bytes)) {
    failure = "could not write " + temp.string() + ": " + errorText(errno);
  } else if (::fsync(fd) != 0) {
    failure = "could not flush " + temp.string() + ": " + errorText(errno);
  }
  // close() can report a deferred write error (NFS), so it counts.
  if (::close(fd) != 0 && !failure)
    failure = "could not close " + temp.string() + ": " + errorText(errno);
  if (!failure && ::rename(temp.c_str(), file.c_str()) != 0)
    failure = "could not replace " + file.string() + ": " + errorText(errno);
  if (failure) {
    ::unlink(temp.c_str());
    return failure;
  }

  // The rename itself must reach the disk too. Some file systems refuse fsync on a folder;
  // the content is already safe then, so that is not an error.
  if (const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); dir >= 0) {
    ::fsync(dir);
    ::close(dir);
  }
  return std::nullopt;
}

std::optional<std::string> readFile(const fs::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string content;
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      ::close(fd);
      return std::nullopt;
    }
    if (n == 0) break;
    content.append(buffer, static_cast<size_t>(n));
  }
  ::close(fd);
  return content;
}

std::optional<fs::path> moveAside(const fs::path& file) {
  const std::string base = file.filename().string() + ".bad-" + utcStamp();
  for (int attempt = 1; attempt <= 1000; ++attempt) {
    const fs::path target =
        file.parent_path() / (attempt == 1 ? base : base + "-" + std::to_string(attempt));
    const int error = renameNoReplace(file, target);
    if (error == 0) return target;
    if (error != EEXIST) return std::nullopt;
  }
  return std::nullopt;
}

}  // namespace qvn
