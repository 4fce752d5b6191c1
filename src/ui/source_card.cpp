#include "ui/source_card.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QDrag>
#include <QLabel>
#include <QMenu>
#include <QMouseEvent>
#include <QPainter>
#include <QVBoxLayout>

#include "studio/camera_model.h"
#include "studio/studio_panel.h"
#include "ui/picture_widget.h"
#include "ui/qvn_style.h"
#include "ui/slot_drag.h"

namespace qvn::ui {

namespace {
constexpr int kEdge = 3;  // the tally edge's width
}

SourceCard::SourceCard(CameraModel& model, FrameHub& hub, int slot, QWidget* parent)
    : QFrame(parent),
      model_(model),
      slot_(slot),
      picture_(new PictureWidget(hub, slot, kThumbnailsPerSecond, this)),
      title_(new QLabel),
      detail_(new QLabel) {
  setFixedSize(176, 146);
  setCursor(Qt::PointingHandCursor);
  picture_->setFixedSize(176 - 2 * kEdge - 2, 96);
  picture_->setAttribute(Qt::WA_TransparentForMouseEvents);
  title_->setStyleSheet("font-weight: 600;");
  detail_->setStyleSheet(QString("color: %1; font-size: 11px;").arg(css(Qvn::slate)));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(kEdge + 1, kEdge + 1, kEdge + 1, kEdge + 1);
  layout->setSpacing(3);
  layout->addWidget(picture_);
  layout->addWidget(title_);
  layout->addWidget(detail_);
  layout->addStretch();
  refresh();
}

void SourceCard::refresh() {
  const CameraSlot& row = model_.slots()[size_t(slot_ - 1)];
  live_ = row.live;
  const QString name = QString::fromStdString(row.live ? row.displayName() : row.inputName());
  title_->setText(QString("%1  %2").arg(slot_).arg(
      title_->fontMetrics().elidedText(name, Qt::ElideRight, width() - 40)));
  QString detail = QString::fromStdString(row.live ? row.status : "Empty");
  if (row.live && !row.resolution.empty())
    detail += QString("  ·  %1").arg(QString::fromStdString(row.resolution));
  detail_->setText(detail);
  if (!row.live) picture_->forget();  // an empty slot shows the bare background
  const auto tally = model_.tallyColor(slot_);
  tally_ = tally ? std::optional(qcolor(*tally)) : std::nullopt;
  update();
}

void SourceCard::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  const QRectF box = QRectF(rect()).adjusted(1, 1, -1, -1);
  painter.setBrush(qcolor(live_ ? Qvn::panel : Qvn::deepNavy));
  painter.setPen(tally_ ? QPen(*tally_, kEdge) : QPen(qcolor(Qvn::border), 1));
  painter.drawRoundedRect(box.adjusted(kEdge / 2.0, kEdge / 2.0, -kEdge / 2.0, -kEdge / 2.0), 8, 8);
}

void SourceCard::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return QFrame::mousePressEvent(event);
  pressedAt_ = event->position().toPoint();
  if (!live_) return;
  // Preview in Studio style; in Single style a click only selects.
  if (model_.studioMode())
    model_.setPreview(slot_);
  else
    model_.selectInput(slot_);
}

void SourceCard::mouseMoveEvent(QMouseEvent* event) {
  if (!pressedAt_ || !live_ || !(event->buttons() & Qt::LeftButton)) return;
  if ((event->position().toPoint() - *pressedAt_).manhattanLength() <
      QApplication::startDragDistance())
    return;
  pressedAt_.reset();
  auto* drag = new QDrag(this);
  drag->setMimeData(slotMime(slot_));
  drag->setPixmap(grab().scaledToWidth(120, Qt::SmoothTransformation));
  drag->exec(Qt::CopyAction);
}

void SourceCard::mouseDoubleClickEvent(QMouseEvent* event) {
  if (event->button() == Qt::LeftButton && live_) model_.take(slot_, model_.mixTransition());
}

void SourceCard::contextMenuEvent(QContextMenuEvent* event) {
  QMenu menu(this);
  auto add = [&](const char* text, bool enabled, auto action) {
    menu.addAction(text, action)->setEnabled(enabled);
  };
  add("Show on Preview", live_ && model_.studioMode(), [this] { model_.setPreview(slot_); });
  add("Put on Program", live_, [this] { model_.take(slot_, model_.mixTransition()); });
  add("Capture a screenshot", live_, [this] { model_.captureStill(slot_); });
  menu.addSeparator();
  add("Source Settings…", live_, [this] {
    model_.selectInput(slot_);
    model_.showPanel(StudioPanel::inspector);
  });
  add("Remove this source", model_.localLive().contains(slot_),
      [this] { model_.detachLocal(slot_); });
  menu.exec(event->globalPos());
}

}  // namespace qvn::ui
