// The studio window "Quorvane Studio": the sign-in screen while nobody is signed in, else the
// studio: the header with its record controls and Go Live button, Preview and Program with
// the transport column between them, the Sources strip, the panel rail, the toast, the log
// drawer and the Go Live sheet over them. A sign-in lost during a stream keeps the studio up
// until it ends. Keys 1–9 pick an input and Ctrl with a panel's digit opens the panel,
// wherever the focus is but a text field. The window keeps its frame between launches. Main
// thread.
#pragma once

#include <QMainWindow>
#include <memory>
#include <optional>
#include <vector>

#include "support/observable.h"

class QLabel;
class QListWidget;
class QPushButton;

class QStackedWidget;

namespace qvn {
class CameraModel;
class CloudAccount;
class QvnCloudAccount;
class Defaults;
class FrameHub;
class WindowFrameAutosave;
}  // namespace qvn

namespace qvn::ui {

class GoLiveSheet;
class MonitorView;
class PanelRail;
class RecordControls;
class SignInView;
class SourcesStrip;
class TransportColumn;

class MainWindow : public QMainWindow {
 public:
  static constexpr int kDefaultWidth = 1100;
  static constexpr int kDefaultHeight = 680;

  // With an account, the sign-in screen stands in for the studio while nobody is signed in.
  // The Go Live sheet shows `streaming`, else `account` (the model's cloud hub either way);
  // without both there is no sheet.
  MainWindow(CameraModel& model, FrameHub& frames, Defaults& settings,
             CloudAccount* account = nullptr, QvnCloudAccount* streaming = nullptr);
  ~MainWindow() override;

  // Places the window as it was left (or 90 % of its screen) and shows it.
  void open();

  MonitorView& preview() { return *preview_; }
  MonitorView& program() { return *program_; }
  TransportColumn& transport() { return *transport_; }
  SourcesStrip& strip() { return *strip_; }
  PanelRail& rail() { return *rail_; }
  // The sign-in screen; none without an account.
  SignInView* signInView() { return signIn_; }
  // The Go Live sheet; none without an account to stream with.
  GoLiveSheet* goLiveSheet() { return goLiveSheet_; }
  QPushButton& goLiveButton() { return *goLive_; }
  RecordControls& recordControls() { return *record_; }
  // Whether the studio, rather than the sign-in screen, is up.
  bool showsStudio() const;

 protected:
  void moveEvent(QMoveEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  class KeyFilter;
  QWidget* makeHeader();
  void refreshHeader();
  void refreshGoLive();
  void refreshRoot();
  void refreshMonitors();
  void showToast(const std::optional<std::string>& text);
  void rememberFrame();
  bool handleKey(int key, Qt::KeyboardModifiers modifiers);

  CameraModel& model_;
  CloudAccount* account_;
  QvnCloudAccount* streaming_;
  std::unique_ptr<WindowFrameAutosave> autosave_;
  QStackedWidget* root_ = nullptr;
  QWidget* studio_ = nullptr;
  SignInView* signIn_ = nullptr;
  GoLiveSheet* goLiveSheet_ = nullptr;
  MonitorView* preview_;
  MonitorView* program_;
  TransportColumn* transport_;
  SourcesStrip* strip_;
  PanelRail* rail_;
  QLabel* pairing_;
  QLabel* mode_;
  RecordControls* record_;
  QPushButton* goLive_;
  std::optional<bool> goLiveStyledRunning_;
  QLabel* toast_;
  QListWidget* log_;
  QPushButton* logButton_;
  std::unique_ptr<KeyFilter> keys_;
  bool opened_ = false;
  std::vector<Subscription> subscriptions_;
};

}  // namespace qvn::ui
