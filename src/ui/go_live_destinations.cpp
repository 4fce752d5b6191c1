#include "ui/go_live_destinations.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QScrollArea>
#include <QVBoxLayout>

#include "cloud/cloud_account.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

QString destinationStatus(const QvnCloud::Destination& d) {
  if (!d.hasKey) return "Not connected";
  if (!d.lastError.empty()) return "Connected · Last stream had a problem";
  return d.isEnabled ? "Connected · Ready" : "Connected · Off";
}

DestinationRow::DestinationRow(QvnCloudAccount& account, UrlOpener open, QWidget* parent)
    : QFrame(parent),
      account_(account),
      open_(std::move(open)),
      name_(new QLabel),
      platform_(sheetText("", Qvn::muted)),
      status_(sheetText("")),
      switch_(new Switch),
      connect_(new QWidget),
      connectText_(sheetText("")),
      connectButton_(new QPushButton),
      detailsButton_(linkButton("Show details")),
      details_(new QWidget),
      detailName_(new QLabel),
      detailKey_(new QLabel),
      lastError_(sheetText("", Qvn::warning)) {
  setObjectName("destinationRow");
  setStyleSheet(QString("QFrame#destinationRow { background: %1; border: 1px solid %2;"
                        " border-radius: 10px; }")
                    .arg(css(Qvn::voidBlack), css(Qvn::border)));
  name_->setStyleSheet("font-weight: 600;");
  platform_->setWordWrap(false);
  detailName_->setTextInteractionFlags(Qt::TextSelectableByMouse);

  auto* top = new QHBoxLayout;
  top->setSpacing(8);
  top->addWidget(name_);
  top->addWidget(platform_);
  top->addStretch();
  top->addWidget(switch_);

  connect(switch_, &Switch::clicked, this, [this](bool on) {
    account_.toggle(destination_.id, on);
    // The account has the last word: it may put the destination back after a refusal.
    switch_->setChecked(destination_.isEnabled);
  });
  auto dashboard = [this] { open_(account_.dashboardURL()); };
  connect(connectButton_, &QPushButton::clicked, this, dashboard);
  auto* connectLayout = new QVBoxLayout(connect_);
  connectLayout->setContentsMargins(0, 4, 0, 0);
  connectLayout->setSpacing(8);
  connectLayout->addWidget(connectText_);
  connectLayout->addWidget(connectButton_, 0, Qt::AlignLeft);

  auto* manage = linkButton("Manage in dashboard");
  connect(manage, &QPushButton::clicked, this, dashboard);
  auto* grid = new QGridLayout(details_);
  grid->setContentsMargins(0, 2, 0, 0);
  grid->setHorizontalSpacing(16);
  grid->setVerticalSpacing(6);
  grid->addWidget(sheetText("Name"), 0, 0);
  grid->addWidget(detailName_, 0, 1);
  grid->addWidget(sheetText("Stream key"), 1, 0);
  grid->addWidget(detailKey_, 1, 1);
  grid->addWidget(lastError_, 2, 0, 1, 2);
  grid->addWidget(manage, 3, 0, 1, 2, Qt::AlignLeft);
  grid->setColumnStretch(1, 1);
  details_->hide();
  connect(detailsButton_, &QPushButton::clicked, this, [this] {
    details_->setVisible(!details_->isVisibleTo(this));
    detailsButton_->setText(details_->isVisibleTo(this) ? "Hide details" : "Show details");
  });

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(14, 12, 14, 12);
  layout->setSpacing(4);
  layout->addLayout(top);
  layout->addWidget(status_);
  layout->addWidget(connect_);
  layout->addWidget(detailsButton_, 0, Qt::AlignLeft);
  layout->addWidget(details_);
}

void DestinationRow::setDestination(const QvnCloud::Destination& d) {
  destination_ = d;
  const QString name = qtext(d.name);
  name_->setText(name);
  platform_->setText(qtext(QvnCloud::platformName(d.platform)));
  platform_->setVisible(platform_->text() != name);
  status_->setText(destinationStatus(d));
  status_->setStyleSheet(QString("color: %1;")
                             .arg(css(!d.hasKey              ? Qvn::muted
                                      : !d.lastError.empty() ? Qvn::warning
                                      : d.isEnabled          ? Qvn::green
                                                             : Qvn::slate)));
  switch_->setEnabled(d.hasKey);
  switch_->setChecked(d.hasKey && d.isEnabled);
  switch_->setToolTip(!d.hasKey ? QString("Connect %1 in your Quorvane dashboard first").arg(name)
                      : d.isEnabled ? QString("Don't stream to %1").arg(name)
                                    : QString("Stream to %1").arg(name));
  connect_->setVisible(!d.hasKey);
  connectText_->setText(QString("%1 isn't connected to your Quorvane account yet. Connect it in "
                                "the dashboard; it appears here as soon as it is.")
                            .arg(name));
  connectButton_->setText(QString("Connect %1").arg(name));
  detailName_->setText(name);
  detailKey_->setText(d.hasKey ? "Saved in Quorvane" : "Not added yet");
  lastError_->setText(QString("Last time: %1").arg(qtext(d.lastError)));
  lastError_->setVisible(!d.lastError.empty());
}

DestinationsTab::DestinationsTab(QvnCloudAccount& account, UrlOpener open, QWidget* parent)
    : QWidget(parent),
      account_(account),
      open_(std::move(open)),
      error_(sheetText("", Qvn::live)),
      empty_(new QWidget),
      list_(nullptr),
      rowsLayout_(new QVBoxLayout) {
  auto* emptyLayout = new QVBoxLayout(empty_);
  emptyLayout->setContentsMargins(0, 16, 0, 0);
  emptyLayout->setSpacing(12);
  emptyLayout->addWidget(
      sheetText("Connect YouTube, Facebook, Twitch and others in your Quorvane "
                "dashboard. They appear here straight away."));
  auto* openDashboard = primaryButton("Open Quorvane dashboard");
  connect(openDashboard, &QPushButton::clicked, this, [this] { open_(account_.dashboardURL()); });
  emptyLayout->addWidget(openDashboard, 0, Qt::AlignLeft);
  emptyLayout->addStretch();

  auto* list = new QWidget;
  auto* listLayout = new QVBoxLayout(list);
  listLayout->setContentsMargins(0, 0, 4, 0);
  listLayout->setSpacing(8);
  rowsLayout_->setSpacing(8);
  listLayout->addLayout(rowsLayout_);
  listLayout->addStretch();
  auto* scroll = new QScrollArea;
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  scroll->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll->setWidget(list);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 12, 0, 0);
  layout->setSpacing(8);
  layout->addWidget(error_);
  layout->addWidget(empty_);
  layout->addWidget(scroll, 1);
  list_ = scroll;

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(account_.destinations.subscribe(again));
  subscriptions_.push_back(account_.error.subscribe(again));
  refresh();
}

void DestinationsTab::refresh() {
  const auto& all = account_.destinations();
  error_->setText(qtext(account_.error().value_or("")));
  error_->setVisible(account_.error().has_value());
  empty_->setVisible(all.empty());
  list_->setVisible(!all.empty());

  bool sameRows = all.size() == rows_.size();
  for (size_t i = 0; sameRows && i < all.size(); ++i) sameRows = rows_[i]->id() == all[i].id;
  if (!sameRows) {
    // A switch's own click can lead here: the old rows go once their events are over.
    for (DestinationRow* row : rows_) {
      rowsLayout_->removeWidget(row);
      row->hide();
      row->deleteLater();
    }
    rows_.clear();
    for (size_t i = 0; i < all.size(); ++i) {
      rows_.push_back(new DestinationRow(account_, open_));
      rowsLayout_->addWidget(rows_.back());
    }
  }
  for (size_t i = 0; i < all.size(); ++i) rows_[i]->setDestination(all[i]);
}

}  // namespace qvn::ui
