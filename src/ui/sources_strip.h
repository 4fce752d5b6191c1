// The Sources strip: a card per visible input in display order, the help line, and a last
// place that adds an input. Follows the model's slots, order and tally. Main thread.
#pragma once

#include <QWidget>
#include <map>
#include <vector>

#include "support/observable.h"

class QHBoxLayout;
class QLabel;
class QPushButton;

namespace qvn {
class CameraModel;
class FrameHub;
}  // namespace qvn

namespace qvn::ui {

class SourceCard;

class SourcesStrip : public QWidget {
 public:
  SourcesStrip(CameraModel& model, FrameHub& hub, QWidget* parent = nullptr);

  // The card of a slot; none while the slot isn't in the strip.
  SourceCard* card(int slot) const;

 protected:
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  void rebuild();
  void refreshCards();

  CameraModel& model_;
  FrameHub& hub_;
  QLabel* help_;
  QHBoxLayout* row_;
  QPushButton* add_;
  std::map<int, SourceCard*> cards_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
