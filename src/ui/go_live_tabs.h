// The Go Live sheet's Embed and Settings tabs: the account's web embed link in each of its
// states, and what Studio sends (the canvas, the size chosen for the stream, how it is
// encoded). Main thread.
#pragma once

#include <QWidget>
#include <string>
#include <vector>

#include "support/observable.h"
#include "ui/go_live_parts.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;

namespace qvn {
class CameraModel;
class QvnCloudAccount;
}  // namespace qvn

namespace qvn::ui {

class EmbedTab : public QWidget {
 public:
  EmbedTab(QvnCloudAccount& account, UrlOpener open, QWidget* parent = nullptr);

  QLabel& message() { return *message_; }
  QLineEdit& link() { return *link_; }
  QLabel& statusLine() { return *status_; }
  QPushButton& copyButton() { return *copy_; }

 private:
  void refresh();

  QvnCloudAccount& account_;
  UrlOpener open_;
  QLabel* message_;
  QLineEdit* link_;
  QPushButton* create_;
  QPushButton* dashboard_;
  QPushButton* retry_;
  QPushButton* copy_;
  QPushButton* openEmbed_;
  QLabel* status_;
  std::string shownURL_;
  std::vector<Subscription> subscriptions_;
};

class StreamSettingsTab : public QWidget {
 public:
  explicit StreamSettingsTab(CameraModel& model, QWidget* parent = nullptr);

  QLabel& canvas() { return *canvas_; }
  QComboBox& sizeSent() { return *size_; }
  QLabel& sizeLine() { return *sizeLine_; }
  QPushButton& changeCanvas() { return *changeCanvas_; }

 private:
  void refresh();

  CameraModel& model_;
  QLabel* canvas_;
  QPushButton* changeCanvas_;
  QComboBox* size_;
  QLabel* sizeLine_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
