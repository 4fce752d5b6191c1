// Inside the studio model only: how hub callbacks reach the model on the main queue.
#pragma once

#include "studio/camera_model.h"

namespace qvn {

// What callbacks hold instead of the model: weakly, so one that arrives after the model is
// gone finds nothing and does nothing. Only the main thread creates, checks or drops it.
struct CameraModel::Anchor {
  CameraModel* model;
};

// Wraps model work as a hub callback: whatever thread the hub calls from, the work runs
// later as a job on the main queue, in the order the hub called.
template <class F>
auto CameraModel::hop(F work) {
  return [&main = main_, anchor = std::weak_ptr(anchor_), work](auto... args) {
    main.async([anchor, work, args...] {
      if (auto alive = anchor.lock()) work(*alive->model, args...);
    });
  };
}

}  // namespace qvn
