#include "audio/audio_mix.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace qvn {

namespace {

constexpr float kCentre = 0.70710677f;

// A relaxed atomic: parameter words and meter figures cross threads with no ordering
// between them; a lost meter update costs one reading.
template <class T>
T get(const std::atomic<T>& a) {
  return a.load(std::memory_order_relaxed);
}
template <class T>
void put(std::atomic<T>& a, T v) {
  a.store(v, std::memory_order_relaxed);
}
void addTo(std::atomic<float>& a, float v) {
  put(a, get(a) + v);
}

// x unchanged up to the knee, then bent so that the magnitude never reaches 1.
float limit(float x) {
  const float m = std::abs(x);
  if (m <= AudioMix::kKnee) return x;
  const float u = (m - AudioMix::kKnee) / (1 - AudioMix::kKnee);
  const float bent = AudioMix::kKnee + (1 - AudioMix::kKnee) * u / (1 + u);
  return x < 0 ? -bent : bent;
}

}  // namespace

struct AudioMix::Source {
  // Control side, read by the render thread.
  std::atomic<int> active{0}, muted{0}, solo{0};
  std::atomic<int> routeMon{1}, routeStr{1}, routeRec{1};
  std::atomic<std::uint16_t> accompany{0};
  std::atomic<float> gain{1.0f}, pan{0.0f};
  std::atomic<int> restart{0};  // set while stopped: start over at the next visit

  // The ring: one producer moves wIdx, the render thread rIdx.
  std::vector<float> ring = std::vector<float>(2 * size_t(kRingFrames), 0.0f);
  std::atomic<std::int64_t> wIdx{0}, rIdx{0};

  // The render thread's own.
  bool priming = true;
  float curGain = 0, curPanL = kCentre, curPanR = kCentre;
  double phase = 0, ratio = 1;

  // Figures, written by the render thread.
  std::atomic<int> targetFill{kInitialTargetFill}, fill{0}, sumN{0}, clip{0};
  std::atomic<float> peakL{0}, peakR{0}, sumL{0}, sumR{0};
  std::atomic<std::int64_t> under{0}, over{0};
  std::atomic<double> shownRatio{1.0};
};

// One output ring and its cursors: the render thread writes, one reader reads.
struct AudioMix::Bus {
  std::vector<float> ring = std::vector<float>(2 * size_t(kBusFrames), 0.0f);
  std::atomic<std::int64_t> write{0}, read{0};
};

int AudioMix::indexOf(int id) {
  if (id >= 1 && id <= 16) return id - 1;
  if (id >= 101 && id <= 105) return id - 85;
  return 16;
}

AudioMix::AudioMix()
    : sources_(new Source[kSources]),
      monitorSum_(2 * size_t(kMaxBlock)),
      streamSum_(2 * size_t(kMaxBlock)),
      recordSum_(2 * size_t(kMaxBlock)),
      stream_(std::make_unique<Bus>()),
      record_(std::make_unique<Bus>()),
      program_(std::make_unique<Bus>()) {}

AudioMix::~AudioMix() = default;

// ---- Producers ------------------------------------------------------------------------------

void AudioMix::write(int index, const float* frames, int count) {
  if (index < 0 || index >= kSources || count <= 0) return;
  Source& s = sources_[size_t(index)];
  if (count > kRingFrames) {  // only the newest fit
    frames += 2 * size_t(count - kRingFrames);
    count = kRingFrames;
  }
  const std::int64_t w = s.wIdx.load(std::memory_order_relaxed);
  // Seeing the reader's cursor orders its past reads before these writes; the writer never
  // waits on it all the same.
  const std::int64_t r = s.rIdx.load(std::memory_order_acquire);
  for (int i = 0; i < count; ++i) {
    const size_t at = 2 * size_t((w + i) % kRingFrames);
    s.ring[at] = frames[2 * i];
    s.ring[at + 1] = frames[2 * i + 1];
  }
  s.wIdx.store(w + count, std::memory_order_release);
  if (w + count - r > kRingFrames) s.over.fetch_add(1, std::memory_order_relaxed);
  put(s.active, 1);
}

// ---- Control --------------------------------------------------------------------------------

void AudioMix::setActive(int index, bool on) {
  if (index < 0 || index >= kSources) return;
  Source& s = sources_[size_t(index)];
  if (!on) {
    put(s.active, 0);
    s.wIdx.store(s.rIdx.load(std::memory_order_acquire), std::memory_order_release);
    put(s.restart, 1);
    put(s.peakL, 0.f), put(s.peakR, 0.f), put(s.sumL, 0.f), put(s.sumR, 0.f), put(s.sumN, 0);
    return;
  }
  put(s.active, 1);
}

void AudioMix::setMuted(int index, bool on) {
  if (index >= 0 && index < kSources) put(sources_[size_t(index)].muted, on ? 1 : 0);
}
void AudioMix::setSolo(int index, bool on) {
  if (index >= 0 && index < kSources) put(sources_[size_t(index)].solo, on ? 1 : 0);
}
void AudioMix::setGain(int index, float linear) {
  if (index >= 0 && index < kSources)
    put(sources_[size_t(index)].gain, std::clamp(linear, 0.0f, kGainCeiling));
}
void AudioMix::setPan(int index, float pan) {
  if (index >= 0 && index < kSources) put(sources_[size_t(index)].pan, std::clamp(pan, -1.f, 1.f));
}
void AudioMix::setRoutes(int index, bool monitor, bool stream, bool record) {
  if (index < 0 || index >= kSources) return;
  Source& s = sources_[size_t(index)];
  put(s.routeMon, monitor ? 1 : 0), put(s.routeStr, stream ? 1 : 0),
      put(s.routeRec, record ? 1 : 0);
}
void AudioMix::setAccompany(int index, std::uint16_t mask) {
  if (index >= 0 && index < kSources) put(sources_[size_t(index)].accompany, mask);
}
void AudioMix::setProgramSlot(int slot) {
  put(programSlot_, slot);
}
void AudioMix::setMonitorOn(bool on) {
  put(monitorOn_, on ? 1 : 0);
}
void AudioMix::setMonitorGain(float linear) {
  put(monitorGain_, std::max(linear, 0.0f));
}

// ---- Rendering ------------------------------------------------------------------------------

void AudioMix::render(int frames, float* left, float* right) {
  const auto started = std::chrono::steady_clock::now();
  const int n = std::clamp(frames, 0, kMaxBlock);
  std::fill_n(monitorSum_.begin(), 2 * n, 0.0f);
  std::fill_n(streamSum_.begin(), 2 * n, 0.0f);
  std::fill_n(recordSum_.begin(), 2 * n, 0.0f);
  bool soloing = false;
  for (int i = 0; i < kSources; ++i) {
    const Source& s = sources_[size_t(i)];
    soloing = soloing || (get(s.active) && get(s.solo) && !get(s.muted));
  }
  for (int i = 0; i < kSources; ++i)
    if (get(sources_[size_t(i)].active)) mixSource(sources_[size_t(i)], i, n, soloing);
  finishBuses(n, left, right);
  streamFrames_.fetch_add(n, std::memory_order_relaxed);
  if (n > 0) {
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - started;
    put(renderLoad_, spent.count() / (double(n) / kRate));
  }
}

void AudioMix::mixSource(Source& s, int index, int n, bool soloing) {
  if (s.restart.exchange(0, std::memory_order_relaxed)) {
    s.priming = true;
    s.phase = 0;
    s.ratio = 1;
  }
  // Who hears it: the slot on air, or an external that rides with it; or anyone soloed.
  const int onAirSlot = get(programSlot_);
  const bool onAir =
      index < 16 ? onAirSlot == index + 1
                 : onAirSlot >= 1 && onAirSlot <= 16 && (get(s.accompany) >> (onAirSlot - 1) & 1);
  const bool muted = get(s.muted) != 0;
  const bool soloed = soloing && get(s.solo) && !muted;

  const std::int64_t w = s.wIdx.load(std::memory_order_acquire);
  const std::int64_t r = s.rIdx.load(std::memory_order_relaxed);
  const std::int64_t avail = w - r;
  put(s.fill, int(std::min<std::int64_t>(avail, INT32_MAX)));
  if (avail >= kRingFrames) {  // overrun: start again from the newest
    s.rIdx.store(w, std::memory_order_release);
    s.priming = true;
    s.phase = 0;
    s.ratio = 1;
    return;
  }
  int target = get(s.targetFill);
  if (s.priming) {
    if (avail < target) return;
    s.priming = false;
    s.phase = 0;
    s.ratio = 1;
  }
  // Drift: read a little faster when the ring runs full, slower when it runs low.
  const double err = double(avail - target) / target;
  const double adj = std::clamp(err * 0.002, -0.003, 0.003);
  s.ratio += (1 + adj - s.ratio) * 0.02;
  put(s.shownRatio, s.ratio);
  const std::int64_t need = std::int64_t(std::ceil(s.phase + s.ratio * n)) + 2;
  if (avail < need) {  // underrun: silent, and a larger cushion from now on
    s.under.fetch_add(1, std::memory_order_relaxed);
    target = std::min(target + target / 2, kTargetFillCeiling);
    put(s.targetFill, target);
    s.priming = true;
    s.rIdx.store(w, std::memory_order_release);
    s.phase = 0;
    return;
  }

  float g = muted ? 0.0f : s.curGain;
  const float gTarget = muted ? 0.0f : get(s.gain);
  const double theta = (double(get(s.pan)) + 1) * 3.1415925 * 0.25;
  const float lTarget = float(std::cos(theta)), rTarget = float(std::sin(theta));
  float pl = s.curPanL, pr = s.curPanR;
  float busMon = 0, busStr = 0, busRec = 0;
  if (onAir || soloed) {
    busMon = get(s.routeMon) && (!soloing || get(s.solo)) ? 1.0f : 0.0f;
    busStr = onAir && get(s.routeStr) ? 1.0f : 0.0f;
    busRec = onAir && get(s.routeRec) ? 1.0f : 0.0f;
  }

  const float* ring = s.ring.data();
  float peakL = get(s.peakL), peakR = get(s.peakR), sumL = 0, sumR = 0;
  double phase = s.phase;
  for (int f = 0; f < n; ++f) {
    const auto i = std::int64_t(phase);
    g += (gTarget - g) * kRamp;
    pl += (lTarget - pl) * kRamp;
    pr += (rTarget - pr) * kRamp;
    const size_t a = 2 * size_t((r + i) % kRingFrames), b = 2 * size_t((r + i + 1) % kRingFrames);
    const float t = float(phase - double(i));
    const float outL = (ring[a] + (ring[b] - ring[a]) * t) * g * pl;
    const float outR = (ring[a + 1] + (ring[b + 1] - ring[a + 1]) * t) * g * pr;
    sumL += outL * outL;
    sumR += outR * outR;
    peakL = std::max(peakL, std::abs(outL));
    peakR = std::max(peakR, std::abs(outR));
    monitorSum_[2 * size_t(f)] += outL * busMon;
    monitorSum_[2 * size_t(f) + 1] += outR * busMon;
    streamSum_[2 * size_t(f)] += outL * busStr;
    streamSum_[2 * size_t(f) + 1] += outR * busStr;
    recordSum_[2 * size_t(f)] += outL * busRec;
    recordSum_[2 * size_t(f) + 1] += outR * busRec;
    phase += s.ratio;
  }
  const auto whole = std::int64_t(phase);
  s.rIdx.store(r + whole, std::memory_order_release);
  s.phase = phase - double(whole);
  s.curGain = g, s.curPanL = pl, s.curPanR = pr;
  put(s.peakL, peakL), put(s.peakR, peakR);
  addTo(s.sumL, sumL), addTo(s.sumR, sumR);
  s.sumN.fetch_add(n, std::memory_order_relaxed);
  if (peakL >= kClip || peakR >= kClip) put(s.clip, 1);
}

void AudioMix::finishBuses(int n, float* left, float* right) {
  const float target = get(monitorOn_) ? get(monitorGain_) : 0.0f;
  float g = curMonitorGain_;
  const std::int64_t sw = stream_->write.load(std::memory_order_relaxed);
  const std::int64_t rw = record_->write.load(std::memory_order_relaxed);
  const std::int64_t pw = program_->write.load(std::memory_order_relaxed);
  // As for the source rings: the readers' cursors order their reads before these writes.
  (void)stream_->read.load(std::memory_order_acquire);
  (void)record_->read.load(std::memory_order_acquire);
  (void)program_->read.load(std::memory_order_acquire);
  std::array<float, 6> peak{}, sum{};
  auto meter = [&](int k, float v) {
    peak[size_t(k)] = std::max(peak[size_t(k)], std::abs(v));
    sum[size_t(k)] += v * v;
  };
  for (int f = 0; f < n; ++f) {
    g += (target - g) * kRamp;
    const size_t i = 2 * size_t(f);
    const float ml = limit(monitorSum_[i] * g), mr = limit(monitorSum_[i + 1] * g);
    if (left) left[f] = ml;
    if (right) right[f] = mr;
    const float sl = limit(streamSum_[i]), sr = limit(streamSum_[i + 1]);
    const float rl = limit(recordSum_[i]), rr = limit(recordSum_[i + 1]);
    const size_t s = 2 * size_t((sw + f) % kBusFrames), p = 2 * size_t((pw + f) % kBusFrames);
    const size_t r = 2 * size_t((rw + f) % kBusFrames);
    stream_->ring[s] = sl, stream_->ring[s + 1] = sr;
    program_->ring[p] = sl, program_->ring[p + 1] = sr;
    record_->ring[r] = rl, record_->ring[r + 1] = rr;
    meter(0, ml), meter(1, mr), meter(2, sl), meter(3, sr), meter(4, rl), meter(5, rr);
  }
  curMonitorGain_ = g;
  for (size_t k = 0; k < 6; ++k) {
    if (peak[k] > get(busPeak_[k])) put(busPeak_[k], peak[k]);
    addTo(busSum_[k], sum[k]);
  }
  busCount_.fetch_add(n, std::memory_order_relaxed);
  stream_->write.store(sw + n, std::memory_order_release);
  record_->write.store(rw + n, std::memory_order_release);
  program_->write.store(pw + n, std::memory_order_release);
}

void AudioMix::resetProgram() {
  program_->read.store(program_->write.load(std::memory_order_acquire), std::memory_order_release);
  programPhase_ = 0;
  programRatio_ = 1;
}

void AudioMix::renderProgram(int frames, float* left, float* right) {
  if (frames < 1) return;
  const std::int64_t w = program_->write.load(std::memory_order_acquire);
  std::int64_t r = program_->read.load(std::memory_order_relaxed);
  if (w - r > kBusFrames / 2) {  // stalled far behind: pick up the newest audio
    r = w - 2400;
    programPhase_ = 0;
  }
  const std::int64_t fill = w - r;
  // Between 40 and 70 ms behind; a slightly faster or slower read brings it back.
  if (fill < 1920) programRatio_ = std::max(programRatio_ - 0.00005, 0.997);
  if (fill > 3360) programRatio_ = std::min(programRatio_ + 0.00005, 1.003);
  const float* ring = program_->ring.data();
  for (int f = 0; f < frames; ++f) {
    if (w - r < 2) {
      if (left) left[f] = 0;
      if (right) right[f] = 0;
      continue;
    }
    const auto i = std::int64_t(programPhase_);
    const size_t a = 2 * size_t((r + i) % kBusFrames), b = 2 * size_t((r + i + 1) % kBusFrames);
    const float t = float(programPhase_ - double(i));
    if (left) left[f] = ring[a] + (ring[b] - ring[a]) * t;
    if (right) right[f] = ring[a + 1] + (ring[b + 1] - ring[a + 1]) * t;
    programPhase_ += programRatio_;
    if (const auto whole = std::int64_t(programPhase_); whole >= 1) {
      r += whole;
      programPhase_ -= double(whole);
    }
  }
  program_->read.store(r, std::memory_order_release);
}

// ---- The bus queue ----------------------------------------------------------------------------

void AudioMix::drain(const std::vector<Consumer>& stream, const std::vector<Consumer>& record) {
  auto deliver = [](Bus& bus, const std::vector<Consumer>& consumers, bool countLag,
                    std::atomic<std::int64_t>& lagCount) {
    const std::int64_t w = bus.write.load(std::memory_order_acquire);
    std::int64_t r = bus.read.load(std::memory_order_relaxed);
    if (w - r > kBusFrames) {  // fell behind a whole ring: skip to what is still there
      r = w - kBusFrames;
      if (countLag) lagCount.fetch_add(1, std::memory_order_relaxed);
    }
    if (consumers.empty()) {
      bus.read.store(w, std::memory_order_release);
      return;
    }
    while (w - r >= kConsumerBlock) {
      std::vector<float> block(2 * size_t(kConsumerBlock));
      for (int f = 0; f < kConsumerBlock; ++f) {
        const size_t at = 2 * size_t((r + f) % kBusFrames);
        block[size_t(f)] = bus.ring[at];
        block[size_t(kConsumerBlock + f)] = bus.ring[at + 1];
      }
      const std::int64_t position = r;
      r += kConsumerBlock;
      bus.read.store(r, std::memory_order_release);
      for (const auto& consumer : consumers) consumer(block, position);
    }
    bus.read.store(r, std::memory_order_release);
  };
  deliver(*stream_, stream, true, busUnderruns_);
  deliver(*record_, record, false, busUnderruns_);
}

// ---- Figures ------------------------------------------------------------------------------------

std::array<AudioMix::BusFigures, 3> AudioMix::takeBusFigures() {
  std::array<BusFigures, 3> buses;
  const int n = std::max(busCount_.exchange(0, std::memory_order_relaxed), 1);
  for (size_t b = 0; b < 3; ++b)
    for (size_t c = 0; c < 2; ++c) {
      buses[b].peak[c] = busPeak_[2 * b + c].exchange(0, std::memory_order_relaxed);
      buses[b].rms[c] =
          std::sqrt(busSum_[2 * b + c].exchange(0, std::memory_order_relaxed) / float(n));
    }
  return buses;
}

AudioMix::SourceFigures AudioMix::takeFigures(int index) {
  SourceFigures f;
  if (index < 0 || index >= kSources) return f;
  Source& s = sources_[size_t(index)];
  const int n = std::max(s.sumN.exchange(0, std::memory_order_relaxed), 1);
  f.active = get(s.active) != 0;
  f.peakL = s.peakL.exchange(0, std::memory_order_relaxed);
  f.peakR = s.peakR.exchange(0, std::memory_order_relaxed);
  f.rmsL = std::sqrt(s.sumL.exchange(0, std::memory_order_relaxed) / float(n));
  f.rmsR = std::sqrt(s.sumR.exchange(0, std::memory_order_relaxed) / float(n));
  f.clipped = s.clip.exchange(0, std::memory_order_relaxed) != 0;
  f.fill = get(s.fill);
  f.targetFill = get(s.targetFill);
  f.underruns = get(s.under);
  f.overruns = get(s.over);
  f.ratio = get(s.shownRatio);
  return f;
}

}  // namespace qvn
