// CameraModel: operations that belong to features built beside the studio core (audio
// routing, scenes, media decks, stills and recording, session restore). Start-up and the
// slot rules call them in their places; each does nothing until its feature exists.
#include "studio/camera_model.h"

namespace qvn {

void CameraModel::applyMonitorRouting() {}
void CameraModel::syncAuxOutput() {}
void CameraModel::applyCueMix() {}
void CameraModel::restoreSession() {}
void CameraModel::applyFirstLaunchAudio() {}
void CameraModel::loadScenes() {}
bool CameraModel::recallSceneForKey(int) {
  return false;  // no scenes yet
}
bool CameraModel::performDeckAction(QvnDeckAction) {
  return false;  // no media decks yet
}
void CameraModel::flip(int) {}

// The key commands act through the window's key monitor.
void CameraModel::installKeyMonitor() {
  hubs_.keys->install([](int, unsigned) { return false; });
}

}  // namespace qvn
