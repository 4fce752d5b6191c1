#include "ui/go_live_progress.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QMessageBox>
#include <QPushButton>
#include <QVBoxLayout>
#include <cstdio>

#include "cloud/cloud_account.h"
#include "studio/camera_model.h"
#include "ui/go_live_parts.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {

using State = GoLiveCheck::State;

QLabel* checkIcon(State state) {
  static constexpr const char* kIcons[] = {"○", "●", "✓", "✕"};
  static constexpr QvnColor kColours[] = {Qvn::muted, Qvn::info, Qvn::green, Qvn::live};
  auto* icon = new QLabel(QString::fromUtf8(kIcons[int(state)]));
  icon->setFixedWidth(22);
  icon->setAlignment(Qt::AlignHCenter | Qt::AlignTop);
  icon->setStyleSheet(
      QString("color: %1; font-size: 15px; font-weight: 700;").arg(css(kColours[int(state)])));
  return icon;
}

// The cloud's word for a destination's state, as the operator reads it.
QString sessionStatus(const std::string& status) {
  if (status == "live") return "Live";
  if (status == "starting") return "Starting…";
  if (status == "error" || status == "failed") return "Failed";
  if (status == "ended") return "Ended";
  if (status.empty()) return "Waiting";
  QString text = qtext(status);
  return text.left(1).toUpper() + text.mid(1);
}

QvnColor sessionColour(const std::string& status) {
  if (status == "live") return Qvn::green;
  if (status == "error" || status == "failed") return Qvn::live;
  return Qvn::slate;
}

QHBoxLayout* buttonRow(std::initializer_list<QPushButton*> buttons) {
  auto* row = new QHBoxLayout;
  row->setSpacing(8);
  row->addStretch();
  for (QPushButton* b : buttons) row->addWidget(b);
  return row;
}

}  // namespace

ChecklistPage::ChecklistPage(CameraModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      heading_(sheetHeading("")),
      rows_(new QGridLayout),
      cancel_(new QPushButton("Cancel")),
      back_(new QPushButton("Back")),
      retry_(primaryButton("Try again")) {
  rows_->setHorizontalSpacing(10);
  rows_->setVerticalSpacing(4);
  rows_->setColumnStretch(1, 1);
  connect(cancel_, &QPushButton::clicked, this, [this] { model_.cancelGoLive(); });
  connect(back_, &QPushButton::clicked, this, [this] { model_.resetGoLive(); });
  connect(retry_, &QPushButton::clicked, this, [this] { model_.confirmGoLive(); });

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 4, 0, 0);
  layout->setSpacing(16);
  layout->addWidget(heading_);
  layout->addLayout(rows_);
  layout->addStretch();
  layout->addLayout(buttonRow({cancel_, back_, retry_}));
}

void ChecklistPage::refresh(bool starting) {
  heading_->setText(starting ? "Starting your stream…" : "Your stream didn't start");
  cancel_->setVisible(starting);
  back_->setVisible(!starting);
  retry_->setVisible(!starting);

  clearLayout(*rows_);
  int line = 0;
  for (const GoLiveCheck& check : model_.goLiveChecks()) {
    auto* title = new QLabel(qtext(check.title));
    title->setStyleSheet(check.state == State::waiting ? QString("color: %1;").arg(css(Qvn::muted))
                                                       : QString("font-weight: 600;"));
    rows_->addWidget(checkIcon(check.state), line, 0, 2, 1);
    rows_->addWidget(title, line, 1);
    auto* detail =
        sheetText(qtext(check.detail), check.state == State::failed ? Qvn::live : Qvn::slate);
    rows_->addWidget(detail, line + 1, 1);
    detail->setVisible(!check.detail.empty());  // once in the layout, or it is a window
    line += 2;
  }
}

LivePage::LivePage(CameraModel& model, QvnCloudAccount& account, QWidget* parent)
    : QWidget(parent),
      model_(model),
      account_(account),
      clock_(new QLabel),
      rows_(new QVBoxLayout),
      noRows_(sheetText("Waiting for Quorvane to report each destination…", Qvn::muted)),
      limitation_(sheetText("", Qvn::warning)),
      unavailable_(new QWidget) {
  auto* badge = new QLabel("● LIVE");
  badge->setStyleSheet(QString("background: %1; color: %2; border-radius: 6px;"
                               " padding: 3px 10px; font-weight: 700;")
                           .arg(css(Qvn::live), css(Qvn::cloud)));
  clock_->setStyleSheet("font-size: 34px; font-weight: 700; font-family: monospace;");
  auto* top = new QHBoxLayout;
  top->setSpacing(14);
  top->addWidget(badge, 0, Qt::AlignVCenter);
  top->addWidget(clock_, 0, Qt::AlignVCenter);
  top->addStretch();

  auto* unavailable = new QVBoxLayout(unavailable_);
  unavailable->setContentsMargins(0, 0, 0, 0);
  unavailable->setSpacing(2);
  auto* hint = new QLabel("Status unavailable");
  hint->setStyleSheet(QString("color: %1; font-weight: 600;").arg(css(Qvn::warning)));
  unavailable->addWidget(hint);
  unavailable->addWidget(
      sheetText("Studio can't ask Quorvane how each destination is doing right now. The stream "
                "itself goes on."));

  auto* stop = dangerButton("Stop Live");
  connect(stop, &QPushButton::clicked, this, [this] { askToStopLive(model_, this); });
  rows_->setSpacing(8);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 4, 0, 0);
  layout->setSpacing(12);
  layout->addLayout(top);
  layout->addSpacing(4);
  layout->addWidget(sheetHeading("Destinations", 15));
  layout->addWidget(noRows_);
  layout->addLayout(rows_);
  layout->addWidget(limitation_);
  layout->addWidget(unavailable_);
  layout->addStretch();
  layout->addLayout(buttonRow({stop}));
}

void LivePage::refresh() {
  clock_->setText(qtext(account_.liveClock()));
  const auto limitation = model_.destinationErrorLimitation();
  limitation_->setText(qtext(limitation.value_or("")));
  limitation_->setVisible(limitation.has_value());
  unavailable_->setVisible(account_.destinationStatusUnavailable());

  // Rebuilt only when they change, not with every tick of the clock.
  const auto& destinations = account_.sessionDestinations();
  noRows_->setVisible(destinations.empty());
  if (destinations == shownRows_) return;
  shownRows_ = destinations;
  clearLayout(*rows_);
  for (const auto& d : destinations) {
    auto* row = new QGridLayout;
    row->setHorizontalSpacing(12);
    row->setVerticalSpacing(2);
    auto* name = new QLabel(qtext(d.name));
    name->setStyleSheet("font-weight: 600;");
    auto* status = new QLabel(sessionStatus(d.status));
    status->setStyleSheet(QString("color: %1;").arg(css(sessionColour(d.status))));
    row->addWidget(name, 0, 0);
    row->addWidget(status, 0, 1, Qt::AlignRight);
    if (!d.errorMessage.empty()) row->addWidget(sheetText(qtext(d.errorMessage), Qvn::live), 1, 0);
    row->setColumnStretch(0, 1);
    rows_->addLayout(row);
  }
}

void askToStopLive(CameraModel& model, QWidget* parent) {
  QMessageBox box(QMessageBox::Warning, "Stop Live", "Stop the live stream on every destination?",
                  QMessageBox::NoButton, parent);
  box.addButton("Keep streaming", QMessageBox::RejectRole);
  QAbstractButton* stop = box.addButton("Stop Live", QMessageBox::DestructiveRole);
  box.exec();
  if (box.clickedButton() == stop) model.stopLive();
}

std::optional<std::string> endedFailure(const QvnCloudAccount& account) {
  const auto& summary = account.lastLiveSummary();
  if (summary && summary->failure && !summary->failure->empty()) return summary->failure;
  if (account.livePhase() == LivePhase::error)
    return account.liveFailure().empty() ? "The stream stopped unexpectedly."
                                         : account.liveFailure();
  return std::nullopt;
}

QString endedMessage(const std::optional<std::string>& failure) {
  if (!failure) return "Your stream has ended successfully.";
  if (*failure == "ingest lost")
    return "Studio lost its connection to Quorvane and could not reconnect. Check your internet "
           "connection, then go live again.";
  if (*failure == "Could not start the encoder")
    return "Studio could not start sending Program. Go live again; if it repeats, restart "
           "Studio.";
  return qtext(*failure);
}

EndedPage::EndedPage(CameraModel& model, QvnCloudAccount& account, QWidget* parent)
    : QWidget(parent),
      model_(model),
      account_(account),
      title_(sheetHeading("")),
      duration_(new QLabel),
      destinations_(new QLabel),
      status_(new QLabel),
      message_(sheetText("", Qvn::cloud)) {
  auto* facts = new QGridLayout;
  facts->setHorizontalSpacing(24);
  facts->setVerticalSpacing(8);
  int line = 0;
  for (auto [name, value] :
       {std::pair{"Duration", duration_}, std::pair{"Destinations", destinations_},
        std::pair{"Status", status_}}) {
    facts->addWidget(sheetText(name), line, 0);
    facts->addWidget(value, line++, 1);
  }
  facts->setColumnStretch(1, 1);

  auto* done = primaryButton("Done");
  connect(done, &QPushButton::clicked, this, [this] {
    model_.resetGoLive();
    model_.showGoLiveSheet = false;
  });

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 4, 0, 0);
  layout->setSpacing(16);
  layout->addWidget(title_);
  layout->addLayout(facts);
  layout->addWidget(message_);
  layout->addStretch();
  layout->addLayout(buttonRow({done}));
}

void EndedPage::refresh() {
  const auto failure = endedFailure(account_);
  const LiveSummary summary = account_.lastLiveSummary().value_or(LiveSummary{});
  title_->setText(failure ? "Stream stopped" : "Live stream ended");
  char duration[32];
  std::snprintf(duration, sizeof duration, "%02d:%02d:%02d", summary.seconds / 3600,
                summary.seconds / 60 % 60, summary.seconds % 60);
  duration_->setText(duration);
  destinations_->setText(QString::number(summary.destinations));
  status_->setText(failure ? "Interrupted" : "Complete");
  status_->setStyleSheet(
      QString("color: %1; font-weight: 600;").arg(css(failure ? Qvn::live : Qvn::green)));
  message_->setText(endedMessage(failure));
}

}  // namespace qvn::ui
