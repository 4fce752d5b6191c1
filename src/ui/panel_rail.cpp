#include "ui/panel_rail.h"

#include <QApplication>
#include <QButtonGroup>
#include <QHBoxLayout>
#include <QPushButton>
#include <QStackedWidget>
#include <QVBoxLayout>

#include "studio/camera_model.h"
#include "studio/studio_panel.h"
#include "ui/floating_panel.h"
#include "ui/panel_page.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {

QString text(std::string_view s) {
  return QString::fromUtf8(s.data(), int(s.size()));
}

}  // namespace

PanelRail::PanelRail(CameraModel& model, Defaults& settings, QWidget* parent)
    : QWidget(parent), model_(model), settings_(settings), stack_(new QStackedWidget) {
  auto* buttons = new QVBoxLayout;
  buttons->setContentsMargins(6, 8, 6, 8);
  buttons->setSpacing(6);
  auto* fold = new QPushButton("»");
  fold->setToolTip("Fold the panels away");
  fold->setFixedWidth(64);
  connect(fold, &QPushButton::clicked, this, [this, fold] {
    model_.inspectorCollapsed = !model_.inspectorCollapsed();
    fold->setText(model_.inspectorCollapsed() ? "«" : "»");
  });
  buttons->addWidget(fold);
  buttons->addSpacing(8);
  for (StudioPanel panel : railPanels()) {
    const StudioPanelInfo& info = panelInfo(panel);
    auto* b = new QPushButton(text(info.title));
    b->setCheckable(true);
    b->setFixedWidth(64);
    b->setStyleSheet("padding: 8px 2px; font-size: 11px;");
    QString tip = text(info.subtitle);
    if (info.commandKey) tip += QString("  (Ctrl+%1)").arg(*info.commandKey);
    b->setToolTip(tip);
    connect(b, &QPushButton::clicked, this, [this, panel] {
      model_.togglePanel(panel);
      refresh();  // a press that changed nothing must not leave the button pressed
    });
    buttons->addWidget(b);
    buttons_[panel] = b;
    pages_[panel] = makePage(panel, false);
    stack_->addWidget(pages_[panel]);
  }
  buttons->addStretch();

  body_ = new QWidget;
  body_->setFixedWidth(300);
  body_->setObjectName("panelBody");
  body_->setStyleSheet(QString("QWidget#panelBody { background: %1; border-radius: 10px; }")
                           .arg(css(Qvn::deepNavy)));
  auto* bodyLayout = new QVBoxLayout(body_);
  bodyLayout->setContentsMargins(0, 0, 0, 0);
  bodyLayout->addWidget(stack_);

  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(8);
  layout->addWidget(body_);
  layout->addLayout(buttons);

  model_.panelDetach.raiseWindow = [](const std::string& title) {
    for (QWidget* w : QApplication::topLevelWidgets())
      if (auto* window = dynamic_cast<FloatingPanel*>(w);
          window && window->windowTitle() == QString::fromStdString(title)) {
        window->show();
        window->raise();
        window->activateWindow();
        return true;
      }
    return false;
  };
  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(model_.panel.subscribe(again));
  subscriptions_.push_back(model_.inspectorCollapsed.subscribe(again));
  subscriptions_.push_back(
      model_.panelDetach.detached.subscribe([this](const auto&) { followDetached(); }));
  followDetached();
}

// The panel windows are the main window's children and go with it.
PanelRail::~PanelRail() {
  model_.panelDetach.raiseWindow = nullptr;
}

QWidget* PanelRail::makePage(StudioPanel panel, bool inWindow) {
  std::function<void()> detach;
  if (!inWindow && panelInfo(panel).detachable)
    detach = [this, panel] { model_.panelDetach.setDetached(panel, true); };
  return new PanelPage(model_, panel, detach);
}

QPushButton* PanelRail::button(StudioPanel panel) const {
  auto it = buttons_.find(panel);
  return it == buttons_.end() ? nullptr : it->second;
}

std::optional<StudioPanel> PanelRail::shownPanel() const {
  if (model_.inspectorCollapsed()) return std::nullopt;
  // A detached panel lives in its window; the rail falls back to the inspector.
  if (model_.panelDetach.isDetached(model_.panel())) return StudioPanel::inspector;
  return model_.panel();
}

FloatingPanel* PanelRail::floating(StudioPanel panel) const {
  auto it = windows_.find(panel);
  return it == windows_.end() ? nullptr : it->second;
}

void PanelRail::refresh() {
  const auto shown = shownPanel();
  body_->setVisible(shown.has_value());
  if (shown) stack_->setCurrentWidget(pages_.at(*shown));
  for (auto& [panel, b] : buttons_) {
    b->setChecked(shown == panel || model_.panelDetach.isDetached(panel));
    b->setText(text(panelInfo(panel).title) +
               (model_.panelDetach.isDetached(panel) ? QString(" ⇱") : QString()));
  }
}

void PanelRail::followDetached() {
  for (StudioPanel panel : railPanels()) {
    const bool out = model_.panelDetach.isDetached(panel);
    FloatingPanel* window = floating(panel);
    if (out && !window) {
      window = new FloatingPanel(panel, makePage(panel, true), model_.panelDetach, settings_,
                                 this->window());
      windows_[panel] = window;
      window->show();
    } else if (!out && window) {
      windows_.erase(panel);
      window->hide();
      window->deleteLater();  // it may be inside its own close
    }
  }
  refresh();
}

}  // namespace qvn::ui
