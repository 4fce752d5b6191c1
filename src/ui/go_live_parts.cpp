#include "ui/go_live_parts.h"

#include <QLabel>
#include <QLayout>
#include <QPainter>
#include <QPushButton>

#include "ui/qvn_style.h"

namespace qvn::ui {

QLabel* sheetText(const QString& text, QvnColor colour) {
  auto* label = new QLabel(text);
  label->setWordWrap(true);
  label->setStyleSheet(QString("color: %1;").arg(css(colour)));
  return label;
}

QLabel* sheetHeading(const QString& text, int pixelSize) {
  auto* label = new QLabel(text);
  label->setWordWrap(true);
  label->setStyleSheet(QString("font-size: %1px; font-weight: 700;").arg(pixelSize));
  return label;
}

namespace {

QPushButton* filled(const QString& text, QvnColor background, QvnColor foreground) {
  auto* b = new QPushButton(text);
  b->setCursor(Qt::PointingHandCursor);
  b->setStyleSheet(
      QString("QPushButton { background: %1; color: %2; border: none; font-weight: 600;"
              " padding: 9px 16px; }"
              "QPushButton:disabled { background: %3; color: %4; }")
          .arg(css(background), css(foreground), css(Qvn::borderSubtle), css(Qvn::muted)));
  return b;
}

}  // namespace

QPushButton* primaryButton(const QString& text) {
  return filled(text, Qvn::green, Qvn::onAccent);
}

QPushButton* dangerButton(const QString& text) {
  return filled(text, Qvn::live, Qvn::cloud);
}

QPushButton* linkButton(const QString& text) {
  auto* b = new QPushButton(text);
  b->setFlat(true);
  b->setCursor(Qt::PointingHandCursor);
  b->setStyleSheet(QString("QPushButton { border: none; background: transparent; color: %1;"
                           " padding: 2px 0; text-align: left; }"
                           " QPushButton:hover { color: %2; }")
                       .arg(css(Qvn::green), css(Qvn::cloud)));
  return b;
}

void clearLayout(QLayout& layout) {
  while (QLayoutItem* item = layout.takeAt(0)) {
    if (QLayout* inner = item->layout()) clearLayout(*inner);
    delete item->widget();
    delete item;
  }
}

Switch::Switch(QWidget* parent) : QAbstractButton(parent) {
  setCheckable(true);
  setCursor(Qt::PointingHandCursor);
  setFixedSize(sizeHint());
}

QSize Switch::sizeHint() const {
  return {38, 22};
}

void Switch::paintEvent(QPaintEvent*) {
  QPainter p(this);
  p.setRenderHint(QPainter::Antialiasing);
  p.setPen(Qt::NoPen);
  const QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
  QColor fill = isChecked() ? qcolor(Qvn::green) : qcolor(Qvn::border);
  if (!isEnabled()) fill = qcolor(Qvn::borderSubtle);
  p.setBrush(fill);
  p.drawRoundedRect(track, track.height() / 2, track.height() / 2);
  const double knob = track.height() - 4;
  const double x = isChecked() ? track.right() - 2 - knob : track.left() + 2;
  p.setBrush(isEnabled() ? qcolor(Qvn::cloud) : qcolor(Qvn::muted));
  p.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
}

}  // namespace qvn::ui
