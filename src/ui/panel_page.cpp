#include "ui/panel_page.h"

#include <QHBoxLayout>
#include <QLabel>
#include <QToolButton>
#include <QVBoxLayout>

#include "studio/camera_model.h"
#include "studio/studio_panel.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

PanelPage::PanelPage(CameraModel& model, StudioPanel panel, std::function<void()> detach,
                     QWidget* parent)
    : QWidget(parent), model_(model), body_(new QLabel) {
  const StudioPanelInfo& info = panelInfo(panel);
  auto* title = new QLabel(QString::fromUtf8(info.title.data(), int(info.title.size())));
  title->setStyleSheet("font-size: 17px; font-weight: 700;");
  auto* subtitle = new QLabel(QString::fromUtf8(info.subtitle.data(), int(info.subtitle.size())));
  subtitle->setWordWrap(true);
  subtitle->setStyleSheet(QString("color: %1;").arg(css(Qvn::slate)));
  auto* head = new QHBoxLayout;
  head->addWidget(title);
  head->addStretch();
  if (detach) {
    auto* out = new QToolButton;
    out->setText("⇱");
    out->setToolTip("Open in its own window");
    connect(out, &QToolButton::clicked, this, [detach] { detach(); });
    head->addWidget(out);
  }
  body_->setWordWrap(true);
  body_->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  body_->setTextFormat(Qt::RichText);
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(16, 14, 16, 14);
  layout->setSpacing(6);
  layout->addLayout(head);
  layout->addWidget(subtitle);
  layout->addSpacing(10);
  layout->addWidget(body_, 1);
  if (panel == StudioPanel::inspector) {
    auto again = [this](const auto&) { describeSource(); };
    subscriptions_.push_back(model_.slots.subscribe(again));
    subscriptions_.push_back(model_.focusedSlot.subscribe(again));
    subscriptions_.push_back(model_.programSlot.subscribe(again));
    describeSource();
  }
}

void PanelPage::describeSource() {
  const auto row = model_.selectedSlot();
  if (!row) {
    body_->setText(QString("<span style='color:%1'>No source yet. Pair a phone or add one "
                           "from the Sources strip.</span>")
                       .arg(css(Qvn::muted)));
    return;
  }
  auto line = [](const char* name, const std::string& value) {
    return QString("<tr><td style='color:%1; padding-right:12px'>%2</td><td>%3</td></tr>")
        .arg(css(Qvn::slate), name, QString::fromStdString(value).toHtmlEscaped());
  };
  body_->setText("<table cellspacing='4'>" + line("Input", std::to_string(row->index)) +
                 line("Name", row->displayName()) + line("Kind", row->detectedKind()) +
                 line("Status", row->status) +
                 line("Size", row->resolution.empty() ? "—" : row->resolution) + "</table>");
}

}  // namespace qvn::ui
