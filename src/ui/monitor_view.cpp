#include "ui/monitor_view.h"

#include <QDragEnterEvent>
#include <QDropEvent>
#include <QHBoxLayout>
#include <QLabel>

#include "ui/picture_widget.h"
#include "ui/qvn_style.h"
#include "ui/slot_drag.h"

namespace qvn::ui {

MonitorView::MonitorView(FrameHub& hub, int slot, const QString& name,
                         std::function<void(int)> onDrop, QWidget* parent)
    : QFrame(parent),
      picture_(new PictureWidget(hub, slot, 0, this)),
      name_(new QLabel(name)),
      caption_(new QLabel),
      head_(new QWidget(this)),
      onDrop_(std::move(onDrop)) {
  setAcceptDrops(true);
  caption_->setStyleSheet(QString("color: %1; font-size: 12px;").arg(css(Qvn::slate)));
  auto* head = new QHBoxLayout(head_);
  head->setContentsMargins(2, 0, 2, 0);
  head->addWidget(name_);
  head->addStretch();
  head->addWidget(caption_);
  setNameColor(qcolor(Qvn::cloud));
}

void MonitorView::setCaption(const QString& text) {
  caption_->setText(text);
}

void MonitorView::setNameColor(const QColor& color) {
  name_->setStyleSheet(QString("font-weight: 700; letter-spacing: 1px; font-size: 12px; color: %1;")
                           .arg(color.name()));
}

// The picture as large as 16:9 allows, its name row right above it, both in the middle.
void MonitorView::resizeEvent(QResizeEvent* event) {
  QFrame::resizeEvent(event);
  constexpr int kHead = 22, kGap = 6;
  const QSize fitted =
      QSize(16, 9).scaled(QSize(width(), height() - kHead - kGap), Qt::KeepAspectRatio);
  const int left = (width() - fitted.width()) / 2;
  const int top = (height() - fitted.height() - kHead - kGap) / 2;
  head_->setGeometry(left, top, fitted.width(), kHead);
  picture_->setGeometry(left, top + kHead + kGap, fitted.width(), fitted.height());
}

void MonitorView::dragEnterEvent(QDragEnterEvent* event) {
  if (slotOf(event->mimeData())) event->acceptProposedAction();
}

void MonitorView::dropEvent(QDropEvent* event) {
  if (auto slot = slotOf(event->mimeData())) {
    event->acceptProposedAction();
    if (onDrop_) onDrop_(*slot);
  }
}

}  // namespace qvn::ui
