// Sound out. An output stream calls its render function on a real-time thread for 48 kHz
// stereo float, in deinterleaved left and right buffers, as the device needs them. On a
// machine without a sound server a null output keeps the same clock from the monotonic
// clock, in 480-frame blocks, so streams and recordings still carry sound.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvn {

// A device as the sound server lists it: its stable name and a description for people.
struct AudioDeviceInfo {
  std::string id;
  std::string name;
};

class AudioOutput {
 public:
  // Called on the output's own thread; must not lock, allocate or wait.
  using Render = std::function<void(int frames, float* left, float* right)>;

  virtual ~AudioOutput() = default;
  virtual bool isRunning() const = 0;
  // The device's own rate and channels, for the log.
  virtual int deviceRate() const = 0;
  virtual int deviceChannels() const = 0;
};

// Plays on `deviceID` (a sink name), or the server's default; none with `error` set when no
// sound server answers or the device can't be opened.
std::unique_ptr<AudioOutput> openAudioOutput(const std::optional<std::string>& deviceID,
                                             AudioOutput::Render render, std::string& error);
// Renders into nothing at real-time pace.
std::unique_ptr<AudioOutput> openNullAudioOutput(AudioOutput::Render render);

// The sound server's outputs; empty without a server.
std::vector<AudioDeviceInfo> listAudioOutputs();

// Hears outputs come and go and the default output move. `changed` runs on the watch's own
// thread and must return quickly; it never runs once the watch is destroyed.
class AudioDeviceWatch {
 public:
  virtual ~AudioDeviceWatch() = default;
};
// None when no sound server answers.
std::unique_ptr<AudioDeviceWatch> watchAudioDevices(std::function<void()> changed);

}  // namespace qvn
