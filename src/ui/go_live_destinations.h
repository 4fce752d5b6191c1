// The Go Live sheet's Destinations tab: one row per destination of the account, with its
// state, its switch and its details; a line for the account's last refusal; and, with no
// destinations at all, the way to the dashboard where they are connected. Main thread.
#pragma once

#include <QFrame>
#include <QString>
#include <string>
#include <vector>

#include "cloud/stream_wire.h"
#include "support/observable.h"
#include "ui/go_live_parts.h"

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace qvn {
class QvnCloudAccount;
}

namespace qvn::ui {

// "Connected · Ready", "Connected · Off", "Connected · Last stream had a problem" or
// "Not connected".
QString destinationStatus(const QvnCloud::Destination& destination);

class DestinationRow : public QFrame {
 public:
  DestinationRow(QvnCloudAccount& account, UrlOpener open, QWidget* parent = nullptr);

  // Shows the destination as the account has it now.
  void setDestination(const QvnCloud::Destination& destination);
  const std::string& id() const { return destination_.id; }

  QLabel& statusLine() { return *status_; }
  Switch& toggle() { return *switch_; }
  QPushButton& detailsButton() { return *detailsButton_; }
  QWidget& details() { return *details_; }

 private:
  QvnCloudAccount& account_;
  UrlOpener open_;
  QvnCloud::Destination destination_;
  QLabel* name_;
  QLabel* platform_;
  QLabel* status_;
  Switch* switch_;
  QWidget* connect_;
  QLabel* connectText_;
  QPushButton* connectButton_;
  QPushButton* detailsButton_;
  QWidget* details_;
  QLabel* detailName_;
  QLabel* detailKey_;
  QLabel* lastError_;
};

class DestinationsTab : public QWidget {
 public:
  DestinationsTab(QvnCloudAccount& account, UrlOpener open, QWidget* parent = nullptr);

  int rowCount() const { return int(rows_.size()); }
  DestinationRow& row(int index) { return *rows_.at(size_t(index)); }
  QLabel& errorLine() { return *error_; }

 private:
  void refresh();

  QvnCloudAccount& account_;
  UrlOpener open_;
  QLabel* error_;
  QWidget* empty_;
  QWidget* list_;
  QVBoxLayout* rowsLayout_;
  std::vector<DestinationRow*> rows_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
