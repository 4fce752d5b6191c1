#include "ui/go_live_tabs.h"

#include <QClipboard>
#include <QComboBox>
#include <QGridLayout>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <array>
#include <utility>

#include "cloud/cloud_account.h"
#include "studio/camera_model.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {

using Kind = QvnCloud::EmbedLink::Kind;

constexpr std::array<std::pair<StreamOutputChoice, const char*>, 5> kSizeChoices{{
    {StreamOutputChoice::canvas, "Canvas size"},
    {StreamOutputChoice::uhd2160, "3840 × 2160"},
    {StreamOutputChoice::qhd1440, "2560 × 1440"},
    {StreamOutputChoice::fhd1080, "1920 × 1080"},
    {StreamOutputChoice::hd720, "1280 × 720"},
}};

}  // namespace

EmbedTab::EmbedTab(QvnCloudAccount& account, UrlOpener open, QWidget* parent)
    : QWidget(parent),
      account_(account),
      open_(std::move(open)),
      message_(sheetText("", Qvn::cloud)),
      link_(new QLineEdit),
      create_(primaryButton("Create embed link")),
      dashboard_(new QPushButton("Open dashboard")),
      retry_(new QPushButton("Try again")),
      copy_(primaryButton("Copy link")),
      openEmbed_(new QPushButton("Open Embed")),
      status_(sheetText("")) {
  link_->setReadOnly(true);
  link_->setStyleSheet(QString("QLineEdit { background: %1; border: 1px solid %2;"
                               " border-radius: 6px; padding: 6px 8px; font-family: monospace; }")
                           .arg(css(Qvn::voidBlack), css(Qvn::border)));
  connect(create_, &QPushButton::clicked, this, [this] { account_.createEmbedLink(); });
  connect(dashboard_, &QPushButton::clicked, this, [this] { open_(account_.dashboardURL()); });
  connect(retry_, &QPushButton::clicked, this, [this] { account_.loadEmbedLink(); });
  connect(copy_, &QPushButton::clicked, this, [this] {
    QGuiApplication::clipboard()->setText(link_->text());
    copy_->setText("Copied");
  });
  connect(openEmbed_, &QPushButton::clicked, this, [this] { open_(account_.embedLink().url); });

  auto* buttons = new QHBoxLayout;
  buttons->setSpacing(8);
  for (QPushButton* b : {create_, dashboard_, retry_, copy_, openEmbed_}) buttons->addWidget(b);
  buttons->addStretch();

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 16, 0, 0);
  layout->setSpacing(10);
  layout->addWidget(sheetHeading("Web Embed", 16));
  layout->addWidget(sheetText("Your Quorvane live stream can be embedded on your website."));
  layout->addSpacing(6);
  layout->addWidget(message_);
  layout->addWidget(link_);
  layout->addLayout(buttons);
  layout->addWidget(status_);
  layout->addStretch();

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(account_.embedLink.subscribe(again));
  subscriptions_.push_back(account_.publishing.subscribe(again));
  refresh();
}

void EmbedTab::refresh() {
  const QvnCloud::EmbedLink& embed = account_.embedLink();
  const bool ready = embed.kind == Kind::ready;
  switch (embed.kind) {
    case Kind::unknown:
    case Kind::loading:
      message_->setText("Getting your embed link…");
      break;
    case Kind::none:
      message_->setText(
          "You don't have an embed link yet. It's the same link the Quorvane dashboard makes, "
          "and it stays the same for every stream.");
      break;
    case Kind::unavailable:
      message_->setText(
          "Studio can't show your embed link yet. It's in your Quorvane dashboard, under "
          "Website Embed.");
      break;
    case Kind::failed:
      message_->setText(qtext(embed.message));
      break;
    case Kind::ready:
      message_->setText(
          "This is the same embed link as your Quorvane dashboard. Anyone with it can watch "
          "while you're live.");
      break;
  }
  create_->setVisible(embed.kind == Kind::none);
  dashboard_->setVisible(embed.kind == Kind::unavailable);
  retry_->setVisible(embed.kind == Kind::failed);
  for (QWidget* w : std::initializer_list<QWidget*>{link_, copy_, openEmbed_, status_})
    w->setVisible(ready);
  // "Copied" belongs to the link it copied.
  const std::string url = ready ? embed.url : std::string();
  if (url != shownURL_) copy_->setText("Copy link");
  shownURL_ = url;
  link_->setText(qtext(url));

  QvnColor colour = Qvn::warning;
  if (!embed.playsStudio) {
    status_->setText(
        "The player shows streams sent to your Quorvane stream key. Studio's Go Live doesn't "
        "reach it yet.");
  } else if (account_.publishing()) {
    status_->setText("Live · the player is showing this stream.");
    colour = Qvn::live;
  } else {
    status_->setText("Ready · the link works when you go live.");
    colour = Qvn::green;
  }
  status_->setStyleSheet(QString("color: %1;").arg(css(colour)));
}

StreamSettingsTab::StreamSettingsTab(CameraModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      canvas_(new QLabel),
      changeCanvas_(new QPushButton("Change canvas…")),
      size_(new QComboBox),
      sizeLine_(sheetText("")) {
  changeCanvas_->setEnabled(false);
  changeCanvas_->setToolTip("Canvas changes come with the canvas settings");
  for (const auto& [choice, label] : kSizeChoices) size_->addItem(QString::fromUtf8(label));
  connect(size_, &QComboBox::activated, this, [this](int index) {
    if (index < 0 || index >= int(kSizeChoices.size())) return;
    model_.setStreamOutput(kSizeChoices[size_t(index)].first);
    refresh();  // the model refuses while a stream runs
  });

  auto* grid = new QGridLayout;
  grid->setHorizontalSpacing(16);
  grid->setVerticalSpacing(10);
  grid->addWidget(sheetText("Canvas"), 0, 0);
  grid->addWidget(canvas_, 0, 1);
  grid->addWidget(changeCanvas_, 0, 2);
  grid->addWidget(sheetText("Size sent"), 1, 0);
  grid->addWidget(size_, 1, 1, 1, 2, Qt::AlignLeft);
  grid->setColumnStretch(3, 1);

  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(0, 16, 0, 0);
  layout->setSpacing(10);
  layout->addWidget(sheetHeading("Studio output", 16));
  layout->addLayout(grid);
  layout->addWidget(sizeLine_);
  layout->addSpacing(6);
  layout->addWidget(
      sheetText("Studio compresses Program with this computer's H.264 encoder and sends it, with "
                "AAC audio, to Quorvane over RTMP. Quorvane then prepares a copy for each "
                "destination, so their final quality and delay are set there and on each "
                "platform.",
                Qvn::muted));
  layout->addStretch();

  auto again = [this](const auto&) { refresh(); };
  subscriptions_.push_back(model_.canvasSize.subscribe(again));
  subscriptions_.push_back(model_.streamOutput.subscribe(again));
  refresh();
}

void StreamSettingsTab::refresh() {
  canvas_->setText(model_.canvasSize() == MixCanvasSize::uhd ? "3840 × 2160 (4K)"
                                                             : "1920 × 1080 (HD)");
  for (size_t i = 0; i < kSizeChoices.size(); ++i)
    if (kSizeChoices[i].first == model_.streamOutput()) size_->setCurrentIndex(int(i));
  const QvnOutputInfo planned = model_.plannedGoLiveOutput();
  const QString size = QString("%1 × %2").arg(planned.width).arg(planned.height);
  // Only the canvas choice is "the canvas size"; a fixed size is said as itself.
  const QString sent = model_.streamOutput() == StreamOutputChoice::canvas
                           ? QString("Program is sent at the canvas size, %1.").arg(size)
                           : QString("Program is sent at %1.").arg(size);
  sizeLine_->setText(QString("%1 Studio's Program runs at %2 fps.").arg(sent).arg(planned.fps));
}

}  // namespace qvn::ui
