// A monitor: Preview or Program, its name above the picture, and a target for cards dragged
// from the Sources strip. Main thread.
#pragma once

#include <QFrame>
#include <functional>

class QLabel;

namespace qvn {
class FrameHub;
}

namespace qvn::ui {

class PictureWidget;

class MonitorView : public QFrame {
 public:
  // `onDrop` gets the slot of a card dropped on the monitor.
  MonitorView(FrameHub& hub, int slot, const QString& name, std::function<void(int)> onDrop,
              QWidget* parent = nullptr);

  PictureWidget& picture() { return *picture_; }
  void setCaption(const QString& text);
  // Program's name is live red while it is on air, Preview's green.
  void setNameColor(const QColor& color);

 protected:
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  PictureWidget* picture_;
  QLabel* name_;
  QLabel* caption_;
  QWidget* head_;
  std::function<void(int)> onDrop_;
};

}  // namespace qvn::ui
