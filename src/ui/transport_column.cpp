#include "ui/transport_column.h"

#include <QButtonGroup>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "studio/camera_model.h"
#include "ui/qvn_style.h"
#include "ui/t_bar.h"

namespace qvn::ui {

namespace {

QLabel* caption(const char* text) {
  auto* label = new QLabel(text);
  label->setAlignment(Qt::AlignCenter);
  label->setStyleSheet(QString("color: %1; font-size: 11px;").arg(css(Qvn::slate)));
  return label;
}

}  // namespace

TransportColumn::TransportColumn(CameraModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      take_(new QPushButton("Take")),
      tBar_(new TBar),
      kind_(new QComboBox),
      seconds_(new QDoubleSpinBox),
      single_(new QPushButton("Single")),
      studio_(new QPushButton("Studio")) {
  setFixedWidth(132);
  take_->setObjectName("take");
  take_->setToolTip("Preview to Program (Space)");
  connect(take_, &QPushButton::clicked, this,
          [this] { model_.takePreview(model_.mixTransition()); });
  tBar_->onMove = [this](double progress) { model_.moveTBar(progress); };
  tBar_->onRelease = [this] { model_.releaseTBar(); };

  kind_->addItem("Cut", int(MixTransition::instant));
  kind_->addItem("Fade", int(MixTransition::fade));
  kind_->addItem("Slide", int(MixTransition::slide));
  connect(kind_, &QComboBox::activated, this, [this](int index) {
    model_.mixTransition = MixTransition(kind_->itemData(index).toInt());
    model_.saveSettings();
  });
  seconds_->setRange(0.1, 5.0);
  seconds_->setSingleStep(0.05);
  seconds_->setDecimals(2);
  seconds_->setSuffix(" s");
  seconds_->setAlignment(Qt::AlignCenter);
  seconds_->setButtonSymbols(QAbstractSpinBox::NoButtons);
  connect(seconds_, &QDoubleSpinBox::editingFinished, this,
          [this] { model_.setDissolveSeconds(seconds_->value()); });

  for (QPushButton* b : {single_, studio_}) {
    b->setCheckable(true);
    b->setStyleSheet("padding: 4px 6px; font-size: 12px;");
  }
  auto* group = new QButtonGroup(this);
  group->addButton(single_);
  group->addButton(studio_);
  connect(single_, &QPushButton::clicked, this, [this] { model_.chooseStudioMode(false); });
  connect(studio_, &QPushButton::clicked, this, [this] { model_.chooseStudioMode(true); });
  auto* modes = new QHBoxLayout;
  modes->setSpacing(4);
  modes->addWidget(single_);
  modes->addWidget(studio_);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 22, 0, 0);
  layout->setSpacing(8);
  layout->addLayout(modes);
  layout->addSpacing(6);
  layout->addWidget(take_);
  layout->addWidget(tBar_, 1, Qt::AlignHCenter);
  layout->addWidget(caption("TRANSITION"));
  layout->addWidget(kind_);
  layout->addWidget(seconds_);
  layout->addStretch(0);  // takes the room only while the T-bar is away

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(model_.studioMode.subscribe(again));
  subscriptions_.push_back(model_.previewSlot.subscribe(again));
  subscriptions_.push_back(model_.waitingForPicture.subscribe(again));
  subscriptions_.push_back(model_.slots.subscribe(again));
  subscriptions_.push_back(model_.tBarProgress.subscribe(again));
  subscriptions_.push_back(model_.tBarAtTop.subscribe(again));
  subscriptions_.push_back(model_.mixTransition.subscribe(again));
  subscriptions_.push_back(model_.dissolveSeconds.subscribe(again));
  refresh();
}

void TransportColumn::refresh() {
  const bool studio = model_.studioMode();
  single_->setChecked(!studio);
  studio_->setChecked(studio);
  take_->setVisible(studio);
  tBar_->setVisible(studio);
  take_->setEnabled(model_.canTake());
  tBar_->setEnabled(model_.canTake());
  tBar_->display(model_.tBarProgress(), model_.tBarAtTop());
  kind_->setCurrentIndex(kind_->findData(int(model_.mixTransition())));
  if (!seconds_->hasFocus()) seconds_->setValue(model_.dissolveSeconds());
  seconds_->setEnabled(model_.mixTransition() != MixTransition::instant);
}

}  // namespace qvn::ui
