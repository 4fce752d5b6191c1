// Where the user's files live, and the two ways every stored file is written and rescued.
//
// Locations follow the XDG base directories and xdg-user-dirs; `--data-root DIR` moves all of
// them under DIR so that a test or a second studio never touches the user's own files.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace qvn {

struct AppPaths {
  std::filesystem::path configDir;  // settings.json
  std::filesystem::path dataDir;    // session.json, scenes.json, overlays.json, ...
  std::filesystem::path stateDir;   // the log
  std::filesystem::path moviesDir;  // the user's videos folder; "Quorvane/..." lives in it

  std::filesystem::path settingsFile() const { return configDir / "settings.json"; }
  std::filesystem::path logFile() const { return stateDir / "QuorvaneCamera.log"; }

  // From the environment (XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_STATE_HOME, HOME and the
  // user-dirs file for the videos folder).
  static AppPaths fromEnvironment();
  // Everything under one folder: DIR/config, DIR/data, DIR/state, DIR/Videos.
  static AppPaths underRoot(const std::filesystem::path& root);
};

// The process-wide locations. Set once by the app before anything is logged or stored;
// until then (and in tests that never set them) they come from the environment.
// Thread-safe.
AppPaths appPaths();
void setAppPaths(AppPaths paths);

// Writes `bytes` to a temporary file beside `file`, flushes it to disk and renames it over
// `file`, so a reader sees the old or the new content and never a torn one. Creates missing
// parent folders. The new file is created with `permissions` (less the umask), so a file
// meant for the user alone is never readable by others, not even while it is being written.
// Returns an error text, or none on success.
std::optional<std::string> writeFileAtomically(
    const std::filesystem::path& file, std::string_view bytes,
    std::filesystem::perms permissions = std::filesystem::perms::owner_read |
                                         std::filesystem::perms::owner_write |
                                         std::filesystem::perms::group_read |
                                         std::filesystem::perms::others_read);

// Reads a whole file; none when it can't be read.
std::optional<std::string> readFile(const std::filesystem::path& file);

// Moves a file that failed to decode out of the way as "NAME.bad-<stamp>" (UTC, to the
// second, with a counter on a clash) so nothing overwrites it. Returns the new path, or none
// when the move failed.
std::optional<std::filesystem::path> moveAside(const std::filesystem::path& file);

}  // namespace qvn
