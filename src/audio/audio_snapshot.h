// What the audio side shows, published whole 15 times a second: every listed source's
// meters and settings, the three buses' meters and the engine's health.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace qvn {

// Levels are 0 to 1 on a -60..0 dB scale.
struct QvnBusMeter {
  std::array<float, 2> peak{}, rms{}, hold{};
  float peakDb = -120;
  bool operator==(const QvnBusMeter&) const = default;
};

struct QvnAudioSourceState {
  int id = 0;
  std::string name;
  std::string kind;  // "source" or "external"
  bool muted = false;
  bool solo = false;
  float gainDb = 0;
  float pan = 0;
  std::array<float, 2> meter{}, rms{}, peakHold{};
  float peakDb = -120;
  bool clipping = false;
  double bufferMs = 0;
  std::uint64_t underruns = 0, overruns = 0;
  bool routeStream = true, routeMonitor = true, routeRecord = true;
  std::uint16_t accompany = 0;
  bool connected = false;
  bool operator==(const QvnAudioSourceState&) const = default;
};

struct QvnAudioSnapshot {
  bool running = false;
  bool monitorOn = true;
  std::optional<std::string> monitorUID;
  float monitorGainDb = 0;
  std::vector<QvnAudioSourceState> sources;
  QvnBusMeter monitorMeter, streamMeter, recordMeter;
  std::array<float, 2> mixMeter{};
  double latencyMs = 30.0;
  std::uint64_t underruns = 0, overruns = 0;
  double loadPercent = 0;
  std::int64_t sampleTime = 0;
  bool operator==(const QvnAudioSnapshot&) const = default;
};

// A level as the meters show it: 0 at or below -60 dB, 1 at 0 dB and above.
float meterLevel(float linear);
// A level in dB, with -120 for silence.
float decibels(float linear);

}  // namespace qvn
