// One input of the Sources strip: a live thumbnail at 15 pictures a second, the input's
// number and name, its status and size, and the tally edge. Click, double-click, drag and
// its menu act on the model as the strip's help says. Main thread.
#pragma once

#include <QFrame>
#include <QPoint>
#include <optional>

class QLabel;

namespace qvn {
class CameraModel;
class FrameHub;
}  // namespace qvn

namespace qvn::ui {

class PictureWidget;

class SourceCard : public QFrame {
 public:
  static constexpr double kThumbnailsPerSecond = 15;

  SourceCard(CameraModel& model, FrameHub& hub, int slot, QWidget* parent = nullptr);

  int slot() const { return slot_; }
  // Reads the slot's row, tally and name from the model.
  void refresh();
  PictureWidget& picture() { return *picture_; }

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseDoubleClickEvent(QMouseEvent* event) override;
  void contextMenuEvent(QContextMenuEvent* event) override;

 private:
  CameraModel& model_;
  const int slot_;
  PictureWidget* picture_;
  QLabel* title_;
  QLabel* detail_;
  std::optional<QColor> tally_;
  bool live_ = false;
  std::optional<QPoint> pressedAt_;
};

}  // namespace qvn::ui
