// A phone's decoded sound on its way into the studio: the recorder's optional consumer
// first, then the mix, and a level for the phone's meter at most 20 times a second.
//
// `render` runs on the WebRTC audio thread and, itself, never allocates or waits: it takes
// `lock_` only to read the consumer, which is set from other threads. The recorder's
// consumer copies what it takes and posts it, so it costs only while the phone is recorded.
// `onLevel` and the mix entry are set once, before sound flows.
#pragma once

#include <functional>
#include <mutex>
#include <vector>

#include "audio/pcm_buffer.h"
#include "audio/pcm_tap.h"

namespace qvn {

class PhoneAudioTap final : public PCMTap {
 public:
  static constexpr double kLevelInterval = 0.05;

  // `mix` brings the slot's sound into the audio mix.
  PhoneAudioTap(int slot, std::function<void(int slot, const PCMView& pcm)> mix);

  std::function<void(const std::vector<float>& levels)> onLevel;

  void setConsumer(Consumer consumer) override;
  void render(const PCMView& pcm);

  int slot() const { return slot_; }
  long frameCount() const { return frameCount_; }

  // One meter value per channel (at least one): the peak sample on the studio's meter
  // scale, linear in dB from -60 (0) to 0 dBFS (1). Empty blocks read as silence.
  static std::vector<float> peakMeter(const PCMView& pcm);

 private:
  const int slot_;
  std::function<void(int, const PCMView&)> mix_;
  std::mutex lock_;
  Consumer consumer_;  // under lock_
  // The audio thread's own.
  double lastLevelAt_ = -1;
  long frameCount_ = 0;
};

}  // namespace qvn
