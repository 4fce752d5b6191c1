// The studio's own stills and recordings: the folder they live in, how they are named, and
// what is there, sorted by kind.
#pragma once

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "platform/files.h"

namespace qvn {

struct LibraryItem {
  std::filesystem::path file;
  std::string kind;  // "still" or "recording"
  bool operator==(const LibraryItem&) const = default;
};

// "Quorvane" in the user's videos folder, and its two folders. Inline, so that stills and the
// recorder name and place their files by this one definition without linking the inputs.
namespace MediaLibrary {

inline std::filesystem::path root() {
  return appPaths().moviesDir / "Quorvane";
}
inline std::filesystem::path stills() {
  return root() / "Stills";
}
inline std::filesystem::path recordings() {
  return root() / "Recordings";
}

// Makes both folders with their parents. A failure is left to the write into them to report.
inline void ensureFolders() {
  std::error_code ignored;
  std::filesystem::create_directories(stills(), ignored);
  std::filesystem::create_directories(recordings(), ignored);
}

// "{prefix}_{yyyy-MM-dd_HH-mm-ss}.{ext}" in local time, the name of what the studio puts in
// its folders. A '/' in `prefix` becomes '-', so that the name stays in the folder.
inline std::string stamp(std::string_view prefix, std::string_view ext,
                         std::time_t when = std::time(nullptr)) {
  std::tm local{};
  ::localtime_r(&when, &local);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d_%H-%M-%S", &local);
  std::string name(prefix);
  std::replace(name.begin(), name.end(), '/', '-');
  return name.append("_").append(date).append(".").append(ext);
}

}  // namespace MediaLibrary

class QvnMediaLibrary {
 public:
  virtual ~QvnMediaLibrary() = default;
  virtual std::vector<LibraryItem> items() = 0;
  // Makes the folders the studio writes stills and recordings into.
  virtual void ensureFolders() = 0;
};

// The library on the disk. Any thread; it reads two folders.
class QvnMediaLibraryFolders final : public QvnMediaLibrary {
 public:
  // Makes the folders, then lists the pictures in Stills (jpg, jpeg, png) and the movies in
  // Recordings (mov, mp4, m4v), hidden files left out, newest first. A folder that can't be
  // read adds nothing.
  std::vector<LibraryItem> items() override;
  void ensureFolders() override { MediaLibrary::ensureFolders(); }
};

}  // namespace qvn
