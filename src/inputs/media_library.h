// The operator's stills and recordings, sorted by kind.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace qvn {

struct LibraryItem {
  std::filesystem::path file;
  std::string kind;
  bool operator==(const LibraryItem&) const = default;
};

class QvnMediaLibrary {
 public:
  virtual ~QvnMediaLibrary() = default;
  virtual std::vector<LibraryItem> items() = 0;
  // Makes the folders the studio writes stills and recordings into.
  virtual void ensureFolders() = 0;
};

class QvnMediaLibraryNotYetAvailable final : public QvnMediaLibrary {
 public:
  std::vector<LibraryItem> items() override { return {}; }
  void ensureFolders() override {}
};

}  // namespace qvn
