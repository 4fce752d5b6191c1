// The audio side as the studio steers it: the one real-time mix, device lists, the master
// input, the monitor and aux outputs, external inputs and the meters. Operations post to the
// audio owners and return; none of them waits on the render thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "audio/audio_types.h"

namespace qvn {

class QvnAudioEngine {
 public:
  virtual ~QvnAudioEngine() = default;
  virtual bool isRunning() const = 0;
  virtual void restart() = 0;
  virtual void setMonitorEnabled(bool on) = 0;
  virtual void setMonitorVolume(double volume) = 0;
  virtual void setMonitorDevice(const std::optional<std::string>& deviceID) = 0;
  // The device that plays Program's sound; none for the system default.
  virtual void setProgramOutput(const std::optional<std::string>& deviceID) = 0;
  // The input whose sound goes with Program.
  virtual void setProgramSlot(int slot) = 0;
  virtual void setMuted(bool muted, int sourceID) = 0;
  // Keeps the phones' WebRTC stack from playing sound on its own.
  virtual void suppressWebRTCPlayout() = 0;
};

class QvnAudioDevices {
 public:
  virtual ~QvnAudioDevices() = default;
  virtual std::vector<QvnAudioDevice> inputs() = 0;
  virtual std::vector<QvnAudioDevice> outputs() = 0;
  // One id per device, whatever older form it was stored in.
  virtual std::string canonicalUID(const std::string& id) = 0;
};

// The microphone that can stand in for inputs' own sound.
class QvnMasterAudioInput {
 public:
  virtual ~QvnMasterAudioInput() = default;
  std::function<void(std::vector<float> levels)> onLevel;  // from the capture thread
  virtual void stop() = 0;
};

class QvnMonitorMixer {
 public:
  virtual ~QvnMonitorMixer() = default;
  std::function<void(std::vector<float> levels)> onMixLevel;  // from the audio side
  virtual void setVolume(double volume) = 0;
  // Restarts a monitor output that has gone quiet; nothing when it runs.
  virtual void kickMonitor() {}
};

// The second output that can carry the monitor mix to another device.
class QvnAuxOutput {
 public:
  virtual ~QvnAuxOutput() = default;
  virtual void setVolume(double volume) = 0;
};

// Up to five independent audio inputs.
class QvnExternalHub {
 public:
  virtual ~QvnExternalHub() = default;
  virtual void attach() = 0;
  virtual void reconcileDevices() = 0;
  // Whether an external input of the studio records from this device.
  virtual bool usesInputDevice(const std::string& deviceID) const = 0;
};

// Meter values on their way to the screen; main thread.
class QvnMeterBus {
 public:
  virtual ~QvnMeterBus() = default;
  // A source's levels, by its engine id (slots 1–16, external inputs 101–105).
  virtual void push(int /*id*/, std::vector<float> /*levels*/) {}
  virtual void pushMaster(std::vector<float> levels) = 0;
  virtual void pushMix(std::vector<float> levels) = 0;
  virtual void clear(int slot) = 0;
};

}  // namespace qvn
