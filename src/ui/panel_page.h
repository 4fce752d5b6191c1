// One panel as the rail or its own window shows it: the title, the subtitle, and what the
// panel holds. The Source panel describes the selected input; the other panels' controls
// come with the parts of the studio that own their state. Main thread.
#pragma once

#include <QWidget>
#include <functional>
#include <vector>

#include "studio/studio_values.h"
#include "support/observable.h"

class QLabel;

namespace qvn {
class CameraModel;
}

namespace qvn::ui {

class PanelPage : public QWidget {
 public:
  // `detach`, when given, is offered as a button that moves the panel to its own window.
  PanelPage(CameraModel& model, StudioPanel panel, std::function<void()> detach,
            QWidget* parent = nullptr);

 private:
  void describeSource();

  CameraModel& model_;
  QLabel* body_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
