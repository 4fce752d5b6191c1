// The application's place in the desktop session: displays, the key monitor, sleep and wake,
// staying awake, and the app's own will-terminate and resign-active moments.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvn {

struct DisplayInfo {
  std::optional<std::string> id;  // none when the display's number can't be read
  std::string name;
  bool builtIn = false;
  bool operator==(const DisplayInfo&) const = default;
};

class Screens {
 public:
  virtual ~Screens() = default;
  virtual std::vector<DisplayInfo> list() = 0;
};

// Keys pressed anywhere in the studio's windows; the handler answers whether it used the key.
class KeyMonitor {
 public:
  virtual ~KeyMonitor() = default;
  using Handler = std::function<bool(int key, unsigned modifiers)>;
  virtual void install(Handler handler) = 0;
};

// The session's sleep and wake. Handlers are called on a thread of the watcher's own.
class SleepWatcher {
 public:
  virtual ~SleepWatcher() = default;
  std::function<void()> onWillSleep;
  std::function<void()> onDidWake;
  // Starts watching; an error text when the system can't tell (no system bus, no logind).
  virtual std::optional<std::string> start() = 0;
};

// Holds off idle sleep of the system and the display while the studio runs.
// start() is repeatable and takes the hold only once.
class StayAwake {
 public:
  virtual ~StayAwake() = default;
  virtual std::optional<std::string> start() = 0;
  virtual void stop() = 0;
};

// The app's own moments: about to end, and no longer the active application.
// Main thread; handlers run on the main thread.
class AppLifecycle {
 public:
  virtual ~AppLifecycle() = default;
  virtual void observeWillTerminate(std::function<void()> handler) = 0;
  virtual void observeDidResignActive(std::function<void()> handler) = 0;
};

// The lifecycle as the app drives it by hand: the headless app at quit, tests at will.
class ManualAppLifecycle final : public AppLifecycle {
 public:
  void observeWillTerminate(std::function<void()> handler) override {
    willTerminate_.push_back(std::move(handler));
  }
  void observeDidResignActive(std::function<void()> handler) override {
    resignActive_.push_back(std::move(handler));
  }
  void willTerminate() {
    for (auto& handler : willTerminate_) handler();
  }
  void didResignActive() {
    for (auto& handler : resignActive_) handler();
  }

 private:
  std::vector<std::function<void()>> willTerminate_;
  std::vector<std::function<void()>> resignActive_;
};

// logind over the system bus: PrepareForSleep signals and an idle/sleep inhibitor.
std::unique_ptr<SleepWatcher> makeLogindSleepWatcher();
std::unique_ptr<StayAwake> makeLogindStayAwake();

class ScreensNotYetAvailable final : public Screens {
 public:
  std::vector<DisplayInfo> list() override { return {}; }
};

class KeyMonitorNotYetAvailable final : public KeyMonitor {
 public:
  void install(Handler) override {}
};

}  // namespace qvn
