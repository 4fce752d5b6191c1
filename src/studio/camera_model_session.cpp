// CameraModel: the session file, which lets the studio come back as the operator left it.
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr double kPersistSeconds = 0.3;

std::filesystem::path sessionFile() {
  return appPaths().dataDir / "session.json";
}

nlohmann::json savedInput(const CameraSlot& row, const std::map<int, bool>& muted) {
  nlohmann::json input = {{"slot", row.index},
                          {"kind", row.kind},
                          {"title", row.title},
                          {"bookmarks", nlohmann::json::array()},
                          {"fileNames", nlohmann::json::array()}};
  if (!row.deviceId.empty()) input["deviceId"] = row.deviceId;
  if (row.kind == "screen") input["screenTitle"] = row.title;
  if (auto m = muted.find(row.index); m != muted.end() && row.kind != "screen")
    input["muted"] = m->second;
  return input;
}

}  // namespace

void CameraModel::schedulePersist() {
  persistWork_.cancel();
  persistWork_ = DelayedWork::schedule(main_, kPersistSeconds, [this] { persistWorkspace(); });
}

void CameraModel::persistWorkspace() {
  persistWork_.cancel();
  const auto file = sessionFile();
  // A session file we can't read is kept aside, never overwritten.
  if (auto existing = readFile(file)) {
    if (!nlohmann::json::accept(*existing))
      if (auto aside = moveAside(file))
        QvnLog::line("session: session.json could not be read — kept it as " +
                     aside->filename().string());
  }

  nlohmann::json rows = nlohmann::json::array();
  for (const auto& row : slots()) {
    if (!row.live || row.isPhone()) continue;
    if (row.kind == "usb" || row.kind == "ndi" || row.kind == "screen")
      rows.push_back(savedInput(row, muted()));
  }
  nlohmann::json mutedJSON = nlohmann::json::object();
  for (const auto& [slot, value] : muted()) mutedJSON[std::to_string(slot)] = value;
  const nlohmann::json session = {{"inputs", rows},
                                  {"programSlot", programSlot()},
                                  {"pipEnabled", pipEnabled()},
                                  {"pipSlot", pipSlot()},
                                  {"pipCorner", std::string(enumText(pipCorner()))},
                                  {"muted", mutedJSON},
                                  {"programAlwaysOnTop", programAlwaysOnTop()}};
  // A failed write is ignored: the next one tries again.
  writeFileAtomically(file, session.dump());
}

}  // namespace qvn
