#include "ui/go_live_sheet.h"

#include <QDesktopServices>
#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <QUrl>
#include <QVBoxLayout>
#include <algorithm>

#include "golive/go_live_format.h"
#include "studio/camera_model.h"
#include "ui/go_live_destinations.h"
#include "ui/go_live_progress.h"
#include "ui/go_live_tabs.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

GoLiveSheet::GoLiveSheet(CameraModel& model, QvnCloudAccount& account, QWidget* parent)
    : QWidget(parent),
      model_(model),
      account_(account),
      open_([](const std::string& url) { QDesktopServices::openUrl(QUrl(qtext(url))); }),
      card_(new QWidget(this)),
      close_(new QPushButton("×")),
      stack_(new QStackedWidget),
      checklist_(new ChecklistPage(model)),
      live_(new LivePage(model, account)),
      ended_(new EndedPage(model, account)) {
  setFocusPolicy(Qt::StrongFocus);
  card_->setObjectName("goLiveCard");
  card_->setAttribute(Qt::WA_StyledBackground);
  card_->setStyleSheet(
      QString("QWidget#goLiveCard { background: %1; border: 1px solid %2; border-radius: 14px; }"
              "QTabWidget::pane { border: none; border-top: 1px solid %2; }"
              "QTabBar::tab { background: transparent; color: %3; padding: 8px 14px;"
              "  border: none; border-bottom: 2px solid transparent; }"
              "QTabBar::tab:selected { color: %4; border-bottom-color: %5; }"
              "QScrollBar:vertical { background: transparent; width: 8px; margin: 0; }"
              "QScrollBar::handle:vertical { background: %2; border-radius: 4px;"
              "  min-height: 40px; }")
          .arg(css(Qvn::deepNavy), css(Qvn::border), css(Qvn::slate), css(Qvn::cloud),
               css(Qvn::green)));

  auto* title = sheetHeading("Go Live", 20);
  close_->setFlat(true);
  close_->setToolTip("Close (Esc). A stream goes on.");
  close_->setCursor(Qt::PointingHandCursor);
  close_->setStyleSheet(QString("QPushButton { border: none; background: transparent; color: %1;"
                                " font-size: 20px; padding: 0 6px; }"
                                " QPushButton:hover { color: %2; }")
                            .arg(css(Qvn::slate), css(Qvn::cloud)));
  connect(close_, &QPushButton::clicked, this, [this] { model_.showGoLiveSheet = false; });
  auto* header = new QHBoxLayout;
  header->addWidget(title);
  header->addStretch();
  header->addWidget(close_, 0, Qt::AlignTop);

  setupPage_ = makeSetup();
  reconnectingPage_ =
      makeMessage("Reconnecting…", "Studio lost the connection to Quorvane and is reconnecting.");
  stoppingPage_ = makeMessage("Stopping", "Ending the stream on every destination…");
  for (QWidget* page : {setupPage_, static_cast<QWidget*>(checklist_), reconnectingPage_,
                        static_cast<QWidget*>(live_), stoppingPage_, static_cast<QWidget*>(ended_)})
    stack_->addWidget(page);
  // A stream that is reconnecting can still be stopped from here.
  auto* stop = dangerButton("Stop Live");
  connect(stop, &QPushButton::clicked, this, [this] { askToStopLive(model_, this); });
  static_cast<QVBoxLayout*>(reconnectingPage_->layout())->addWidget(stop, 0, Qt::AlignRight);

  auto* layout = new QVBoxLayout(card_);
  layout->setContentsMargins(24, 18, 24, 20);
  layout->setSpacing(8);
  layout->addLayout(header);
  layout->addWidget(stack_, 1);

  parent->installEventFilter(this);
  setGeometry(parent->rect());
  hide();

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(model_.goLiveChecks.subscribe(again));
  subscriptions_.push_back(model_.goLiveStarting.subscribe(again));
  subscriptions_.push_back(model_.streamOutput.subscribe(again));
  subscriptions_.push_back(model_.canvasSize.subscribe(again));
  subscriptions_.push_back(account_.destinations.subscribe(again));
  subscriptions_.push_back(account_.livePhase.subscribe(again));
  subscriptions_.push_back(account_.liveFailure.subscribe(again));
  subscriptions_.push_back(account_.liveClock.subscribe(again));
  subscriptions_.push_back(account_.sessionDestinations.subscribe(again));
  subscriptions_.push_back(account_.destinationStatusUnavailable.subscribe(again));
  subscriptions_.push_back(account_.lastLiveSummary.subscribe(again));
  subscriptions_.push_back(model_.showGoLiveSheet.subscribe([this](bool on) { follow(on); }));
  refresh();
  follow(model_.showGoLiveSheet());
}

QWidget* GoLiveSheet::makeSetup() {
  const UrlOpener open = [this](const std::string& url) { open_(url); };
  destinations_ = new DestinationsTab(account_, open);
  embed_ = new EmbedTab(account_, open);
  settings_ = new StreamSettingsTab(model_);
  tabs_ = new QTabWidget;
  tabs_->setDocumentMode(true);
  tabs_->tabBar()->setDrawBase(false);  // the pane's own line is the one under the tabs
  tabs_->addTab(destinations_, "Destinations");
  tabs_->addTab(embed_, "Embed");
  tabs_->addTab(settings_, "Settings");

  footer_ = new QLabel;
  footer_->setStyleSheet("font-weight: 600;");
  start_ = primaryButton("");
  connect(start_, &QPushButton::clicked, this, [this] { model_.confirmGoLive(); });
  auto* settings = new QVBoxLayout;
  settings->setSpacing(2);
  settings->addWidget(sheetText("Stream settings", Qvn::muted));
  settings->addWidget(footer_);
  auto* footer = new QHBoxLayout;
  footer->addLayout(settings);
  footer->addStretch();
  footer->addWidget(start_, 0, Qt::AlignVCenter);

  auto* page = new QWidget;
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(14);
  layout->addWidget(tabs_, 1);
  layout->addLayout(footer);
  return page;
}

QWidget* GoLiveSheet::makeMessage(const QString& title, const QString& text) {
  auto* page = new QWidget;
  auto* layout = new QVBoxLayout(page);
  layout->setContentsMargins(0, 4, 0, 0);
  layout->setSpacing(12);
  layout->addWidget(sheetHeading(title));
  layout->addWidget(sheetText(text, Qvn::cloud));
  layout->addStretch();
  return page;
}

GoLiveSheet::View GoLiveSheet::viewFor(LivePhase phase, bool starting, bool hasChecks,
                                       bool beenLive) {
  if (starting) return View::checklist;
  switch (phase) {
    case LivePhase::idle:
      // Checks left over while nothing starts: one of them failed.
      return hasChecks ? View::checklist : View::setup;
    case LivePhase::connecting:
      // Before the first publish the checklist's last line is still running.
      return hasChecks && !beenLive ? View::checklist : View::reconnecting;
    case LivePhase::live:
      return View::live;
    case LivePhase::stopping:
      return View::stopping;
    case LivePhase::ended:
    case LivePhase::error:
      return View::ended;
  }
  return View::setup;
}

QString GoLiveSheet::startLabel(int selected) {
  if (selected == 0) return "Turn on a destination first";
  return QString("Start streaming to %1 %2 selected")
      .arg(selected)
      .arg(selected == 1 ? "destination" : "destinations");
}

void GoLiveSheet::refresh() {
  const LivePhase phase = account_.livePhase();
  if (phase == LivePhase::live) beenLive_ = true;
  if (!isStreamRunning(phase)) beenLive_ = false;
  const bool starting = model_.goLiveStarting();
  view_ = viewFor(phase, starting, !model_.goLiveChecks().empty(), beenLive_);

  switch (view_) {
    case View::setup: {
      const auto& all = account_.destinations();
      const int selected = int(
          std::count_if(all.begin(), all.end(), [](auto& d) { return d.isEnabled && d.hasKey; }));
      start_->setText(startLabel(selected));
      start_->setEnabled(selected > 0);
      const QvnOutputInfo planned = model_.plannedGoLiveOutput();
      footer_->setText(QString("%1 · %2 FPS")
                           .arg(qtext(GoLiveFormat::resolutionName(planned.width, planned.height)))
                           .arg(planned.fps));
      stack_->setCurrentWidget(setupPage_);
      break;
    }
    case View::checklist:
      checklist_->refresh(starting || phase == LivePhase::connecting);
      stack_->setCurrentWidget(checklist_);
      break;
    case View::reconnecting:
      stack_->setCurrentWidget(reconnectingPage_);
      break;
    case View::live:
      live_->refresh();
      stack_->setCurrentWidget(live_);
      break;
    case View::stopping:
      stack_->setCurrentWidget(stoppingPage_);
      break;
    case View::ended:
      ended_->refresh();
      stack_->setCurrentWidget(ended_);
      break;
  }
}

void GoLiveSheet::follow(bool shown) {
  setVisible(shown);
  if (!shown) return;
  setGeometry(parentWidget()->rect());
  raise();
  setFocus();
}

void GoLiveSheet::placeCard() {
  const int width = std::min(kCardWidth, this->width() - 32);
  const int height = std::min(620, this->height() - 32);
  card_->setGeometry((this->width() - width) / 2, (this->height() - height) / 2, width, height);
}

bool GoLiveSheet::eventFilter(QObject* watched, QEvent* event) {
  if (watched == parentWidget() && event->type() == QEvent::Resize)
    setGeometry(parentWidget()->rect());
  return false;
}

void GoLiveSheet::keyPressEvent(QKeyEvent* event) {
  if (event->key() != Qt::Key_Escape) return QWidget::keyPressEvent(event);
  model_.showGoLiveSheet = false;
  event->accept();
}

void GoLiveSheet::paintEvent(QPaintEvent*) {
  QPainter(this).fillRect(rect(), QColor(0, 0, 0, 150));
}

void GoLiveSheet::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  placeCard();
}

}  // namespace qvn::ui
