// Stand-ins for input hubs that are not built yet: no devices, no decks, nothing to stop.
#pragma once

#include "inputs/capture_hubs.h"

namespace qvn {

class LocalCaptureHubNotYetAvailable final : public LocalCaptureHub {
 public:
  void stopSlot(int) override {}
  void stopDevice(const std::string&) override {}
  std::vector<Device> listDevices() override { return {}; }
  Authorization authorization() const override { return Authorization::notDetermined; }
  void requestAccess(std::function<void(bool)> answer) override { answer(false); }
  std::optional<std::string> start(const std::string&, int) override {
    return "Cameras are not part of this build yet.";
  }
  void restartRunning() override {}
};

class MediaSourceHubNotYetAvailable final : public MediaSourceHub {
 public:
  void stopSlot(int) override {}
  void stopDevice(const std::string&) override {}
  bool hasDeck(int) const override { return false; }
  bool deckMuted(int) const override { return false; }
  void setDeckMuted(int, bool) override {}
  void routeSoundThroughEngine() override {}
  void setMonitorEnabled(bool) override {}
  void setVolume(double) override {}
  void resumeAfterSleep() override {}
};

class ScreenCaptureHubNotYetAvailable final : public ScreenCaptureHub {
 public:
  void start(const Target&, int) override {}
  void stopSlot(int) override {}
  void stopDevice(const std::string&) override {}
};

class NDIHubNotYetAvailable final : public NDIHub {
 public:
  std::optional<std::string> start(const NDISourceItem&, int) override {
    return "NDI is not part of this build yet.";
  }
  void stopSlot(int) override {}
  void stopDevice(const std::string&) override {}
};

}  // namespace qvn
