// CameraModel: operations that belong to features built beside the studio core (audio
// routing, switching, the inset, the key commands, scenes, session restore). Start-up and the
// slot rules call them in their places; each does nothing until its feature exists.
#include "studio/camera_model.h"

namespace qvn {

void CameraModel::applyMonitorRouting() {}
void CameraModel::syncAuxOutput() {}
void CameraModel::applyCueMix() {}
void CameraModel::applyStudioMode() {}
void CameraModel::syncPiPToBothPictures() {}
void CameraModel::fillEmptyPreview() {}
void CameraModel::restoreSession() {}
void CameraModel::applyFirstLaunchAudio() {}
void CameraModel::loadScenes() {}

// Program's sound plays on the chosen device.
void CameraModel::setProgramOutput(const std::optional<std::string>& deviceID) {
  hubs_.audio->setProgramOutput(deviceID);
}

// The key commands act through the window's key monitor.
void CameraModel::installKeyMonitor() {
  hubs_.keys->install([](int, unsigned) { return false; });
}

}  // namespace qvn
