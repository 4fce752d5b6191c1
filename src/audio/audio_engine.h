// The studio's one audio mix with its outputs: the monitor on the operator's device (or on
// the null clock when no sound server answers), the optional Program device, and the stream
// and record buses delivered to their consumers every 4 ms on "io.quorvane.audio.bus".
//
// Threads: setters and `restart` from any thread, under the control lock; `ingest` from one
// producer thread per source; consumers are called on the bus queue and must return quickly.
#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "audio/audio_hubs.h"
#include "audio/audio_mix.h"
#include "audio/audio_snapshot.h"
#include "audio/pcm_buffer.h"
#include "audio/pcm_converter.h"
#include "platform/audio_io.h"
#include "platform/dispatch.h"

namespace qvn {

class Defaults;

class AudioEngine final : public QvnAudioEngine, public std::enable_shared_from_this<AudioEngine> {
 public:
  using Consumer = AudioMix::Consumer;
  static constexpr double kDrainSeconds = 0.004;

  // Built stopped; the first `restart` starts it.
  static std::shared_ptr<AudioEngine> make();
  ~AudioEngine() override;

  // ---- QvnAudioEngine
  bool isRunning() const override;
  void restart() override;
  void setMonitorEnabled(bool on) override;
  void setMonitorVolume(double volume) override;
  void setMonitorDevice(const std::optional<std::string>& deviceID) override;
  void setProgramOutput(const std::optional<std::string>& deviceID) override;
  void setProgramSlot(int slot) override;
  void setMuted(bool muted, int sourceID) override;
  // Phone sound reaches the mix through its tap; there is no other playout to silence.
  void suppressWebRTCPlayout() override {}

  // ---- Sources, by id (1–16 slots, 101–105 external inputs)
  void ingest(int id, const PCMView& pcm);
  void setSolo(bool on, int id);
  void setPan(float pan, int id);
  void setGainLinear(float gain, int id);
  void setSourceActive(bool on, int id);

  // "record" names the record bus, any other name the stream bus; a null consumer leaves,
  // and is never called again once this returns. Adding one starts the engine when it
  // isn't running.
  void addBusConsumer(const std::string& name, Consumer consumer);

  AudioMix& mix() { return *mix_; }

  // ---- External inputs riding with the slot on air
  void setAccompany(bool on, int externalID, int slot);
  void clearAccompany(int externalID);
  bool accompanies(int externalID, int slot) const;
  // The routing lives in the settings under "qvn.externalAccompany"; read once, written on
  // every change.
  void attachSettings(Defaults& settings);

  // ---- Meters: one snapshot now; or, from 0.1 s after `startPublishing` (called once) on,
  // one every 1/15 s on `main`, whose sources' meters and stream peak (as the master) go
  // to `meters` before the snapshot goes to `onSnapshot`.
  static constexpr double kFirstPublishSeconds = 0.1;
  static constexpr double kPublishSeconds = 1.0 / 15;
  QvnAudioSnapshot publishNow();
  void startPublishing(Queue& main, std::shared_ptr<QvnMeterBus> meters,
                       std::function<void(const QvnAudioSnapshot&)> onSnapshot = {});

 private:
  // The control side's mirror of a source. Under the control lock.
  struct SourceMeta {
    std::string name, kind;
    bool active = false, muted = false, solo = false;
    float gain = 1, pan = 0;
    bool routeStream = true, routeMonitor = true, routeRecord = true;
    std::uint16_t accompany = 0;
  };
  AudioEngine();
  void drainNow();
  // The sound server's outputs changed: start again if ours stopped (on the bus queue).
  void configurationChanged();
  SourceMeta& meta(int id);  // caller holds controlLock_
  void persistRouting();     // caller holds controlLock_

  std::unique_ptr<AudioMix> mix_;
  std::array<std::unique_ptr<PCMConverter>, AudioMix::kSources> converters_;

  mutable std::mutex controlLock_;
  std::map<int, SourceMeta> meta_;
  std::map<int, std::array<float, 2>> peakHold_, rmsHold_;
  Defaults* settings_ = nullptr;
  std::array<std::atomic<double>, AudioMix::kSources> lastIngest_{};
  DelayedWork publishStart_;
  RepeatingTimer publishTimer_;  // made on the main queue
  std::optional<std::string> monitorUID_;
  bool started_ = false;
  bool loggedFirst_ = false;
  std::unique_ptr<AudioOutput> output_;
  std::unique_ptr<AudioOutput> programOutput_;
  std::unique_ptr<AudioDeviceWatch> deviceWatch_;

  std::mutex consumerLock_;
  std::map<std::string, Consumer> streamConsumers_, recordConsumers_;
  std::unique_ptr<SerialQueue> busQueue_;
  RepeatingTimer drainTimer_;
};

}  // namespace qvn
