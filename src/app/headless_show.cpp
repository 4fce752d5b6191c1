#include "app/headless_show.h"

#include <algorithm>

#include "studio/camera_model.h"

HeadlessShow::HeadlessShow(qvn::CameraModel& model, qvn::Queue& main, double everySeconds,
                           bool inset)
    : model_(model), inset_(inset), timer_(main, everySeconds, [this] { next(); }) {}

void HeadlessShow::next() {
  const auto live = model_.liveInDisplayOrder();
  if (live.size() < 2) return;
  const auto onAir = std::find(live.begin(), live.end(), model_.programSlot());
  const size_t at = onAir == live.end() ? 0 : size_t(onAir - live.begin()) + 1;
  const int program = live[at % live.size()];
  model_.take(program, fadeNext_ ? qvn::MixTransition::fade : qvn::MixTransition::instant);
  fadeNext_ = !fadeNext_;
  if (!inset_) return;
  const int inset = live[(at + 1) % live.size()];
  if (inset != program)
    model_.setPiP(model_.pipEnabled() ? std::nullopt : std::optional(true), inset);
}
