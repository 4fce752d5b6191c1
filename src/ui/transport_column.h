// Between the monitors: Take, the T-bar, the transition and its length, and the switch
// between Single and Studio style. Take and the T-bar are there only in Studio style, where
// Preview exists. Main thread.
#pragma once

#include <QWidget>
#include <vector>

#include "support/observable.h"

class QComboBox;
class QDoubleSpinBox;
class QPushButton;

namespace qvn {
class CameraModel;
}

namespace qvn::ui {

class TBar;

class TransportColumn : public QWidget {
 public:
  explicit TransportColumn(CameraModel& model, QWidget* parent = nullptr);

  TBar& tBar() { return *tBar_; }

 private:
  void refresh();

  CameraModel& model_;
  QPushButton* take_;
  TBar* tBar_;
  QComboBox* kind_;
  QDoubleSpinBox* seconds_;
  QPushButton* single_;
  QPushButton* studio_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
