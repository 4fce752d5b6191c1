#include "phones/phone_audio_tap.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "audio/audio_snapshot.h"
#include "platform/dispatch.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr int kMostChannels = 8;

float sample(const PCMView& pcm, int channel, int frame) {
  const int index = pcm.interleaved ? frame * pcm.channels + channel : frame;
  const void* plane = pcm.planes[pcm.interleaved ? 0 : size_t(channel)];
  if (pcm.format == SampleFormat::float32) return static_cast<const float*>(plane)[index];
  return static_cast<const std::int16_t*>(plane)[index] / 32768.0f;
}

}  // namespace

PhoneAudioTap::PhoneAudioTap(int slot, std::function<void(int, const PCMView&)> mix)
    : slot_(slot), mix_(std::move(mix)) {}

void PhoneAudioTap::setConsumer(Consumer consumer) {
  std::lock_guard hold(lock_);
  consumer_ = std::move(consumer);
}

void PhoneAudioTap::render(const PCMView& pcm) {
  {
    std::unique_lock hold(lock_);
    if (consumer_) {
      Consumer consumer = consumer_;
      hold.unlock();
      consumer(pcm);
    }
  }
  if (++frameCount_ == 1)
    QvnLog::line("audio tap cam " + std::to_string(slot_) +
                 ": first PCM frame, ch=" + std::to_string(pcm.channels) +
                 " rate=" + std::to_string(pcm.rate) + " frames=" + std::to_string(pcm.frames));
  if (mix_) mix_(slot_, pcm);
  const double now = mediaTime();
  if (onLevel && now - lastLevelAt_ > kLevelInterval) {
    lastLevelAt_ = now;
    onLevel(peakMeter(pcm));
  }
}

std::vector<float> PhoneAudioTap::peakMeter(const PCMView& pcm) {
  const int channels = std::clamp(pcm.channels, 1, kMostChannels);
  std::vector<float> levels(size_t(channels), 0.0f);
  if (pcm.frames <= 0 || !pcm.planes[0]) return levels;
  for (int c = 0; c < channels; ++c) {
    float peak = 0;
    for (int f = 0; f < pcm.frames; ++f) peak = std::max(peak, std::fabs(sample(pcm, c, f)));
    levels[size_t(c)] = meterLevel(peak);
  }
  return levels;
}

}  // namespace qvn
