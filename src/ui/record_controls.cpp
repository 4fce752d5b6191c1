#include "ui/record_controls.h"

#include <QActionGroup>
#include <QDesktopServices>
#include <QDir>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QMenu>
#include <QPainter>
#include <QPixmap>
#include <QPushButton>
#include <QToolButton>
#include <QUrl>
#include <algorithm>
#include <cmath>
#include <system_error>

#include "platform/defaults.h"
#include "studio/camera_model.h"
#include "ui/qvn_style.h"

namespace qvn::ui {

namespace {

constexpr int kIconSize = 12;

// Drawn rather than a glyph, so the dot is round and the same red in every font.
QIcon markIcon(QvnColor color, bool round) {
  const qreal scale = 2;
  QPixmap pixmap(int(kIconSize * scale), int(kIconSize * scale));
  pixmap.setDevicePixelRatio(scale);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(qcolor(color));
  const QRectF box(1, 1, kIconSize - 2, kIconSize - 2);
  if (round)
    painter.drawEllipse(box);
  else
    painter.drawRoundedRect(box.adjusted(1, 1, -1, -1), 1.5, 1.5);
  return QIcon(pixmap);
}

// The file dialog may only start in a folder that exists; the chosen one is made at the
// first recording.
std::filesystem::path existingAncestor(std::filesystem::path folder) {
  std::error_code error;
  while (!folder.empty() && !std::filesystem::is_directory(folder, error) &&
         folder.has_parent_path() && folder.parent_path() != folder)
    folder = folder.parent_path();
  return folder;
}

QString pathText(const std::filesystem::path& folder) {
  QString text = QString::fromStdString(folder.string());
  const QString home = QDir::homePath();
  if (text == home || text.startsWith(home + "/")) text = "~" + text.mid(home.size());
  return text;
}

std::optional<std::filesystem::path> fileDialogFolder(QWidget* parent,
                                                      const std::filesystem::path& start) {
  QFileDialog dialog(parent, "Choose where Studio saves recordings.",
                     QString::fromStdString(existingAncestor(start).string()));
  dialog.setFileMode(QFileDialog::Directory);
  dialog.setOption(QFileDialog::ShowDirsOnly);
  dialog.setLabelText(QFileDialog::Accept, "Use folder");
  if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) return std::nullopt;
  return std::filesystem::path(dialog.selectedFiles().constFirst().toStdString());
}

}  // namespace

RecordControls::RecordControls(CameraModel& model, QWidget* parent)
    : QWidget(parent),
      model_(model),
      button_(new QPushButton("Record")),
      more_(new QToolButton),
      menu_(new QMenu(this)) {
  askForFolder = [this](const std::filesystem::path& start) {
    return fileDialogFolder(window(), start);
  };

  button_->setIconSize(QSize(kIconSize, kIconSize));
  connect(button_, &QPushButton::clicked, this, [this] { model_.toggleRecording(); });

  more_->setText("▾");
  more_->setToolTip("Recording folder and format");
  more_->setPopupMode(QToolButton::InstantPopup);
  // Both as tall as the taller of the two, so they read as one control.
  button_->setSizePolicy(QSizePolicy::Minimum, QSizePolicy::Preferred);
  more_->setSizePolicy(QSizePolicy::Fixed, QSizePolicy::Preferred);
  more_->setMenu(menu_);
  more_->setStyleSheet(
      "QToolButton { padding: 5px 7px; }"
      " QToolButton::menu-indicator { image: none; width: 0; }");

  connect(menu_->addAction("Choose folder…"), &QAction::triggered, this,
          [this] { chooseFolder(); });
  folder_ = menu_->addAction(QString());
  folder_->setEnabled(false);
  freeSpace_ = menu_->addAction(QString());
  freeSpace_->setEnabled(false);
  connect(menu_->addAction("Show recordings in Files"), &QAction::triggered, this,
          [this] { showFolder(); });

  menu_->addSection("Format");
  auto choice = [this](QActionGroup* group, const char* text, auto change) {
    QAction* item = menu_->addAction(text);
    item->setCheckable(true);
    group->addAction(item);
    connect(item, &QAction::triggered, this, [this, change] { changeOptions(change); });
    return item;
  };
  auto* containers = new QActionGroup(this);
  mp4_ = choice(containers, "MP4", [](RecordOptions& o) { o.container = "mp4"; });
  mov_ = choice(containers, "MOV", [](RecordOptions& o) { o.container = "mov"; });
  menu_->addSeparator();
  auto* codecs = new QActionGroup(this);
  h264_ = choice(codecs, "H.264", [](RecordOptions& o) { o.codec = "h264"; });
  hevc_ = choice(codecs, "HEVC", [](RecordOptions& o) { o.codec = "hevc"; });
  // Free space is read from the disk only when someone looks.
  connect(menu_, &QMenu::aboutToShow, this, [this] {
    const auto free = model_.recordFreeSpaceLabel();
    freeSpace_->setText(free ? QString::fromStdString(*free) : QString());
    freeSpace_->setVisible(free.has_value());
    refreshMenu();
  });
  freeSpace_->setVisible(false);

  auto* layout = new QHBoxLayout(this);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(4);
  layout->addWidget(button_);
  layout->addWidget(more_);

  auto button = [this](const auto&) { refreshButton(); };
  auto menu = [this](const auto&) { refreshMenu(); };
  subscriptions_.push_back(model_.recording.subscribe(button));
  subscriptions_.push_back(model_.recording.subscribe(menu));
  subscriptions_.push_back(model_.recordElapsed.subscribe(button));
  subscriptions_.push_back(model_.recordFileSize.subscribe(button));
  subscriptions_.push_back(model_.recordOptions.subscribe(menu));
  refreshButton();
  refreshMenu();
}

QString RecordControls::text() const {
  return button_->text();
}

QAction* RecordControls::action(const QString& text) const {
  for (QAction* item : menu_->actions())
    if (item->text() == text) return item;
  return nullptr;
}

QString RecordControls::elapsedText(double seconds) {
  const long total = std::max(0L, long(std::floor(seconds)));
  const long hours = total / 3600;
  const long minutes = total / 60 % 60;
  const long rest = total % 60;
  if (hours > 0) return QString::asprintf("%02ld:%02ld:%02ld", hours, minutes, rest);
  return QString::asprintf("%02ld:%02ld", minutes, rest);
}

QString RecordControls::sizeText(std::int64_t bytes) {
  const char* units[] = {"bytes", "KB", "MB", "GB", "TB"};
  double value = double(std::max<std::int64_t>(bytes, 0));
  int unit = 0;
  while (value >= 1000 && unit < 4) {
    value /= 1000;
    ++unit;
  }
  return unit == 0 ? QString("%1 %2").arg(value, 0, 'f', 0).arg(units[unit])
                   : QString("%1 %2").arg(value, 0, 'f', 1).arg(units[unit]);
}

void RecordControls::chooseFolder() {
  const auto chosen = askForFolder ? askForFolder(model_.recordFolder()) : std::nullopt;
  if (!chosen || chosen->empty()) return;
  // On this system a folder's bookmark is its path.
  const std::string bytes = chosen->string();
  changeOptions([&bytes](RecordOptions& o) {
    o.folderBookmark = std::vector<std::uint8_t>(bytes.begin(), bytes.end());
  });
}

void RecordControls::showFolder() {
  const std::filesystem::path folder = model_.recordFolder();
  // Before the first recording the folder may not be there yet; a file manager can't open it.
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (!QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(folder.string()))))
    model_.flash("Could not open the recordings folder");
}

void RecordControls::changeOptions(const std::function<void(RecordOptions&)>& change) {
  RecordOptions options = model_.recordOptions();
  change(options);
  if (options == model_.recordOptions()) return;
  model_.recordOptions = options;
  model_.saveSettings();
}

void RecordControls::refreshButton() {
  const bool recording = model_.recording();
  if (recording) {
    QString label = "Stop  " + elapsedText(model_.recordElapsed());
    if (model_.recordFileSize() > 0) label += "  ·  " + sizeText(model_.recordFileSize());
    button_->setText(label);
  } else {
    button_->setText("Record");
  }
  // Restyled only when recording starts or stops, not with every tick.
  if (styledRecording_ == recording) return;
  styledRecording_ = recording;
  button_->setIcon(markIcon(recording ? Qvn::cloud : Qvn::live, !recording));
  button_->setToolTip(recording ? "Stop recording" : "Record Program to a movie");
  // Wide enough for a large file, so the header doesn't shift with every tick.
  button_->setMinimumWidth(
      recording ? button_->fontMetrics().horizontalAdvance("Stop  00:00  ·  888.8 MB") + 40 : 0);
  button_->setStyleSheet(recording
                             ? QString("QPushButton { background: %1; color: %2; border: none;"
                                       " font-weight: 700; padding: 6px 12px; }")
                                   .arg(css(Qvn::live), css(Qvn::cloud))
                             : QString("QPushButton { font-weight: 600; padding: 5px 12px; }"));
}

void RecordControls::refreshMenu() {
  const RecordOptions& options = model_.recordOptions();
  const QString folder = pathText(model_.recordFolder());
  folder_->setText(menu_->fontMetrics().elidedText(folder, Qt::ElideMiddle, 320));
  folder_->setToolTip(folder);
  mp4_->setChecked(options.container == "mp4");
  mov_->setChecked(options.container == "mov");
  h264_->setChecked(options.codec == "h264");
  hevc_->setChecked(options.codec == "hevc");
  // A running recording keeps the format it started with.
  const bool editable = !model_.recording();
  for (QAction* item : {mp4_, mov_, h264_, hevc_}) item->setEnabled(editable);
}

}  // namespace qvn::ui
