#include "ui/t_bar.h"

#include <QMouseEvent>
#include <QPainter>
#include <algorithm>

#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {
constexpr double kHandleHeight = 22;
}

TBar::TBar(QWidget* parent) : QWidget(parent) {
  setMinimumSize(56, 160);
  setMaximumHeight(360);  // a bar longer than a hand's travel only slows the take
  setCursor(Qt::SizeVerCursor);
  setToolTip("Drag to take Preview to Program; let go before half way to stay");
}

void TBar::display(double progress, bool restsAtTop) {
  progress_ = progress;
  restsAtTop_ = restsAtTop;
  update();
}

double TBar::trackTop() const {
  return kHandleHeight / 2 + 4;
}

double TBar::trackLength() const {
  return std::max(1.0, height() - 2 * trackTop());
}

double TBar::handleY(double progress) const {
  const double along = restsAtTop_ ? progress : 1 - progress;
  return trackTop() + along * trackLength();
}

double TBar::progressAt(double y) const {
  const double along = std::clamp((y - trackTop()) / trackLength(), 0.0, 1.0);
  return restsAtTop_ ? along : 1 - along;
}

void TBar::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const double x = width() / 2.0;
  const QRectF track(x - 3, trackTop(), 6, trackLength());
  painter.setPen(Qt::NoPen);
  painter.setBrush(qcolor(Qvn::deepNavy));
  painter.drawRoundedRect(track, 3, 3);
  // The part already pushed shows in the on-air colour.
  const double y = handleY(progress_);
  const double from = restsAtTop_ ? trackTop() : y;
  const double to = restsAtTop_ ? y : trackTop() + trackLength();
  painter.setBrush(qcolor(Qvn::live));
  painter.drawRoundedRect(QRectF(x - 3, from, 6, to - from), 3, 3);
  const QRectF handle(4, y - kHandleHeight / 2, width() - 8, kHandleHeight);
  painter.setBrush(qcolor(dragging_ ? Qvn::cloud : Qvn::slate));
  painter.drawRoundedRect(handle, 5, 5);
  painter.setPen(QPen(qcolor(Qvn::panel), 2));
  painter.drawLine(QPointF(handle.left() + 8, y), QPointF(handle.right() - 8, y));
}

void TBar::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  dragging_ = true;
  if (onMove) onMove(progressAt(event->position().y()));
  update();
}

void TBar::mouseMoveEvent(QMouseEvent* event) {
  if (dragging_ && onMove) onMove(progressAt(event->position().y()));
}

void TBar::mouseReleaseEvent(QMouseEvent* event) {
  if (!dragging_ || event->button() != Qt::LeftButton) return;
  dragging_ = false;
  if (onMove) onMove(progressAt(event->position().y()));  // where it was let go counts
  if (onRelease) onRelease();
  update();
}

}  // namespace qvn::ui
