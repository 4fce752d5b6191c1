// The T-bar: a handle dragged along a track from its resting end to the other. It rests at
// the bottom or, after a take made with it, at the top, as a real bar stays where it was
// pushed. Dragging reports the progress away from the resting end; letting go reports the
// release. Main thread.
#pragma once

#include <QWidget>
#include <functional>

namespace qvn::ui {

class TBar : public QWidget {
 public:
  explicit TBar(QWidget* parent = nullptr);

  std::function<void(double progress)> onMove;
  std::function<void()> onRelease;

  // What the model says: how far the bar is, and which end it rests at.
  void display(double progress, bool restsAtTop);
  // The handle's centre for a progress, in the widget's coordinates (for tests and drawing).
  double handleY(double progress) const;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;

 private:
  double progressAt(double y) const;
  double trackTop() const;
  double trackLength() const;

  double progress_ = 0;
  bool restsAtTop_ = false;
  bool dragging_ = false;
};

}  // namespace qvn::ui
