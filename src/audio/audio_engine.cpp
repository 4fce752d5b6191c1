#include "audio/audio_engine.h"

#include <cmath>
#include <vector>

#include "platform/defaults.h"
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
  publishStart_.cancel();
  publishTimer_.cancel();
  {
    std::lock_guard lock(controlLock_);
    deviceWatch_.reset();
    output_.reset();
    programOutput_.reset();
  }
  // A drain holds the engine while it runs, so the last reference may go inside one.
  SerialQueue::release(std::move(busQueue_));
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
    QvnLog::line("audio engine start failed: " + error);
    output_ = openNullAudioOutput(render);
  }
  started_ = true;
  if (!deviceWatch_)
    deviceWatch_ = watchAudioDevices([weak = weak_from_this()] {
      if (auto self = weak.lock())
        self->busQueue_->async([weak] {
          if (auto engine = weak.lock()) engine->configurationChanged();
        });
    });
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
  lastIngest_[size_t(index)].store(monotonicTime(), std::memory_order_relaxed);
  auto& converter = converters_[size_t(index)];
  if (!converter) converter = std::make_unique<PCMConverter>();
  int frames = 0;
  if (const float* samples = converter->convert(pcm, frames)) mix_->write(index, samples, frames);
}

AudioEngine::SourceMeta& AudioEngine::meta(int id) {
  auto [it, made] = meta_.try_emplace(id);
  if (made) {
    it->second.name =
        id < 101 ? "Source " + std::to_string(id) : "External Audio " + std::to_string(id - 100);
    it->second.kind = id < 101 ? "source" : "external";
  }
  return it->second;
}

void AudioEngine::setMuted(bool muted, int sourceID) {
  std::lock_guard lock(controlLock_);
  mix_->setMuted(AudioMix::indexOf(sourceID), muted);
  meta(sourceID).muted = muted;
}
void AudioEngine::setSolo(bool on, int id) {
  std::lock_guard lock(controlLock_);
  mix_->setSolo(AudioMix::indexOf(id), on);
  meta(id).solo = on;
}
void AudioEngine::setPan(float pan, int id) {
  std::lock_guard lock(controlLock_);
  mix_->setPan(AudioMix::indexOf(id), pan);
  meta(id).pan = std::clamp(pan, -1.0f, 1.0f);
}
void AudioEngine::setGainLinear(float gain, int id) {
  std::lock_guard lock(controlLock_);
  mix_->setGain(AudioMix::indexOf(id), gain);
  meta(id).gain = std::clamp(gain, 0.0f, AudioMix::kGainCeiling);
}
void AudioEngine::setSourceActive(bool on, int id) {
  std::lock_guard lock(controlLock_);
  mix_->setActive(AudioMix::indexOf(id), on);
  meta(id).active = on;
}

// ---- External inputs ------------------------------------------------------------------------

void AudioEngine::setAccompany(bool on, int externalID, int slot) {
  if (slot < 1 || slot > 16) return;
  std::lock_guard lock(controlLock_);
  SourceMeta& m = meta(externalID);
  const auto bit = std::uint16_t(1u << (slot - 1));
  m.accompany = on ? std::uint16_t(m.accompany | bit) : std::uint16_t(m.accompany & ~bit);
  mix_->setAccompany(AudioMix::indexOf(externalID), m.accompany);
  persistRouting();
}

void AudioEngine::clearAccompany(int externalID) {
  std::lock_guard lock(controlLock_);
  meta(externalID).accompany = 0;
  mix_->setAccompany(AudioMix::indexOf(externalID), 0);
  persistRouting();
}

bool AudioEngine::accompanies(int externalID, int slot) const {
  if (slot < 1 || slot > 16) return false;
  std::lock_guard lock(controlLock_);
  auto it = meta_.find(externalID);
  return it != meta_.end() && (it->second.accompany >> (slot - 1) & 1);
}

void AudioEngine::attachSettings(Defaults& settings) {
  std::lock_guard lock(controlLock_);
  settings_ = &settings;
  const auto stored = settings.dict("qvn.externalAccompany");
  for (int id = 101; id <= 105; ++id) {
    std::uint16_t mask = 0;
    if (stored)
      if (auto it = stored->find(std::to_string(id)); it != stored->end())
        if (auto v = it->second.asInt()) mask = std::uint16_t(*v & 0xFFFF);
    meta(id).accompany = mask;
    mix_->setAccompany(AudioMix::indexOf(id), mask);
  }
}

void AudioEngine::persistRouting() {
  if (!settings_) return;
  SettingsDict masks;
  for (int id = 101; id <= 105; ++id) masks[std::to_string(id)] = int(meta(id).accompany);
  settings_->set("qvn.externalAccompany", masks);
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

void AudioEngine::configurationChanged() {
  bool running;
  {
    std::lock_guard lock(controlLock_);
    if (!started_) return;
    running = output_ && output_->isRunning();
  }
  if (running) return QvnLog::line("audio engine configuration change — still running");
  QvnLog::line("audio engine configuration change — restarting");
  restart();
}

void AudioEngine::drainNow() {
  // The device went away under a running mix: start again, on another device or the clock.
  bool lost;
  {
    std::lock_guard lock(controlLock_);
    lost = started_ && output_ && !output_->isRunning();
  }
  if (lost) {
    QvnLog::line("audio engine configuration change — restarting");
    restart();
  }
  std::vector<Consumer> stream, record;
  {
    std::lock_guard lock(consumerLock_);
    for (auto& [name, c] : streamConsumers_) stream.push_back(c);
    for (auto& [name, c] : recordConsumers_) record.push_back(c);
  }
  mix_->drain(stream, record);
}

// ---- Meters ----------------------------------------------------------------------------------

float meterLevel(float x) {
  if (x <= 0.000001f) return 0;
  const float d = 20 * std::log10(x);
  return d <= -60 ? 0.0f : d >= 0 ? 1.0f : (d + 60) / 60;
}

float decibels(float x) {
  return x <= 0.000001f ? -120.0f : 20 * std::log10(x);
}

QvnAudioSnapshot AudioEngine::publishNow() {
  QvnAudioSnapshot snap;
  const double now = monotonicTime();
  std::lock_guard lock(controlLock_);
  static constexpr std::array<int, AudioMix::kSources> kIds{
      1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 101, 102, 103, 104, 105};
  for (int id : kIds) {
    const int index = AudioMix::indexOf(id);
    const auto f = mix_->takeFigures(index);
    if (id != 101 && !f.active) continue;  // the first external is always shown
    const SourceMeta& m = meta(id);
    auto& hold = peakHold_[id];
    auto& rmsHold = rmsHold_[id];
    const std::array<float, 2> peak{f.peakL, f.peakR}, rms{f.rmsL, f.rmsR};
    for (size_t c = 0; c < 2; ++c) {
      hold[c] = std::max(hold[c] * 0.96f, meterLevel(peak[c]));
      const float v = meterLevel(rms[c]);
      rmsHold[c] = v > rmsHold[c] ? v : v * 0.08f + rmsHold[c] * 0.92f;
    }
    QvnAudioSourceState s;
    s.id = id, s.name = m.name, s.kind = m.kind, s.muted = m.muted, s.solo = m.solo;
    s.gainDb = decibels(m.gain), s.pan = m.pan;
    s.meter = hold, s.peakHold = hold, s.rms = rmsHold;
    s.peakDb = decibels(std::max(f.peakL, f.peakR));
    s.clipping = f.clipped;
    s.bufferMs = f.fill / 48000.0 * 1000;
    s.underruns = std::uint64_t(f.underruns), s.overruns = std::uint64_t(f.overruns);
    s.routeStream = m.routeStream, s.routeMonitor = m.routeMonitor, s.routeRecord = m.routeRecord;
    s.accompany = m.accompany;
    const double last = lastIngest_[size_t(index)].load(std::memory_order_relaxed);
    s.connected = last > 0 && now - last < 2.0;
    snap.overruns += s.overruns;
    snap.sources.push_back(std::move(s));
  }
  const auto buses = mix_->takeBusFigures();
  QvnBusMeter* meters[] = {&snap.monitorMeter, &snap.streamMeter, &snap.recordMeter};
  for (size_t b = 0; b < 3; ++b) {
    auto& hold = peakHold_[-1 - int(b)];
    for (size_t c = 0; c < 2; ++c) {
      meters[b]->peak[c] = meterLevel(buses[b].peak[c]);
      meters[b]->rms[c] = meterLevel(buses[b].rms[c]);
      hold[c] = std::max(hold[c] - 0.012f, meters[b]->peak[c]);
    }
    meters[b]->hold = hold;
    meters[b]->peakDb = decibels(std::max(buses[b].peak[0], buses[b].peak[1]));
  }
  snap.running = output_ && output_->isRunning();
  snap.monitorOn = mix_->monitorOn();
  snap.monitorUID = monitorUID_;
  snap.monitorGainDb = decibels(mix_->monitorGain());
  snap.mixMeter = snap.streamMeter.peak;
  snap.underruns = std::uint64_t(mix_->busUnderruns());
  snap.loadPercent = mix_->renderLoad() * 100;
  snap.sampleTime = mix_->streamFrames();
  return snap;
}

void AudioEngine::startPublishing(Queue& main, std::shared_ptr<QvnMeterBus> meters,
                                  std::function<void(const QvnAudioSnapshot&)> onSnapshot) {
  auto tick = [weak = weak_from_this(), meters, onSnapshot] {
    auto self = weak.lock();
    if (!self) return;
    const QvnAudioSnapshot snap = self->publishNow();
    if (meters) {
      for (const auto& source : snap.sources)
        meters->push(source.id, {source.meter.begin(), source.meter.end()});
      meters->pushMaster({snap.streamMeter.peak.begin(), snap.streamMeter.peak.end()});
    }
    if (onSnapshot) onSnapshot(snap);
  };
  // The first tick 0.1 s from now, then on the 1/15 s grid from there; the timer's own
  // first tick is one interval after it is made.
  publishStart_ = DelayedWork::schedule(
      main, kFirstPublishSeconds - kPublishSeconds, [weak = weak_from_this(), &main, tick] {
        if (auto self = weak.lock())
          self->publishTimer_ = RepeatingTimer(main, kPublishSeconds, tick);
      });
}

}  // namespace qvn
