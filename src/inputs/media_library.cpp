#include "inputs/media_library.h"

#include <array>
#include <cctype>

namespace qvn {

namespace fs = std::filesystem;

std::vector<LibraryItem> QvnMediaLibraryFolders::items() {
  MediaLibrary::ensureFolders();
  struct Found {
    LibraryItem item;
    fs::file_time_type modified;
  };
  std::vector<Found> found;
  auto list = [&found](const fs::path& folder, std::array<std::string_view, 3> extensions,
                       const char* kind) {
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
      const fs::path& file = it->path();
      std::string extension = file.extension().string();
      std::transform(extension.begin(), extension.end(), extension.begin(),
                     [](unsigned char c) { return char(std::tolower(c)); });
      std::error_code ignored;
      if (file.filename().string().starts_with(".") || extension.size() < 2 ||
          std::find(extensions.begin(), extensions.end(), extension.substr(1)) ==
              extensions.end() ||
          !it->is_regular_file(ignored))
        continue;
      found.push_back({{file, kind}, it->last_write_time(ignored)});
    }
  };
  list(MediaLibrary::stills(), {"jpg", "jpeg", "png"}, "still");
  list(MediaLibrary::recordings(), {"mov", "mp4", "m4v"}, "recording");
  std::stable_sort(found.begin(), found.end(),
                   [](const Found& a, const Found& b) { return a.modified > b.modified; });
  std::vector<LibraryItem> items;
  items.reserve(found.size());
  for (auto& f : found) items.push_back(std::move(f.item));
  return items;
}

}  // namespace qvn
