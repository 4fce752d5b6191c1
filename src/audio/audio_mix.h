// The real-time heart of the audio engine: 21 stereo sources, each in its own lock-free
// ring, mixed block by block into the monitor, stream and record buses, with drift
// correction per source, ramped gains and pan, solo and on-air rules and a soft limiter.
// The buses leave through lock-free rings that the bus queue drains in 1024-frame blocks.
//
// Threads: `render` and `renderProgram` are each called by one real-time thread and are
// wait-free: no lock, no allocation, no log. `write` has one producer per source. The
// setters may be called from any thread; a change applies at the next block. `drain` runs
// on the bus queue. Everything is allocated once, at construction.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace qvn {

class AudioMix {
 public:
  static constexpr int kRate = 48000;
  static constexpr int kSources = 21;
  static constexpr int kRingFrames = 16384;
  static constexpr int kInitialTargetFill = 1440;
  static constexpr int kTargetFillCeiling = 8192;
  static constexpr int kMaxBlock = 8192;
  static constexpr int kBusFrames = 32768;
  static constexpr int kConsumerBlock = 1024;
  static constexpr float kGainCeiling = 3.981072f;
  static constexpr float kRamp = 0.00208f;
  static constexpr float kKnee = 0.7f;
  static constexpr float kClip = 0.999f;

  // 1 to 16 are the slots, 101 to 105 the external inputs; anything else shares index 16.
  static int indexOf(int id);

  AudioMix();
  ~AudioMix();
  AudioMix(const AudioMix&) = delete;
  AudioMix& operator=(const AudioMix&) = delete;

  // ---- Producers: interleaved 48 kHz stereo float frames; only the last 16384 are kept.
  void write(int index, const float* frames, int count);

  // ---- Control, any thread.
  void setActive(int index, bool on);
  void setMuted(int index, bool on);
  void setSolo(int index, bool on);
  void setGain(int index, float linear);
  void setPan(int index, float pan);
  void setRoutes(int index, bool monitor, bool stream, bool record);
  void setAccompany(int index, std::uint16_t mask);
  void setProgramSlot(int slot);
  void setMonitorOn(bool on);
  void setMonitorGain(float linear);
  bool monitorOn() const { return monitorOn_.load(std::memory_order_relaxed) != 0; }
  float monitorGain() const { return monitorGain_.load(std::memory_order_relaxed); }

  // ---- The render thread: mixes `frames` (at most 8192) and writes the limited monitor
  // bus to `left` and `right` (either may be null).
  void render(int frames, float* left, float* right);
  // ---- The Program device's thread: the limited stream bus, kept between 40 and 70 ms
  // behind by a gentle speed correction.
  void renderProgram(int frames, float* left, float* right);
  // Program output starts from the newest audio.
  void resetProgram();

  // ---- The bus queue: hands every whole 1024-frame block of each bus to its consumers,
  // deinterleaved (left then right), with the bus frame number of its first sample. A
  // bus without consumers is skipped ahead, so nothing queues up.
  using Consumer = std::function<void(const std::vector<float>& block, std::int64_t position)>;
  void drain(const std::vector<Consumer>& stream, const std::vector<Consumer>& record);

  // ---- Figures for the meters and diagnostics; a read may miss an update under way.
  struct SourceFigures {
    bool active = false;
    float peakL = 0, peakR = 0, rmsL = 0, rmsR = 0;
    bool clipped = false;
    int fill = 0;
    int targetFill = 0;
    std::int64_t underruns = 0, overruns = 0;
    double ratio = 1;
  };
  // Reads and clears a source's meter accumulators.
  SourceFigures takeFigures(int index);
  // The three buses after the limiter: monitor, stream, record.
  struct BusFigures {
    std::array<float, 2> peak{}, rms{};
  };
  // Reads and clears the buses' meter accumulators.
  std::array<BusFigures, 3> takeBusFigures();
  std::int64_t streamFrames() const { return streamFrames_.load(std::memory_order_relaxed); }
  std::int64_t busUnderruns() const { return busUnderruns_.load(std::memory_order_relaxed); }
  // The last block's render time over the time it lasts; 1 means no time to spare.
  double renderLoad() const { return renderLoad_.load(std::memory_order_relaxed); }

 private:
  struct Source;
  struct Bus;
  void mixSource(Source& s, int index, int n, bool soloing);
  void finishBuses(int n, float* left, float* right);

  std::unique_ptr<Source[]> sources_;
  std::vector<float> monitorSum_, streamSum_, recordSum_;
  std::unique_ptr<Bus> stream_, record_, program_;
  std::atomic<int> programSlot_{0};
  std::atomic<int> monitorOn_{1};
  std::atomic<float> monitorGain_{1.0f};
  float curMonitorGain_ = 0;  // the render thread's own
  // Bus meters: peaks and sums of squares per channel, monitor then stream then record.
  std::array<std::atomic<float>, 6> busPeak_{}, busSum_{};
  std::atomic<int> busCount_{0};
  double programPhase_ = 0, programRatio_ = 1;
  std::atomic<std::int64_t> streamFrames_{0};
  std::atomic<std::int64_t> busUnderruns_{0};
  std::atomic<double> renderLoad_{0};
};

}  // namespace qvn
