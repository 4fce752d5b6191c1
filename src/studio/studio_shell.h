// The app around the model: what happens at launch before the studio starts, and the end
// sequence at quit. Nothing refuses a quit; a running live session or recording only gets
// a bounded moment to end. Main thread.
#pragma once

#include <memory>

#include "studio/camera_model.h"

namespace qvn {

class StudioShell {
 public:
  // `lifecycle` must be the one among `context.hubs`: the shell fires its moments.
  StudioShell(StudioContext context, std::shared_ptr<ManualAppLifecycle> lifecycle);

  CameraModel& model() { return *model_; }

  // Holds off idle sleep and starts the studio.
  void launch();
  // Ends a live session (at most 2 s), sends the last heartbeat (at most 1 s), saves the
  // session file, writes the settings to disk and lets the system sleep again.
  void terminate();

 private:
  StudioHubs hubs_;
  Defaults& settings_;
  std::shared_ptr<ManualAppLifecycle> lifecycle_;
  std::unique_ptr<CameraModel> model_;
};

}  // namespace qvn
