#include "ui/sources_strip.h"

#include <QContextMenuEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "studio/camera_model.h"
#include "ui/qvn_style.h"
#include "ui/source_card.h"

namespace qvn::ui {

SourcesStrip::SourcesStrip(CameraModel& model, FrameHub& hub, QWidget* parent)
    : QWidget(parent),
      model_(model),
      hub_(hub),
      help_(new QLabel),
      row_(new QHBoxLayout),
      add_(new QPushButton("+\nAdd input")) {
  auto* title = new QLabel("SOURCES");
  title->setStyleSheet("font-weight: 700; letter-spacing: 1px; font-size: 12px;");
  help_->setStyleSheet(QString("color: %1; font-size: 12px;").arg(css(Qvn::slate)));
  auto* head = new QHBoxLayout;
  head->addWidget(title);
  head->addSpacing(12);
  head->addWidget(help_);
  head->addStretch();

  add_->setFixedSize(120, 146);
  add_->setToolTip("Add an input to the strip");
  add_->setStyleSheet(QString("QPushButton { border: 1px dashed %1; background: transparent;"
                              " color: %2; }")
                          .arg(css(Qvn::border), css(Qvn::slate)));
  connect(add_, &QPushButton::clicked, this, [this] { model_.addOptionalInput(); });

  auto* cards = new QWidget;
  row_->setContentsMargins(0, 0, 0, 0);
  row_->setSpacing(10);
  cards->setLayout(row_);
  auto* scroll = new QScrollArea;
  scroll->setWidget(cards);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll->setFixedHeight(146 + 14);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(8);
  layout->addLayout(head);
  layout->addWidget(scroll);

  auto later = [this](auto work) { return [this, work](const auto&) { (this->*work)(); }; };
  subscriptions_.push_back(model_.displayOrder.subscribe(later(&SourcesStrip::rebuild)));
  subscriptions_.push_back(model_.visibleInputCount.subscribe(later(&SourcesStrip::rebuild)));
  subscriptions_.push_back(model_.studioMode.subscribe(later(&SourcesStrip::refreshCards)));
  subscriptions_.push_back(model_.slots.subscribe(later(&SourcesStrip::refreshCards)));
  subscriptions_.push_back(model_.labels.subscribe(later(&SourcesStrip::refreshCards)));
  subscriptions_.push_back(model_.programSlot.subscribe(later(&SourcesStrip::refreshCards)));
  subscriptions_.push_back(model_.previewSlot.subscribe(later(&SourcesStrip::refreshCards)));
  subscriptions_.push_back(model_.focusedSlot.subscribe(later(&SourcesStrip::refreshCards)));
  rebuild();
}

SourceCard* SourcesStrip::card(int slot) const {
  auto it = cards_.find(slot);
  return it == cards_.end() ? nullptr : it->second;
}

// Cards stay alive across a reorder, so their thumbnails don't blink.
void SourcesStrip::rebuild() {
  std::map<int, SourceCard*> kept;
  while (row_->count() > 0) row_->takeAt(0);
  for (int slot : model_.displayOrder()) {
    if (slot < 1 || slot > CameraModel::kSlotCount) continue;
    SourceCard* c = card(slot);
    if (!c) c = new SourceCard(model_, hub_, slot);
    kept[slot] = c;
    row_->addWidget(c);
  }
  for (auto& [slot, c] : cards_)
    if (!kept.contains(slot)) c->deleteLater();  // it may be inside its own event
  cards_ = std::move(kept);
  row_->addWidget(add_);
  add_->setVisible(int(cards_.size()) < CameraModel::kSlotCount);
  row_->addStretch();
  refreshCards();
}

void SourcesStrip::refreshCards() {
  help_->setText(model_.studioMode()
                     ? "Click or 1–9 for Preview · double-click for Program · drag onto "
                       "either monitor"
                     : "Click to select · double-click, drag, or 1–9 to take");
  for (auto& [slot, c] : cards_) c->refresh();
}

void SourcesStrip::contextMenuEvent(QContextMenuEvent* event) {
  QMenu menu(this);
  if (model_.displayOrderIsManual())
    menu.addAction("Back to numeric order", this, [this] { model_.resetDisplayOrder(); });
  if (model_.canHideOptionalInput())
    menu.addAction("Hide extra input", this, [this] { model_.hideLastOptionalInput(); });
  if (!menu.isEmpty()) menu.exec(event->globalPos());
}

}  // namespace qvn::ui
