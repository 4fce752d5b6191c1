// A panel in a window of its own: a tool window that stays above the studio, titled as the
// panel, with its frame remembered under the panel's name. Closing it puts the panel back
// in the rail. Main thread.
#pragma once

#include <QWidget>

#include "studio/studio_values.h"

namespace qvn {
class Defaults;
class StudioPanelDetach;
}  // namespace qvn

namespace qvn::ui {

class FloatingPanel : public QWidget {
 public:
  FloatingPanel(StudioPanel panel, QWidget* content, StudioPanelDetach& detach, Defaults& settings,
                QWidget* mainWindow);

  StudioPanel panel() const { return panel_; }

 protected:
  void closeEvent(QCloseEvent* event) override;
  void moveEvent(QMoveEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  void rememberFrame();

  const StudioPanel panel_;
  StudioPanelDetach& detach_;
  Defaults& settings_;
  bool placed_ = false;
};

}  // namespace qvn::ui
