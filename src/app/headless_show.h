// A show without an operator: every few seconds the next live input goes to Program, by a cut
// and by a fade in turn, and with the inset on it shows the input after that one. For demos on
// a machine without a window and for measuring a whole show. Main thread.
#pragma once

#include "platform/dispatch.h"

namespace qvn {
class CameraModel;
}

class HeadlessShow {
 public:
  HeadlessShow(qvn::CameraModel& model, qvn::Queue& main, double everySeconds, bool inset);

 private:
  void next();

  qvn::CameraModel& model_;
  bool inset_;
  bool fadeNext_ = false;
  qvn::RepeatingTimer timer_;
};
