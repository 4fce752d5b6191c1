// What the audio render costs: 10 ms blocks with all 21 sources playing, on one thread,
// as a share of the real time the block lasts; beside it the floor of copying the same
// samples once, measured in the same run.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "audio/audio_mix.h"

namespace {

constexpr int kBlock = 480;  // 10 ms
constexpr double kBlockSeconds = kBlock / 48000.0;

std::vector<float> tone(double hz) {
  std::vector<float> frames(2 * kBlock);
  for (int i = 0; i < kBlock; ++i)
    frames[2 * size_t(i)] = frames[2 * size_t(i) + 1] =
        0.1f * float(std::sin(2 * 3.14159265 * hz * i / 48000));
  return frames;
}

void renderAllSources(benchmark::State& state) {
  qvn::AudioMix mix;
  mix.setProgramSlot(1);
  std::vector<std::vector<float>> tones;
  for (int s = 0; s < qvn::AudioMix::kSources; ++s) tones.push_back(tone(200 + 50 * s));
  std::vector<float> left(kBlock), right(kBlock);
  for (int s = 0; s < qvn::AudioMix::kSources; ++s)
    for (int k = 0; k < 4; ++k) mix.write(s, tones[size_t(s)].data(), kBlock);
  for (auto _ : state) {
    // Producers keep each ring at its cushion, as live sources would.
    for (int s = 0; s < qvn::AudioMix::kSources; ++s) mix.write(s, tones[size_t(s)].data(), kBlock);
    mix.render(kBlock, left.data(), right.data());
    benchmark::DoNotOptimize(left.data());
  }
  state.counters["percent_of_real_time"] =
      benchmark::Counter(double(state.iterations()) * kBlockSeconds / 100,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// The floor: copying every source's block once, with nothing mixed.
void copyAllSources(benchmark::State& state) {
  std::vector<float> from(2 * kBlock * qvn::AudioMix::kSources, 0.1f), to(from.size());
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size() * sizeof(float));
    benchmark::DoNotOptimize(to.data());
  }
  state.counters["percent_of_real_time"] =
      benchmark::Counter(double(state.iterations()) * kBlockSeconds / 100,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

BENCHMARK(renderAllSources)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(copyAllSources)
    ->Unit(benchmark::kMicrosecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);

}  // namespace

BENCHMARK_MAIN();
