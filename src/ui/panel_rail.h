// The rail at the window's right: a button per panel, the open panel under them, and the
// panels that live in windows of their own. What the rail shows follows the model's
// `panel`, `inspectorCollapsed` and the detached set; the buttons call `togglePanel`.
// Main thread.
#pragma once

#include <QWidget>
#include <map>
#include <memory>
#include <vector>

#include "studio/studio_values.h"
#include "support/observable.h"

class QLabel;
class QPushButton;
class QStackedWidget;
class QVBoxLayout;

namespace qvn {
class CameraModel;
class Defaults;
}  // namespace qvn

namespace qvn::ui {

class FloatingPanel;

class PanelRail : public QWidget {
 public:
  PanelRail(CameraModel& model, Defaults& settings, QWidget* parent = nullptr);
  ~PanelRail() override;

  QPushButton* button(StudioPanel panel) const;
  // The panel the rail shows now; none while it is folded.
  std::optional<StudioPanel> shownPanel() const;
  FloatingPanel* floating(StudioPanel panel) const;

 private:
  QWidget* makePage(StudioPanel panel, bool inWindow);
  void refresh();
  void followDetached();

  CameraModel& model_;
  Defaults& settings_;
  std::map<StudioPanel, QPushButton*> buttons_;
  std::map<StudioPanel, QWidget*> pages_;
  QStackedWidget* stack_;
  QWidget* body_;
  std::map<StudioPanel, FloatingPanel*> windows_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
