// The hubs of non-phone sources as the studio calls them. Each real hub lands with its own
// input; the stand-ins in inputs/not_yet_available.h take their place until then.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "inputs/local_source_hub.h"

namespace qvn {

// Cameras and capture cards.
class LocalCaptureHub : public LocalSourceHub {
 public:
  struct Device {
    std::string id;
    std::string name;
    bool operator==(const Device&) const = default;
  };
  enum class Authorization { notDetermined, authorized, denied };

  // A camera came or went; called on the main thread.
  std::function<void()> onDevicesChanged;

  virtual std::vector<Device> listDevices() = 0;
  virtual Authorization authorization() const = 0;
  // Asks the system for camera access; the answer arrives on the main thread.
  virtual void requestAccess(std::function<void(bool granted)> answer) = 0;
  virtual std::optional<std::string> start(const std::string& deviceId, int slot) = 0;
  virtual void restartRunning() = 0;
};

// Media decks: files, playlists, slideshows, documents and audio beds.
class MediaSourceHub : public LocalSourceHub {
 public:
  std::function<void(int slot, std::vector<float> levels)> onLevel;

  virtual bool hasDeck(int slot) const = 0;
  virtual bool deckMuted(int slot) const = 0;
  virtual void setDeckMuted(int slot, bool muted) = 0;
  // All deck sound passes through the audio engine: players unmuted at volume 0.
  virtual void routeSoundThroughEngine() = 0;
  virtual void setMonitorEnabled(bool enabled) = 0;
  virtual void setVolume(double volume) = 0;
  virtual void resumeAfterSleep() = 0;
};

// Screens and windows.
class ScreenCaptureHub : public LocalSourceHub {
 public:
  struct Target {
    std::string id;
    std::string name;
    bool isWindow = false;
    bool operator==(const Target&) const = default;
  };
  // Starts capturing on the hub's own queue; failures arrive as log lines and no onSlotLive.
  virtual void start(const Target& target, int slot) = 0;
};

// An NDI source as found on the network.
struct NDISourceItem {
  std::string name;
  std::string url;  // may be empty
  bool operator==(const NDISourceItem&) const = default;
};

// NDI sources on the network.
class NDIHub : public LocalSourceHub {
 public:
  virtual std::optional<std::string> start(const NDISourceItem& source, int slot) = 0;
  std::function<void(int slot, std::string reason)> onSignalLost;
  std::function<void(int slot)> onSignalRestored;
  std::function<void(int slot, std::string resolution)> onResolution;
  std::function<void(int slot, std::vector<float> levels)> onLevel;
};

}  // namespace qvn
