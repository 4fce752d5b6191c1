// Support services the studio starts and consults: the updater and telemetry.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace qvn {

class QvnAutoUpdater {
 public:
  virtual ~QvnAutoUpdater() = default;
  // Asked before an update restarts the studio: a reason to hold it, in the operator's words.
  std::function<std::optional<std::string>()> showBlocker;
  std::function<void(std::string)> onNotice;
  virtual void start() = 0;
};

class QvnTelemetry {
 public:
  virtual ~QvnTelemetry() = default;
  virtual void heartbeatAtQuit(double timeoutSeconds) = 0;
};

class QvnAutoUpdaterNotYetAvailable final : public QvnAutoUpdater {
 public:
  void start() override {}
};

class QvnTelemetryNotYetAvailable final : public QvnTelemetry {
 public:
  void heartbeatAtQuit(double) override {}
};

}  // namespace qvn
