#include "ui/main_window.h"

#include <QAbstractSpinBox>
#include <QApplication>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QScreen>
#include <QStackedWidget>
#include <QTextEdit>
#include <QVBoxLayout>

#include "cloud/account.h"
#include "studio/camera_model.h"
#include "studio/studio_panel.h"
#include "studio/window_frame.h"
#include "ui/go_live_sheet.h"
#include "ui/monitor_view.h"
#include "ui/panel_rail.h"
#include "ui/qvn_style.h"
#include "ui/record_controls.h"
#include "ui/sign_in_view.h"
#include "ui/sources_strip.h"
#include "ui/transport_column.h"
#include "video/frame_hub.h"

namespace qvn::ui {

namespace {

WindowRect rectOf(const QRect& r) {
  return {double(r.x()), double(r.y()), double(r.width()), double(r.height())};
}

// Keys typed into a field are the field's.
bool typingIntoAField() {
  QWidget* focus = QApplication::focusWidget();
  return qobject_cast<QLineEdit*>(focus) || qobject_cast<QTextEdit*>(focus) ||
         qobject_cast<QAbstractSpinBox*>(focus);
}

}  // namespace

// Sees each key of the studio's windows before the focused widget does.
class MainWindow::KeyFilter : public QObject {
 public:
  explicit KeyFilter(MainWindow& window) : window_(window) {}
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() != QEvent::KeyPress || !watched->isWidgetType()) return false;
    auto* key = static_cast<QKeyEvent*>(event);
    return !typingIntoAField() && window_.handleKey(key->key(), key->modifiers());
  }

 private:
  MainWindow& window_;
};

MainWindow::MainWindow(CameraModel& model, FrameHub& frames, Defaults& settings,
                       CloudAccount* account, QvnCloudAccount* streaming)
    : model_(model),
      account_(account),
      streaming_(streaming ? streaming : account),
      autosave_(std::make_unique<WindowFrameAutosave>(settings)),
      preview_(new MonitorView(frames, FrameHub::kPreviewSlot, "PREVIEW",
                               [this](int slot) { model_.setPreview(slot); })),
      program_(new MonitorView(frames, FrameHub::kProgramSlot, "PROGRAM",
                               [this](int slot) { model_.take(slot, model_.mixTransition()); })),
      transport_(new TransportColumn(model)),
      strip_(new SourcesStrip(model, frames)),
      rail_(new PanelRail(model, settings)),
      pairing_(new QLabel),
      mode_(new QLabel),
      record_(new RecordControls(model)),
      goLive_(new QPushButton("Go Live")),
      toast_(new QLabel),
      log_(new QListWidget),
      logButton_(new QPushButton("Log")),
      keys_(std::make_unique<KeyFilter>(*this)) {
  setWindowTitle("Quorvane Studio");

  auto* monitors = new QHBoxLayout;
  monitors->setSpacing(14);
  monitors->addWidget(preview_, 1);
  monitors->addWidget(transport_);
  monitors->addWidget(program_, 1);

  auto* stage = new QVBoxLayout;
  stage->setSpacing(14);
  stage->addLayout(monitors, 1);
  stage->addWidget(strip_);

  auto* body = new QHBoxLayout;
  body->setSpacing(14);
  body->addLayout(stage, 1);
  body->addWidget(rail_);

  log_->setVisible(false);
  log_->setFixedHeight(150);
  logButton_->setCheckable(true);
  connect(logButton_, &QPushButton::toggled, log_, &QWidget::setVisible);

  auto* central = new QWidget;
  auto* layout = new QVBoxLayout(central);
  layout->setContentsMargins(16, 0, 12, 12);
  layout->setSpacing(12);
  layout->addWidget(makeHeader());
  layout->addLayout(body, 1);
  layout->addWidget(log_);
  studio_ = central;
  root_ = new QStackedWidget;
  root_->addWidget(studio_);
  if (account_) {
    signIn_ = new SignInView(*account_);
    root_->addWidget(signIn_);
    auto root = [this](const auto&) { refreshRoot(); };
    subscriptions_.push_back(account_->user.subscribe(root));
    subscriptions_.push_back(account_->signedOutWhileLive.subscribe(root));
    subscriptions_.push_back(account_->livePhase.subscribe(root));
  }
  connect(goLive_, &QPushButton::clicked, this, [this] { model_.toggleGoLive(); });
  if (streaming_) {
    goLiveSheet_ = new GoLiveSheet(model_, *streaming_, central);
    auto goLive = [this](const auto&) { refreshGoLive(); };
    subscriptions_.push_back(streaming_->livePhase.subscribe(goLive));
    subscriptions_.push_back(streaming_->liveClock.subscribe(goLive));
  }
  setCentralWidget(root_);
  refreshRoot();
  resize(kDefaultWidth, kDefaultHeight);  // grows to the root view's minimum

  toast_->setParent(central);
  toast_->setAlignment(Qt::AlignCenter);
  toast_->setStyleSheet(QString("background: %1; color: %2; border: 1px solid %3;"
                                " border-radius: 14px; padding: 8px 18px; font-weight: 600;")
                            .arg(css(Qvn::panel), css(Qvn::cloud), css(Qvn::border)));
  toast_->hide();

  qApp->installEventFilter(keys_.get());
  auto header = [this](const auto&) { refreshHeader(); };
  auto monitorsAgain = [this](const auto&) { refreshMonitors(); };
  subscriptions_.push_back(model_.pin.subscribe(header));
  subscriptions_.push_back(model_.ip.subscribe(header));
  subscriptions_.push_back(model_.studioMode.subscribe(header));
  subscriptions_.push_back(model_.studioMode.subscribe(monitorsAgain));
  subscriptions_.push_back(model_.programSlot.subscribe(monitorsAgain));
  subscriptions_.push_back(model_.previewSlot.subscribe(monitorsAgain));
  subscriptions_.push_back(model_.slots.subscribe(monitorsAgain));
  subscriptions_.push_back(model_.toast.subscribe([this](const auto& text) { showToast(text); }));
  // A toast says what a press in the sheet did: it stays above the sheet.
  subscriptions_.push_back(model_.showGoLiveSheet.subscribe([this](bool) {
    if (toast_->isVisible()) toast_->raise();
  }));
  subscriptions_.push_back(model_.log.subscribe([this](const std::vector<std::string>& lines) {
    log_->clear();
    for (const auto& line : lines) log_->addItem(QString::fromStdString(line));
    log_->scrollToBottom();
  }));
  refreshHeader();
  refreshGoLive();
  refreshMonitors();
}

MainWindow::~MainWindow() {
  qApp->removeEventFilter(keys_.get());
}

QWidget* MainWindow::makeHeader() {
  auto* header = new QWidget;
  header->setFixedHeight(52);
  auto* dot = new QLabel("●");
  dot->setStyleSheet(QString("color: %1; font-size: 16px;").arg(css(Qvn::green)));
  auto* name = new QLabel("Quorvane Studio");
  name->setStyleSheet("font-size: 16px; font-weight: 700;");
  mode_->setStyleSheet(QString("color: %1; border: 1px solid %2; border-radius: 9px;"
                               " padding: 2px 10px; font-size: 11px; font-weight: 600;")
                           .arg(css(Qvn::slate), css(Qvn::border)));
  pairing_->setStyleSheet(QString("color: %1;").arg(css(Qvn::slate)));
  pairing_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto* layout = new QHBoxLayout(header);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(10);
  for (QWidget* w : {dot, name, mode_}) layout->addWidget(w, 0, Qt::AlignVCenter);
  layout->addStretch();
  layout->addWidget(pairing_, 0, Qt::AlignVCenter);
  layout->addSpacing(8);
  layout->addWidget(logButton_, 0, Qt::AlignVCenter);
  layout->addWidget(record_, 0, Qt::AlignVCenter);
  layout->addWidget(goLive_, 0, Qt::AlignVCenter);
  return header;
}

bool MainWindow::showsStudio() const {
  // A sign-in revoked mid-stream leaves the stream running: the studio stays until it ends.
  return !account_ || account_->signedIn() || account_->signedOutWhileLive();
}

void MainWindow::refreshRoot() {
  const bool signIn = !showsStudio();
  root_->setCurrentWidget(signIn ? signIn_ : studio_);
  if (signIn)
    setMinimumSize(SignInView::kMinWidth, SignInView::kMinHeight);
  else
    setMinimumSize(int(WindowFrameAutosave::kMinWidth), int(WindowFrameAutosave::kMinHeight));
}

void MainWindow::refreshHeader() {
  mode_->setText(model_.studioMode() ? "STUDIO" : "SINGLE");
  pairing_->setText(QString("Phones pair at %1 with PIN <b style='color:%2'>%3</b>")
                        .arg(QString::fromStdString(model_.ip()), css(Qvn::cloud),
                             QString::fromStdString(model_.pin())));
}

void MainWindow::refreshGoLive() {
  const LivePhase phase = streaming_ ? streaming_->livePhase() : LivePhase::idle;
  switch (phase) {
    case LivePhase::connecting:
      goLive_->setText("Connecting…");
      break;
    case LivePhase::live:
      goLive_->setText("LIVE " + QString::fromStdString(streaming_->liveClock()));
      break;
    case LivePhase::stopping:
      goLive_->setText("Stopping…");
      break;
    default:
      goLive_->setText("Go Live");
  }
  // Restyled only when it changes, not with every tick of the clock.
  const bool running = isStreamRunning(phase);
  if (goLiveStyledRunning_ == running) return;
  goLiveStyledRunning_ = running;
  goLive_->setStyleSheet(
      running ? QString("QPushButton { background: %1; color: %2; border: none; font-weight: 700;"
                        " padding: 6px 16px; }")
                    .arg(css(Qvn::live), css(Qvn::cloud))
              : QString("QPushButton { color: %1; border: 1px solid %1; font-weight: 600;"
                        " padding: 5px 16px; } QPushButton:hover { background: %2; }")
                    .arg(css(Qvn::live), css(Qvn::borderSubtle)));
}

void MainWindow::refreshMonitors() {
  const bool studio = model_.studioMode();
  preview_->setVisible(studio);
  auto nameOf = [this](int slot) {
    if (slot < 1 || slot > CameraModel::kSlotCount) return QString("—");
    const CameraSlot& row = model_.slots()[size_t(slot - 1)];
    return row.live ? QString("%1  %2").arg(slot).arg(QString::fromStdString(row.displayName()))
                    : QString("—");
  };
  preview_->setCaption(nameOf(model_.previewSlot()));
  preview_->setNameColor(qcolor(Qvn::green));
  program_->setCaption(nameOf(model_.programSlot()));
  program_->setNameColor(qcolor(model_.isLive(model_.programSlot()) ? Qvn::live : Qvn::cloud));
}

void MainWindow::showToast(const std::optional<std::string>& text) {
  if (!text) {
    toast_->hide();
    return;
  }
  toast_->setText(QString::fromStdString(*text));
  toast_->adjustSize();
  toast_->move((centralWidget()->width() - toast_->width()) / 2, 64);
  toast_->raise();
  toast_->show();
}

bool MainWindow::handleKey(int key, Qt::KeyboardModifiers modifiers) {
  if (key < Qt::Key_1 || key > Qt::Key_9) return false;
  const int digit = key - Qt::Key_0;
  if (modifiers == Qt::NoModifier || modifiers == Qt::KeypadModifier)
    return model_.perform(InputKey{digit});
  if (modifiers == Qt::ControlModifier)
    for (StudioPanel panel : railPanels())
      if (panelInfo(panel).commandKey == digit) {
        model_.togglePanel(panel);
        return true;
      }
  return false;
}

void MainWindow::open() {
  std::vector<WindowRect> screens;
  for (const QScreen* screen : QGuiApplication::screens())
    screens.push_back(rectOf(screen->availableGeometry()));
  const QScreen* home = screen() ? screen() : QGuiApplication::primaryScreen();
  const WindowRect frame = autosave_->fitOnScreen(
      screens, home ? rectOf(home->availableGeometry()) : WindowRect{0, 0, 1920, 1080});
  setGeometry(int(frame.x), int(frame.y), int(frame.width), int(frame.height));
  opened_ = true;
  show();
}

void MainWindow::moveEvent(QMoveEvent* event) {
  QMainWindow::moveEvent(event);
  rememberFrame();
}

void MainWindow::resizeEvent(QResizeEvent* event) {
  QMainWindow::resizeEvent(event);
  rememberFrame();
  if (toast_->isVisible()) toast_->move((centralWidget()->width() - toast_->width()) / 2, 64);
}

void MainWindow::rememberFrame() {
  if (opened_) autosave_->remember(rectOf(geometry()), isFullScreen());
}

}  // namespace qvn::ui
