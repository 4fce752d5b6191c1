// Stand-ins for the audio side until it is built: silent, with no devices.
#pragma once

#include "audio/audio_hubs.h"

namespace qvn {

class QvnAudioEngineNotYetAvailable final : public QvnAudioEngine {
 public:
  bool isRunning() const override { return true; }
  void restart() override {}
  void setMonitorEnabled(bool) override {}
  void setMonitorVolume(double) override {}
  void setMonitorDevice(const std::optional<std::string>&) override {}
  void setProgramOutput(const std::optional<std::string>&) override {}
  void setProgramSlot(int) override {}
  void setMuted(bool, int) override {}
  void suppressWebRTCPlayout() override {}
};

class QvnAudioDevicesNotYetAvailable final : public QvnAudioDevices {
 public:
  std::vector<QvnAudioDevice> inputs() override { return {}; }
  std::vector<QvnAudioDevice> outputs() override { return {}; }
  std::string canonicalUID(const std::string& id) override { return id; }
};

class QvnMasterAudioInputNotYetAvailable final : public QvnMasterAudioInput {
 public:
  void stop() override {}
};

class QvnMonitorMixerNotYetAvailable final : public QvnMonitorMixer {
 public:
  void setVolume(double) override {}
};

class QvnAuxOutputNotYetAvailable final : public QvnAuxOutput {
 public:
  void setVolume(double) override {}
};

class QvnExternalHubNotYetAvailable final : public QvnExternalHub {
 public:
  void attach() override {}
  void reconcileDevices() override {}
  bool usesInputDevice(const std::string&) const override { return false; }
};

class QvnMeterBusNotYetAvailable final : public QvnMeterBus {
 public:
  void pushMaster(std::vector<float>) override {}
  void pushMix(std::vector<float>) override {}
  void clear(int) override {}
};

}  // namespace qvn
