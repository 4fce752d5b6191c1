#include "studio/studio_shell.h"

#include "platform/defaults.h"
#include "support/qvn_log.h"

namespace qvn {

StudioShell::StudioShell(StudioContext context, std::shared_ptr<ManualAppLifecycle> lifecycle)
    : hubs_(context.hubs), settings_(context.settings), lifecycle_(std::move(lifecycle)) {
  if (auto note = settings_.recoveryNote()) QvnLog::line(*note);
  model_ = std::make_unique<CameraModel>(std::move(context));
}

void StudioShell::launch() {
  // A failure is logged by the model's start, which asks again a moment later.
  hubs_.stayAwake->start();
  model_->start();
}

void StudioShell::terminate() {
  hubs_.cloud->endLiveBlocking(2.0);
  hubs_.telemetry->heartbeatAtQuit(1.0);
  lifecycle_->willTerminate();  // the model saves its session here
  settings_.synchronize();
  hubs_.stayAwake->stop();
}

}  // namespace qvn
