#include "ui/floating_panel.h"

#include <QCloseEvent>
#include <QGuiApplication>
#include <QScreen>
#include <QVBoxLayout>

#include "platform/defaults.h"
#include "studio/studio_panel.h"
#include "studio/studio_panel_detach.h"
#include "studio/window_frame.h"

namespace qvn::ui {

namespace {

WindowRect rectOf(const QRect& r) {
  return {double(r.x()), double(r.y()), double(r.width()), double(r.height())};
}

}  // namespace

FloatingPanel::FloatingPanel(StudioPanel panel, QWidget* content, StudioPanelDetach& detach,
                             Defaults& settings, QWidget* mainWindow)
    : QWidget(mainWindow, Qt::Tool | Qt::WindowStaysOnTopHint),
      panel_(panel),
      detach_(detach),
      settings_(settings) {
  const auto& title = panelInfo(panel).title;
  setWindowTitle(QString::fromUtf8(title.data(), int(title.size())));
  setAttribute(Qt::WA_DeleteOnClose, false);
  setMinimumSize(300, 260);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->addWidget(content);

  std::optional<WindowRect> frame;
  if (auto text = settings_.text(StudioPanelDetach::autosaveName(panel)))
    frame = frameFromText(*text);
  if (!frame) {
    const QScreen* screen = QGuiApplication::primaryScreen();
    const WindowRect home = screen ? rectOf(screen->availableGeometry()) : WindowRect{};
    std::optional<WindowRect> main;
    if (mainWindow && mainWindow->isVisible()) main = rectOf(mainWindow->geometry());
    frame = placeFloatingPanel(340, 460, main, home);
  }
  setGeometry(int(frame->x), int(frame->y), int(frame->width), int(frame->height));
  placed_ = true;
}

void FloatingPanel::closeEvent(QCloseEvent* event) {
  event->accept();
  detach_.setDetached(panel_, false);
}

void FloatingPanel::moveEvent(QMoveEvent* event) {
  QWidget::moveEvent(event);
  rememberFrame();
}

void FloatingPanel::resizeEvent(QResizeEvent* event) {
  QWidget::resizeEvent(event);
  rememberFrame();
}

void FloatingPanel::rememberFrame() {
  if (placed_ && isVisible())
    settings_.set(StudioPanelDetach::autosaveName(panel_), frameText(rectOf(geometry())));
}

}  // namespace qvn::ui
