// The ways Program leaves the studio, as the studio calls them: the movie file, full-screen
// outputs on other displays, the virtual camera and nearby wireless displays.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "outputs/record_options.h"

namespace qvn {

class PCMTap;

class SessionRecorder {
 public:
  virtual ~SessionRecorder() = default;
  // Recording started or stopped; the file when one was written. From the record queue.
  std::function<void(bool running, std::optional<std::filesystem::path> file)> onState;
  // Starts a movie of `videoSlot` (0 is Program); the file, or none when it can't be
  // written. A recording under way is finished first.
  virtual std::optional<std::filesystem::path> start(
      int videoSlot, RecordAudioSource audio, const RecordOptions& options,
      const std::optional<std::string>& workspace) = 0;
  virtual void stop() = 0;
  // Movies left unfinished in `folder` by a crash are made playable, away from the caller's
  // thread; `onRecovered` hears each one's name.
  virtual void recoverUnfinished(const std::filesystem::path& folder) = 0;
  std::function<void(const std::string& name)> onRecovered;
  // A phone's own sound, which a recording of its slot (or of Program while it is on air)
  // may take instead of the mix; none of it reaches the movie otherwise.
  virtual void attachTap(std::shared_ptr<PCMTap> tap, int slot) = 0;
  virtual void detachTap(int slot) = 0;
  // A recording of Program follows the sound of the input on Program.
  virtual void followAudioSlot(int slot) = 0;
};

// One full-screen output of Program on a display.
struct ExtendedOutput {
  std::string screenID;
  std::string name;
  bool operator==(const ExtendedOutput&) const = default;
};

class ProgramOutput {
 public:
  virtual ~ProgramOutput() = default;
  std::function<void(bool on)> onChange;
  std::function<void(int count)> onHeadsChanged;

  virtual int extendedCount() const = 0;
  virtual std::vector<std::string> extendedScreenIDs() const = 0;
  virtual std::vector<ExtendedOutput> extendedOutputs() const = 0;
  virtual void applyScreenLayout() = 0;
  // Program outputs watch Program again, not a fixed input.
  virtual void followProgram() = 0;
};

class VirtualCameraController {
 public:
  virtual ~VirtualCameraController() = default;
  // Asked before the camera's host is restarted: a reason not to, in the operator's words.
  std::function<std::optional<std::string>()> relaunchBlocker;
  virtual void refresh() = 0;
};

struct WirelessDisplay {
  std::string id;
  std::string name;
  bool operator==(const WirelessDisplay&) const = default;
};

class WirelessDisplayBrowser {
 public:
  virtual ~WirelessDisplayBrowser() = default;
  // Starts looking for nearby displays; calling it again while looking does nothing.
  virtual void start() {}
  std::function<void(std::vector<WirelessDisplay>)> onChange;  // from the browser's thread
};

}  // namespace qvn
