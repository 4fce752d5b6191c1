// The Go Live sheet: a card over the studio, up while the model's `showGoLiveSheet` is. Which
// view it shows follows the stream: the tabs (Destinations, Embed, Settings) and the start
// button while nothing runs, the checklist while a stream starts or after a check failed,
// then reconnecting, live, stopping and ended. It holds no Go Live logic: it shows the model
// and the account and calls their operations. Closing it (Esc or ×) never stops a stream.
// It covers its parent and follows its size. Main thread.
#pragma once

#include <QString>
#include <QWidget>
#include <vector>

#include "cloud/cloud_account.h"
#include "support/observable.h"
#include "ui/go_live_parts.h"

class QLabel;
class QPushButton;
class QStackedWidget;
class QTabWidget;

namespace qvn {
class CameraModel;
}

namespace qvn::ui {

class ChecklistPage;
class DestinationsTab;
class EmbedTab;
class EndedPage;
class LivePage;
class StreamSettingsTab;

class GoLiveSheet : public QWidget {
 public:
  enum class View { setup, checklist, reconnecting, live, stopping, ended };
  static constexpr int kCardWidth = 640;

  // `parent` is what the sheet covers.
  GoLiveSheet(CameraModel& model, QvnCloudAccount& account, QWidget* parent);

  // Where links go; the desktop's browser until replaced.
  void setUrlOpener(UrlOpener open) { open_ = std::move(open); }

  // The view for a state of the stream. `beenLive`: the stream was live since it started, so
  // a connecting phase is a reconnect rather than the first connection.
  static View viewFor(LivePhase phase, bool starting, bool hasChecks, bool beenLive);
  View view() const { return view_; }
  // "Start streaming to 2 destinations selected", or "Turn on a destination first".
  static QString startLabel(int selected);

  QTabWidget& tabs() { return *tabs_; }
  QPushButton& startButton() { return *start_; }
  QPushButton& closeButton() { return *close_; }
  QLabel& footer() { return *footer_; }
  DestinationsTab& destinations() { return *destinations_; }
  EmbedTab& embed() { return *embed_; }
  StreamSettingsTab& settings() { return *settings_; }
  LivePage& live() { return *live_; }
  EndedPage& ended() { return *ended_; }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  QWidget* makeSetup();
  QWidget* makeMessage(const QString& title, const QString& text);
  void refresh();
  void follow(bool shown);
  void placeCard();

  CameraModel& model_;
  QvnCloudAccount& account_;
  UrlOpener open_;
  View view_ = View::setup;
  bool beenLive_ = false;
  QWidget* card_;
  QPushButton* close_;
  QStackedWidget* stack_;
  QTabWidget* tabs_ = nullptr;
  DestinationsTab* destinations_ = nullptr;
  EmbedTab* embed_ = nullptr;
  StreamSettingsTab* settings_ = nullptr;
  QLabel* footer_ = nullptr;
  QPushButton* start_ = nullptr;
  ChecklistPage* checklist_;
  LivePage* live_;
  EndedPage* ended_;
  QWidget* setupPage_;
  QWidget* reconnectingPage_;
  QWidget* stoppingPage_;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
