#include "ui/picture_widget.h"

#include <QImage>
#include <QMetaObject>
#include <QPainter>
#include <mutex>

#include "ui/qvn_style.h"
#include "video/frame_hub.h"
#include "video/pixel_buffer_view.h"

namespace qvn::ui {

// Shared by the widget and the preview queue. The widget detaches itself under the lock
// before it goes, so a picture arriving then posts nothing.
struct PictureWidget::Mailbox {
  std::mutex lock;
  PixelBufferRef newest;
  QWidget* target = nullptr;
  bool repaintPosted = false;

  void offer(const PixelBufferRef& buffer) {
    std::lock_guard hold(lock);
    newest = buffer;
    if (!target || repaintPosted) return;
    repaintPosted = true;
    QMetaObject::invokeMethod(
        target, [widget = target] { widget->update(); }, Qt::QueuedConnection);
  }
  PixelBufferRef take() {
    std::lock_guard hold(lock);
    repaintPosted = false;
    return std::move(newest);
  }
};

PictureWidget::PictureWidget(FrameHub& hub, int slot, double maxFramesPerSecond, QWidget* parent)
    : QWidget(parent), mailbox_(std::make_shared<Mailbox>()) {
  mailbox_->target = this;
  setAttribute(Qt::WA_OpaquePaintEvent);
  view_ = PixelBufferView::make(
      [mailbox = mailbox_](const PixelBufferRef& buffer) { mailbox->offer(buffer); },
      maxFramesPerSecond);
  feed_ = std::make_unique<SlotFeed>(hub, view_, slot);
}

PictureWidget::~PictureWidget() {
  feed_.reset();
  std::lock_guard hold(mailbox_->lock);
  mailbox_->target = nullptr;
}

void PictureWidget::forget() {
  mailbox_->take();
  shown_.reset();
  update();
}

void PictureWidget::paintEvent(QPaintEvent*) {
  if (auto newest = mailbox_->take()) shown_ = std::move(newest);
  QPainter painter(this);
  painter.fillRect(rect(), qcolor(Qvn::voidBlack));
  if (!shown_ || shown_->format() != PixelFormat::bgra) return;
  // BGRA in memory is Qt's 32-bit RGB on this little-endian machine: the buffer is wrapped,
  // and held by `shown_` for as long as it is on screen.
  const QImage image(shown_->data(0), shown_->width(), shown_->height(), int(shown_->stride(0)),
                     QImage::Format_RGB32);
  QSizeF fitted = QSizeF(image.size()).scaled(size(), Qt::KeepAspectRatio);
  const QRectF target(QPointF((width() - fitted.width()) / 2, (height() - fitted.height()) / 2),
                      fitted);
  painter.setRenderHint(QPainter::SmoothPixmapTransform);
  painter.drawImage(target, image);
  ++drawn_;
}

}  // namespace qvn::ui
