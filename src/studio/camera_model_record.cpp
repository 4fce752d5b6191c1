// Recording Program to a movie: start and stop, the elapsed time and size while it runs,
// and where the files go; and still pictures. Main thread.
#include <cmath>
#include <cstdio>
#include <system_error>

#include "inputs/media_library.h"
#include "platform/files.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"
#include "video/still_capture.h"

namespace qvn {

namespace {

constexpr double kRecordTick = 0.5;

// Decimal units, as file managers show sizes.
std::string bytesText(std::uintmax_t bytes) {
  const char* units[] = {"bytes", "KB", "MB", "GB", "TB"};
  double value = double(bytes);
  int unit = 0;
  while (value >= 1000 && unit < 4) {
    value /= 1000;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", value, units[unit]);
  return text;
}

}  // namespace

std::filesystem::path CameraModel::recordFolder() const {
  return recordOptions().folderOr(MediaLibrary::recordings());
}

std::optional<std::string> CameraModel::recordFreeSpaceLabel() const {
  // The folder may not exist yet: its nearest existing parent is on the same disk.
  std::filesystem::path folder = recordFolder();
  std::error_code error;
  while (!folder.empty() && !std::filesystem::exists(folder, error) && folder.has_parent_path() &&
         folder.parent_path() != folder)
    folder = folder.parent_path();
  const auto space = std::filesystem::space(folder, error);
  if (error) return std::nullopt;
  return bytesText(space.available) + " free";
}

void CameraModel::toggleRecording() {
  if (recording())
    stopRecord();
  else
    startRecord();
}

void CameraModel::startRecord() {
  if (!heroSlot() && programSlot() == 0) {
    flash("Add a source first");
    return;
  }
  auto file = hubs_.recorder->start(0, RecordAudioSource::from(recordAudioChoice()),
                                    recordOptions(), std::nullopt);
  if (!file) {
    flash("Could not start recording");
    return;
  }
  recording = true;
  recordElapsed = 0;
  recordFileSize = 0;
  recordURL = file;
  const double startedAt = main_.now();
  recordTimer_ = RepeatingTimer(main_, kRecordTick, [this, startedAt, path = *file] {
    recordElapsed = main_.now() - startedAt;
    std::error_code error;
    const auto size = std::filesystem::file_size(path, error);
    recordFileSize = error ? 0 : std::int64_t(size);
  });
  flash("Recording started");
}

void CameraModel::stopRecord() {
  hubs_.recorder->stop();
}

void CameraModel::captureStill(int slot) {
  if (slot < 0) {
    flash("Nothing to capture yet");
    return;
  }
  const std::string name = slot == 0 ? "Mix" : "Source-" + std::to_string(slot);
  stillFlash = true;
  stillFlashWork_.cancel();
  stillFlashWork_ = DelayedWork::schedule(main_, 0.18, [this] { stillFlash = false; });
  const auto file = StillCapture::save(*hubs_.frames, slot, name);
  if (!file) {
    flash("No frame yet for that source");
    return;
  }
  lastStillURL = file;
  const auto size = hubs_.frames->size(slot);
  flash("Screenshot saved · " + std::to_string(int(size.width)) + "×" +
        std::to_string(int(size.height)));
}

void CameraModel::captureAllStills() {
  int saved = 0;
  for (int slot : liveInDisplayOrder())
    if (StillCapture::save(*hubs_.frames, slot, "Source-" + std::to_string(slot))) ++saved;
  if (StillCapture::save(*hubs_.frames, 0, "Mix")) ++saved;
  flash(saved == 0 ? "Nothing to capture yet" : "Saved " + std::to_string(saved) + " screenshots");
}

}  // namespace qvn
