// The Go Live sheet's views of a stream under way: the checklist while it starts (or why it
// didn't), the live view with the clock and each destination, and the ended view that says
// how it went. They show what they are given when the sheet refreshes them. Main thread.
#pragma once

#include <QString>
#include <QWidget>
#include <optional>
#include <string>
#include <vector>

#include "cloud/stream_wire.h"

class QGridLayout;
class QLabel;
class QPushButton;
class QVBoxLayout;

namespace qvn {
class CameraModel;
class QvnCloudAccount;
}  // namespace qvn

namespace qvn::ui {

class ChecklistPage : public QWidget {
 public:
  explicit ChecklistPage(CameraModel& model, QWidget* parent = nullptr);

  // Starting: the checks as they run, with Cancel. Else a check failed: Back and Try again.
  void refresh(bool starting);

 private:
  CameraModel& model_;
  QLabel* heading_;
  QGridLayout* rows_;
  QPushButton* cancel_;
  QPushButton* back_;
  QPushButton* retry_;
};

// Asks "Stop the live stream on every destination?" and stops it on "Stop Live".
void askToStopLive(CameraModel& model, QWidget* parent);

class LivePage : public QWidget {
 public:
  LivePage(CameraModel& model, QvnCloudAccount& account, QWidget* parent = nullptr);

  void refresh();
  QLabel& clock() { return *clock_; }

 private:
  CameraModel& model_;
  QvnCloudAccount& account_;
  QLabel* clock_;
  QVBoxLayout* rows_;
  std::vector<QvnCloud::SessionDestination> shownRows_;
  QLabel* noRows_;
  QLabel* limitation_;
  QWidget* unavailable_;
};

// How the last stream ended: the summary's failure, else the account's while its phase is
// `error`; none for a stream that ended as asked.
std::optional<std::string> endedFailure(const QvnCloudAccount& account);
// The ended view's words for a failure, or for none.
QString endedMessage(const std::optional<std::string>& failure);

class EndedPage : public QWidget {
 public:
  EndedPage(CameraModel& model, QvnCloudAccount& account, QWidget* parent = nullptr);

  void refresh();
  QLabel& title() { return *title_; }
  QLabel& message() { return *message_; }

 private:
  CameraModel& model_;
  QvnCloudAccount& account_;
  QLabel* title_;
  QLabel* duration_;
  QLabel* destinations_;
  QLabel* status_;
  QLabel* message_;
};

}  // namespace qvn::ui
