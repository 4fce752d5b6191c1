// The newest picture of one frame hub slot, fitted into the widget on the studio's
// background. Pictures arrive on the preview queue and wait in a one-picture mailbox; the
// widget repaints from the main thread with the newest only, so a widget that falls behind
// shows the latest picture, never a backlog, and no producer ever waits for it. The picture
// is drawn from the buffer itself, not a copy. Main thread, apart from the mailbox.
#pragma once

#include <QWidget>
#include <cstdint>
#include <memory>

#include "platform/pixel_buffer.h"

namespace qvn {
class FrameHub;
class PixelBufferView;
class SlotFeed;
}  // namespace qvn

namespace qvn::ui {

class PictureWidget : public QWidget {
 public:
  // `maxFramesPerSecond` 0: every picture the slot gets.
  PictureWidget(FrameHub& hub, int slot, double maxFramesPerSecond, QWidget* parent = nullptr);
  ~PictureWidget() override;

  // Showing nothing until the next picture comes, as for a slot whose source went.
  void forget();
  std::uint64_t picturesDrawn() const { return drawn_; }

 protected:
  void paintEvent(QPaintEvent* event) override;

 private:
  struct Mailbox;
  std::shared_ptr<Mailbox> mailbox_;
  std::shared_ptr<PixelBufferView> view_;
  std::unique_ptr<SlotFeed> feed_;
  PixelBufferRef shown_;
  std::uint64_t drawn_ = 0;
};

}  // namespace qvn::ui
