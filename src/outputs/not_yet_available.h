// Stand-ins for outputs that are not built yet: nothing records, nothing goes full screen.
#pragma once

#include "outputs/output_hubs.h"

namespace qvn {

class SessionRecorderNotYetAvailable final : public SessionRecorder {
 public:
  std::optional<std::filesystem::path> start(int, RecordAudioSource, const RecordOptions&,
                                             const std::optional<std::string>&) override {
    return std::nullopt;
  }
  void stop() override {}
  void recoverUnfinished(const std::filesystem::path&) override {}
  void attachTap(std::shared_ptr<PCMTap>, int) override {}
  void detachTap(int) override {}
  void followAudioSlot(int) override {}
};

class ProgramOutputNotYetAvailable final : public ProgramOutput {
 public:
  int extendedCount() const override { return 0; }
  std::vector<std::string> extendedScreenIDs() const override { return {}; }
  std::vector<ExtendedOutput> extendedOutputs() const override { return {}; }
  void applyScreenLayout() override {}
  void followProgram() override {}
};

class VirtualCameraControllerNotYetAvailable final : public VirtualCameraController {
 public:
  void refresh() override {}
};

class WirelessDisplayBrowserNotYetAvailable final : public WirelessDisplayBrowser {};

}  // namespace qvn
