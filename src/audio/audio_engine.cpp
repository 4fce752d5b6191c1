#include "audio/audio_engine.h"

#include <cmath>
#include <vector>

#include "support/qvn_log.h"

namespace qvn {

std::shared_ptr<AudioEngine> AudioEngine::make() {
  std::shared_ptr<AudioEngine> engine(new AudioEngine());
  engine->drainTimer_ =
      RepeatingTimer(*engine->busQueue_, kDrainSeconds, [weak = std::weak_ptr(engine)] {
        if (auto self = weak.lock()) self->drainNow();
      });
  return engine;
}

AudioEngine::AudioEngine()
    : mix_(std::make_unique<AudioMix>()),
      busQueue_(
          std::make_unique<SerialQueue>("io.quorvane.audio.bus", QueuePriority::userInitiated)) {}

AudioEngine::~AudioEngine() {
  drainTimer_.cancel();
  std::lock_guard lock(controlLock_);
  output_.reset();
  programOutput_.reset();
}

// ---- Running ------------------------------------------------------------------------------

bool AudioEngine::isRunning() const {
  std::lock_guard lock(controlLock_);
  return output_ && output_->isRunning();
}

void AudioEngine::restart() {
  std::lock_guard lock(controlLock_);
  output_.reset();
  auto render = [mix = mix_.get()](int frames, float* left, float* right) {
    mix->render(frames, left, right);
  };
  std::string error;
  output_ = openAudioOutput(monitorUID_, render, error);
  if (!output_ && monitorUID_) output_ = openAudioOutput(std::nullopt, render, error);
  if (!output_) {
    // No sound server: the mix keeps its own time, so streams and recordings carry sound.
    QvnLog::line("audio engine on its own clock: " + error);
    output_ = openNullAudioOutput(render);
  }
  started_ = true;
  if (!loggedFirst_) {
    loggedFirst_ = true;
    QvnLog::line("audio engine running 48k stereo hw=" + std::to_string(output_->deviceRate()) +
                 "Hz/" + std::to_string(output_->deviceChannels()) + "ch");
  }
}

void AudioEngine::setMonitorEnabled(bool on) {
  mix_->setMonitorOn(on);
  if (on && !isRunning()) restart();
}

void AudioEngine::setMonitorVolume(double volume) {
  // Below -60 dB is silence; above 0 dB is held at 0 dB.
  float gain = 0;
  if (volume > 0.000001) {
    const double db = 20 * std::log10(volume);
    gain = db < -60 ? 0.0f : float(std::pow(10.0, std::min(db, 0.0) / 20));
  }
  mix_->setMonitorGain(gain);
}

void AudioEngine::setMonitorDevice(const std::optional<std::string>& deviceID) {
  {
    std::lock_guard lock(controlLock_);
    if (monitorUID_ == deviceID) return;
    monitorUID_ = deviceID;
  }
  restart();
}

void AudioEngine::setProgramOutput(const std::optional<std::string>& deviceID) {
  std::lock_guard lock(controlLock_);
  programOutput_.reset();
  if (!deviceID) return;
  mix_->resetProgram();
  std::string error;
  programOutput_ = openAudioOutput(
      deviceID,
      [mix = mix_.get()](int frames, float* left, float* right) {
        mix->renderProgram(frames, left, right);
      },
      error);
  if (!programOutput_) QvnLog::line("audio program output failed: " + error);
}

void AudioEngine::setProgramSlot(int slot) {
  mix_->setProgramSlot(slot);
}

// ---- Sources ----------------------------------------------------------------------------------

void AudioEngine::ingest(int id, const PCMView& pcm) {
  if (pcm.frames <= 0) return;
  const int index = AudioMix::indexOf(id);
  mix_->setActive(index, true);  // live even if this buffer can't be converted
  auto& converter = converters_[size_t(index)];
  if (!converter) converter = std::make_unique<PCMConverter>();
  int frames = 0;
  if (const float* samples = converter->convert(pcm, frames)) mix_->write(index, samples, frames);
}

void AudioEngine::setMuted(bool muted, int sourceID) {
  mix_->setMuted(AudioMix::indexOf(sourceID), muted);
}
void AudioEngine::setSolo(bool on, int id) {
  mix_->setSolo(AudioMix::indexOf(id), on);
}
void AudioEngine::setPan(float pan, int id) {
  mix_->setPan(AudioMix::indexOf(id), pan);
}
void AudioEngine::setGainLinear(float gain, int id) {
  mix_->setGain(AudioMix::indexOf(id), gain);
}
void AudioEngine::setSourceActive(bool on, int id) {
  mix_->setActive(AudioMix::indexOf(id), on);
}

// ---- The buses ----------------------------------------------------------------------------

void AudioEngine::addBusConsumer(const std::string& name, Consumer consumer) {
  {
    std::lock_guard lock(consumerLock_);
    auto& consumers = name == "record" ? recordConsumers_ : streamConsumers_;
    if (consumer)
      consumers[name] = consumer;
    else
      consumers.erase(name);
  }
  if (!consumer) {
    // A delivery under way may still hold it: once this returns, it is never called again.
    busQueue_->sync([] {});
    return;
  }
  if (!isRunning()) restart();
}

void AudioEngine::drainNow() {
  std::vector<Consumer> stream, record;
  {
    std::lock_guard lock(consumerLock_);
    for (auto& [name, c] : streamConsumers_) stream.push_back(c);
    for (auto& [name, c] : recordConsumers_) record.push_back(c);
  }
  mix_->drain(stream, record);
}

}  // namespace qvn
