// The header's recording controls: Record (Stop with the running time and the file's size
// while it records) and a menu beside it with the recordings folder, its disk's free space
// and the movie's format. A format or folder chosen here is stored with the settings at
// once, so the next start finds it. Main thread.
#pragma once

#include <QWidget>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

#include "support/observable.h"

class QAction;
class QMenu;
class QPushButton;
class QToolButton;

namespace qvn {
class CameraModel;
struct RecordOptions;
}  // namespace qvn

namespace qvn::ui {

class RecordControls : public QWidget {
 public:
  explicit RecordControls(CameraModel& model, QWidget* parent = nullptr);

  QPushButton& button() { return *button_; }
  QString text() const;
  QToolButton& menuButton() { return *more_; }
  QMenu& menu() { return *menu_; }
  // The menu's item with this text; none when there is no such item.
  QAction* action(const QString& text) const;

  // Asks for a folder starting at the given one; none when the operator cancels. A file
  // dialog by default; a test puts its own answer here.
  std::function<std::optional<std::filesystem::path>(const std::filesystem::path& start)>
      askForFolder;

  // "01:05" under an hour, "01:02:03" from then on.
  static QString elapsedText(double seconds);
  // Decimal units, as file managers show sizes: "12.4 MB".
  static QString sizeText(std::int64_t bytes);

 private:
  void chooseFolder();
  void showFolder();
  void changeOptions(const std::function<void(RecordOptions&)>& change);
  void refreshButton();
  void refreshMenu();

  CameraModel& model_;
  QPushButton* button_;
  QToolButton* more_;
  QMenu* menu_;
  QAction* folder_;
  QAction* freeSpace_;
  QAction* mp4_;
  QAction* mov_;
  QAction* h264_;
  QAction* hevc_;
  std::optional<bool> styledRecording_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
