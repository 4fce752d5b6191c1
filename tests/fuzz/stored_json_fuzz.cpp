// Stored JSON comes back from disk in whatever state a crash, a full disk or a hand edit left
// it: every decoder must answer "not readable" instead of crashing, and the settings store
// must move a bad file aside and start empty.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "outputs/record_options.h"
#include "overlays/overlay_look.h"
#include "platform/defaults.h"
#include "platform/files.h"
#include "video/pip_layout.h"

namespace {

const std::filesystem::path& scratch() {
  static const std::filesystem::path dir = [] {
    char name[] = "/tmp/qvn-fuzz-XXXXXX";
    return std::filesystem::path(mkdtemp(name));
  }();
  return dir;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto layout = qvn::QvnPiPLayout::fromJSON(text))
    (void)qvn::QvnPiPLayout::fromJSON(layout->toJSON());
  if (auto options = qvn::RecordOptions::fromJSON(text))
    (void)qvn::RecordOptions::fromJSON(options->toJSON());
  (void)qvn::OverlayLook::fromJSON(text);

  // The settings file: loaded, kept aside when bad, and written back when good.
  std::filesystem::remove_all(scratch());
  std::filesystem::create_directories(scratch());
  const auto file = scratch() / "settings.json";
  qvn::writeFileAtomically(file, text);
  qvn::Defaults settings(file);
  settings.set("qvn.fuzz", true);
  settings.synchronize();
  return 0;
}
