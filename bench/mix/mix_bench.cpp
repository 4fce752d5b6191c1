// One tick of the mix, on one thread, on a 1920x1080 and a 3840x2160 canvas, measured side
// by side with a memcpy of one canvas (the floor) and with GStreamer's compositor doing the
// same work on the same pictures. Prints a table of medians and ratios and whether the
// targets are met; `--json FILE` also writes it. Google Benchmark's own flags pass through.
//
//   (a)  one 1280x720 source fitted onto the canvas
//   (b)  (a) with an inset of the second source: rounded corners, border and shadow
//   (c)  (b) with three overlay layers: a lower third, a turned logo, a frame with a hole
//   (d)  a fade between two 1280x720 sources at 50%, as the tick draws it mid-fade
//   (e)  (c) with Preview shown: the tick also composes Preview, as the engine does
//
// The compositor only does (a) and (d); the others are the mix's alone.
#include <benchmark/benchmark.h>

#include <gst/gst.h>
#include <malloc.h>
#include <time.h>
#include "common/json_argument.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "compositor_pipeline.h"
#include "heap_count.h"
#include "platform/pixel_buffer.h"
#include "video/bus_composer.h"
#include "video/canvas_painter.h"
#include "video/frame_hub.h"
#include "video/mix_engine.h"
#include "video/mix_geometry.h"
#include "video/mix_types.h"
#include "video/overlay_layer.h"

namespace {

using namespace qvn;
using bench::CompositorLayer;
using bench::CompositorPipeline;

constexpr int kSourceWidth = 1280;
constexpr int kSourceHeight = 720;
constexpr int kSlotA = 1;
constexpr int kSlotB = 2;
constexpr double kFadeAt = 0.5;
// Layers carry no motion, so any time draws them at rest.
constexpr double kNow = 100.0;
constexpr int kWarmupTicks = 5;
constexpr int kRepetitions = 5;
constexpr double kMinSeconds = 0.4;  // per repetition; the whole run stays near a minute
// What the mix has to manage: (e) within a 30 fps tick with room to spare, and (a), (d) at
// least twice as fast as the compositor.
constexpr double kPreviewTargetHdMs = 6;
constexpr double kPreviewTargetUhdMs = 24;
constexpr double kCompositorTargetRatio = 0.5;

enum class Work { floor, fit, inset, overlays, fade, preview };
enum class Engine { memcpy, mix, compositor };

struct Case {
  std::string name;  // the benchmark's name
  Work work;
  Engine engine;
  MixCanvasSize size;
};

std::vector<Case> gCases;
PixelBufferRef gSourceA, gSourceB;

// Smooth ramps, so that both scalers' results can be compared point by point.
PixelBufferRef makeSource(bool second) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, kSourceWidth, kSourceHeight);
  if (!picture) return nullptr;
  for (int y = 0; y < kSourceHeight; ++y)
    for (int x = 0; x < kSourceWidth; ++x) {
      uint8_t* p = picture->bgraAt(x, y);
      const auto across = uint8_t(x * 255 / (kSourceWidth - 1));
      const auto down = uint8_t(y * 255 / (kSourceHeight - 1));
      p[0] = second ? uint8_t(255 - across) : across;
      p[1] = second ? uint8_t(96) : down;
      p[2] = second ? down : uint8_t((x + y) * 255 / (kSourceWidth + kSourceHeight));
      p[3] = 255;
    }
  return picture;
}

bool hasInset(Work work) {
  return work == Work::inset || work == Work::overlays || work == Work::preview;
}
bool hasOverlays(Work work) {
  return work == Work::overlays || work == Work::preview;
}

// ---- Overlay layer pictures -----------------------------------------------------------------

struct Colour {
  double b, g, r, a;
};

// A layer picture of `width`x`height` pixels of a 1920x1080 canvas, made at `scale` times
// that, as layers are handed over at canvas pixel scale. `paint` gives the colour at a point
// in 1920x1080 canvas pixels; the picture is stored premultiplied.
template <class Paint>
PixelBufferRef makeLayerPicture(int width, int height, int scale, Paint paint) {
  auto picture = PixelBuffer::make(PixelFormat::bgra, width * scale, height * scale);
  if (!picture) return nullptr;
  for (int y = 0; y < picture->height(); ++y)
    for (int x = 0; x < picture->width(); ++x) {
      const Colour c = paint((x + 0.5) / scale, (y + 0.5) / scale);
      uint8_t* p = picture->bgraAt(x, y);
      p[0] = uint8_t(std::lround(c.b * c.a * 255));
      p[1] = uint8_t(std::lround(c.g * c.a * 255));
      p[2] = uint8_t(std::lround(c.r * c.a * 255));
      p[3] = uint8_t(std::lround(c.a * 255));
    }
  return picture;
}

constexpr Colour kClear{0, 0, 0, 0};

// A translucent bar with an opaque accent on the left and an opaque rule along the bottom.
PixelBufferRef makeLowerThird(int scale) {
  return makeLayerPicture(1100, 150, scale, [](double x, double y) {
    if (x < 28 || y > 138) return Colour{0.1, 0.55, 0.95, 1};
    return Colour{0.35, 0.12, 0.06, 0.72};
  });
}

// An opaque disc with a translucent ring, transparent in the corners.
PixelBufferRef makeLogo(int scale) {
  return makeLayerPicture(220, 220, scale, [](double x, double y) {
    const double r = std::hypot(x - 110, y - 110);
    if (r < 80) return Colour{0.95, 0.95, 0.98, 1};
    if (r < 108) return Colour{0.2, 0.75, 0.3, 0.55};
    return kClear;
  });
}

// An opaque band round a transparent window, inside a translucent margin.
PixelBufferRef makeFrame(int scale, const NormRect& window) {
  return makeLayerPicture(700, 440, scale, [window](double x, double y) {
    const double u = x / 700, v = y / 440;
    if (u >= window.x && u < window.x + window.width && v >= window.y &&
        v < window.y + window.height)
      return kClear;
    if (x < 10 || x > 690 || y < 10 || y > 430) return Colour{0.05, 0.05, 0.05, 0.45};
    return Colour{0.15, 0.2, 0.85, 1};
  });
}

// (b)'s look: the second source inset with rounded corners, a border and a shadow.
BusLook insetLook() {
  BusLook look;
  look.pipOn = true;
  look.pipSlot = kSlotB;
  look.pipLayout.cornerRadius = 18;
  look.pipLayout.borderWidth = 4;
  look.pipLayout.shadowRadius = 14;
  look.pipLayout.shadowOpacity = 0.35;
  return look;
}

// (c)'s layers, bottom first, for a canvas `scale` times 1920x1080.
std::vector<OverlayLayer> overlayLayers(int scale) {
  const NormRect window{0.05, 0.08, 0.9, 0.84};
  OverlayLayer lowerThird;
  lowerThird.id = "lower-third";
  lowerThird.image = makeLowerThird(scale);
  lowerThird.center = {0.35, 0.85};
  OverlayLayer logo;
  logo.id = "logo";
  logo.image = makeLogo(scale);
  logo.center = {0.92, 0.1};
  logo.rotation = 8;
  logo.opacity = 0.9;
  OverlayLayer frame;
  frame.id = "frame";
  frame.image = makeFrame(scale, window);
  frame.center = {0.3, 0.35};
  frame.holes.push_back({kSlotB, window, 4.0 * scale});
  return {lowerThird, logo, frame};
}

// ---- What one tick is, for each engine ------------------------------------------------------

class Rig {
 public:
  virtual ~Rig() = default;
  virtual bool tick() = 0;
  virtual std::string error() const = 0;
  // The canvas of the last tick, for the picture check.
  virtual bool copyCanvas(PixelBuffer& into) = 0;
};

class MemcpyRig final : public Rig {
 public:
  explicit MemcpyRig(CanvasPixels size)
      : from_(PixelBuffer::make(PixelFormat::bgra, size.width, size.height)),
        to_(PixelBuffer::make(PixelFormat::bgra, size.width, size.height)) {
    if (from_ && to_) std::memset(from_->data(), 0x40, bytes());
  }
  bool tick() override {
    if (!from_ || !to_) return false;
    std::memcpy(to_->data(), from_->data(), bytes());
    benchmark::ClobberMemory();
    return true;
  }
  std::string error() const override { return "no memory for two canvases"; }
  bool copyCanvas(PixelBuffer&) override { return false; }

 private:
  size_t bytes() const { return size_t(from_->stride()) * size_t(from_->height()); }
  PixelBufferRef from_, to_;
};

std::vector<CanvasPainter> makeRing(int width, int height) {
  std::vector<CanvasPainter> ring;
  for (int i = 0; i < MixEngine::kRingSize; ++i)
    if (auto canvas = PixelBuffer::make(PixelFormat::bgra, width, height))
      ring.emplace_back(std::move(canvas));
  return ring;
}

// The mix's own code, as the engine's tick calls it: a ring of canvases, the sources stored
// in the frame hub, for a fade the incoming side composed apart and laid over, and with
// Preview shown a second ring that Preview is composed into and stored from.
class MixRig final : public Rig {
 public:
  MixRig(CanvasPixels size, Work work)
      : frames_(std::make_shared<FrameHub>()),
        composer_(frames_),
        work_(work),
        ring_(makeRing(size.width, size.height)) {
    composer_.setCanvas(size.width, size.height);
    frames_->store(kSlotA, gSourceA);
    frames_->store(kSlotB, gSourceB);
    if (hasInset(work)) look_ = insetLook();
    if (hasOverlays(work)) {
      look_.overlaysOn = true;
      look_.layers = overlayLayers(size.width / canvasPixels(MixCanvasSize::hd).width);
      complete_ = std::all_of(look_.layers.begin(), look_.layers.end(),
                              [](const OverlayLayer& layer) { return bool(layer.image); });
    }
    if (work == Work::fade)
      if (auto canvas = PixelBuffer::make(PixelFormat::bgra, size.width, size.height))
        incoming_ = std::make_unique<CanvasPainter>(std::move(canvas));
    if (work == Work::preview) {
      previewLook_ = look_;
      previewLook_.pipSlot = kSlotA;
      const PixelSize preview = previewSize(size.width, size.height, false);
      previewRing_ = makeRing(preview.width, preview.height);
    }
  }
  bool tick() override {
    if (!ready()) return false;
    index_ = (index_ + 1) % ring_.size();
    CanvasPainter& target = ring_[index_];
    if (work_ == Work::fade)
      composer_.composeBlend(target, *incoming_, {kSlotA, look_}, {kSlotB, look_},
                             MixTransition::fade, kFadeAt, kNow);
    else
      composer_.compose(target, kSlotA, look_, kNow);
    frames_->ingestMix(target.canvas());
    if (work_ == Work::preview) {
      previewIndex_ = (previewIndex_ + 1) % previewRing_.size();
      CanvasPainter& preview = previewRing_[previewIndex_];
      composer_.compose(preview, kSlotB, previewLook_, kNow);
      frames_->store(FrameHub::kPreviewSlot, preview.canvas());
    }
    return true;
  }
  std::string error() const override { return "no memory for the canvases or layers"; }
  bool copyCanvas(PixelBuffer& into) override {
    const PixelBuffer& canvas = *ring_[index_].canvas();
    for (int y = 0; y < into.height(); ++y)
      std::memcpy(into.data() + y * into.stride(), canvas.data() + y * canvas.stride(),
                  size_t(into.width()) * 4);
    return true;
  }

 private:
  bool ready() const {
    const auto full = size_t(MixEngine::kRingSize);
    return complete_ && ring_.size() == full && (work_ != Work::fade || incoming_) &&
           (work_ != Work::preview || previewRing_.size() == full);
  }

  std::shared_ptr<FrameHub> frames_;
  BusComposer composer_;
  Work work_;
  BusLook look_, previewLook_;
  bool complete_ = true;  // every layer picture was made
  std::vector<CanvasPainter> ring_, previewRing_;
  std::unique_ptr<CanvasPainter> incoming_;
  size_t index_ = 0, previewIndex_ = 0;
};

// A source placed where the bus composer fits it, for the compositor's pad.
CompositorLayer fittedLayer(const PixelBufferRef& picture, CanvasPixels size, double alpha) {
  const auto placement =
      fittedPlacement(picture->width(), picture->height(),
                      {0, 0, double(size.width), double(size.height)}, ImageCrop{}, false);
  CompositorLayer layer{picture, 0, 0, size.width, size.height, alpha};
  if (placement) {
    layer.x = int(std::lround(placement->x));
    layer.y = int(std::lround(placement->y));
    layer.width = int(std::lround(picture->width() * placement->scale));
    layer.height = int(std::lround(picture->height() * placement->scale));
  }
  return layer;
}

class CompositorRig final : public Rig {
 public:
  CompositorRig(CanvasPixels size, Work work)
      : pipeline_(size.width, size.height, layers(size, work)) {}
  bool tick() override { return pipeline_.frame(); }
  std::string error() const override { return pipeline_.error(); }
  bool copyCanvas(PixelBuffer& into) override { return pipeline_.frame(&into); }

 private:
  static std::vector<CompositorLayer> layers(CanvasPixels size, Work work) {
    std::vector<CompositorLayer> list{fittedLayer(gSourceA, size, 1.0)};
    if (work == Work::fade) list.push_back(fittedLayer(gSourceB, size, kFadeAt));
    return list;
  }
  CompositorPipeline pipeline_;
};

std::unique_ptr<Rig> makeRig(const Case& c) {
  const CanvasPixels size = canvasPixels(c.size);
  switch (c.engine) {
    case Engine::memcpy:
      return std::make_unique<MemcpyRig>(size);
    case Engine::mix:
      return std::make_unique<MixRig>(size, c.work);
    case Engine::compositor:
      return std::make_unique<CompositorRig>(size, c.work);
  }
  return nullptr;
}

// One rig lives at a time and is kept across the repetitions of its case, so a pipeline is
// built and warmed once.
std::string gRigName;
std::unique_ptr<Rig> gRig;

Rig& rigFor(const Case& c) {
  if (gRigName != c.name) {
    gRig.reset();
    gRig = makeRig(c);
    gRigName = c.name;
  }
  return *gRig;
}

// ---- Measuring ---------------------------------------------------------------------------

double processCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

struct HeapTotals {
  std::uint64_t news = 0;
  std::uint64_t mallocs = 0;
  std::uint64_t ticks = 0;
};
std::map<std::string, HeapTotals> gHeap;  // every timed tick of a case, after warm-up

void runCase(benchmark::State& state, const Case& c) {
  Rig& rig = rigFor(c);
  for (int i = 0; i < kWarmupTicks; ++i)
    if (!rig.tick()) {
      state.SkipWithError(rig.error().c_str());
      return;
    }
  bench::countThisThread(true);
  const bench::HeapCount heapBefore = bench::heapCount();
  const double cpuBefore = processCpuSeconds();
  const auto wallBefore = std::chrono::steady_clock::now();
  for (auto _ : state)
    if (!rig.tick()) {
      state.SkipWithError(rig.error().c_str());
      break;
    }
  const auto wallAfter = std::chrono::steady_clock::now();
  const double cpuAfter = processCpuSeconds();
  const bench::HeapCount heapAfter = bench::heapCount();
  bench::countThisThread(false);

  const double wall = std::chrono::duration<double>(wallAfter - wallBefore).count();
  // Above 1 means more than one core worked on it.
  state.counters["cpu/wall"] = wall > 0 ? (cpuAfter - cpuBefore) / wall : 0;
  HeapTotals& totals = gHeap[c.name];
  totals.news += heapAfter.news - heapBefore.news;
  totals.mallocs += heapAfter.mallocs - heapBefore.mallocs;
  totals.ticks += std::uint64_t(state.iterations());
}

void registerCases() {
  for (MixCanvasSize size : {MixCanvasSize::hd, MixCanvasSize::uhd}) {
    const std::string canvas(enumText(size));
    gCases.push_back({"memcpy/" + canvas, Work::floor, Engine::memcpy, size});
    gCases.push_back({"a.mix/" + canvas, Work::fit, Engine::mix, size});
    gCases.push_back({"a.compositor/" + canvas, Work::fit, Engine::compositor, size});
    gCases.push_back({"b.mix/" + canvas, Work::inset, Engine::mix, size});
    gCases.push_back({"c.mix/" + canvas, Work::overlays, Engine::mix, size});
    gCases.push_back({"d.mix/" + canvas, Work::fade, Engine::mix, size});
    gCases.push_back({"d.compositor/" + canvas, Work::fade, Engine::compositor, size});
    gCases.push_back({"e.mix/" + canvas, Work::preview, Engine::mix, size});
  }
  for (const Case& c : gCases)
    benchmark::RegisterBenchmark(c.name.c_str(), [&c](benchmark::State& s) { runCase(s, c); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->MinTime(kMinSeconds)
        ->Repetitions(kRepetitions)
        ->ReportAggregatesOnly(true);
}

struct Measured {
  std::optional<double> ms;  // median real time per tick
  std::optional<double> cpuPerWall;
  std::string error;
};

// Prints what Google Benchmark prints, and keeps each case's medians for the table.
class TableReporter final : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      Measured& m = measured[run.run_name.function_name];
      if (run.error_occurred) {
        m.error = run.error_message;
      } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        m.ms = run.GetAdjustedRealTime();
        if (auto it = run.counters.find("cpu/wall"); it != run.counters.end())
          m.cpuPerWall = it->second.value;
      }
    }
  }
  std::map<std::string, Measured> measured;
};

// ---- The same pictures? ------------------------------------------------------------------

// The largest difference of a colour channel between the mix's canvas and the compositor's
// at a grid of points away from the edges; none when either could not draw.
std::optional<int> pictureDifference(Work work) {
  const CanvasPixels size = canvasPixels(MixCanvasSize::hd);
  auto ours = PixelBuffer::make(PixelFormat::bgra, size.width, size.height);
  auto theirs = PixelBuffer::make(PixelFormat::bgra, size.width, size.height);
  if (!ours || !theirs) return std::nullopt;
  MixRig mix(size, work);
  CompositorRig compositor(size, work);
  if (!mix.tick() || !mix.copyCanvas(*ours) || !compositor.copyCanvas(*theirs)) return std::nullopt;
  int largest = 0;
  for (int i = 1; i <= 7; ++i)
    for (int j = 1; j <= 7; ++j) {
      const uint8_t* a = ours->bgraAt(size.width * i / 8, size.height * j / 8);
      const uint8_t* b = theirs->bgraAt(size.width * i / 8, size.height * j / 8);
      for (int k = 0; k < 3; ++k) largest = std::max(largest, std::abs(int(a[k]) - int(b[k])));
    }
  return largest;
}

// ---- The table ---------------------------------------------------------------------------

struct Row {
  const Case* c;
  std::string label;
  Measured m;
  std::optional<double> toFloor, toCompositor, newsPerTick, mallocsPerTick;
};

// The case's letter, as the table and the JSON name it.
const char* caseOf(Work work) {
  switch (work) {
    case Work::floor:
      return "floor";
    case Work::fit:
      return "a";
    case Work::inset:
      return "b";
    case Work::overlays:
      return "c";
    case Work::fade:
      return "d";
    case Work::preview:
      return "e";
  }
  return "?";
}

std::string labelOf(const Case& c) {
  switch (c.engine) {
    case Engine::memcpy:
      return "floor: memcpy of one canvas";
    case Engine::compositor:
      return std::string("(") + caseOf(c.work) + ") GStreamer compositor";
    case Engine::mix:
      switch (c.work) {
        case Work::fit:
          return "(a) one 1280x720 source fitted";
        case Work::inset:
          return "(b) (a) + rounded inset, shadow";
        case Work::overlays:
          return "(c) (b) + three overlay layers";
        case Work::fade:
          return "(d) fade of two 1280x720 at 50%";
        case Work::preview:
          return "(e) (c) + Preview composed";
        case Work::floor:
          break;
      }
  }
  return c.name;
}

std::vector<Row> buildRows(const std::map<std::string, Measured>& measured) {
  auto find = [&](Work work, Engine engine, MixCanvasSize size) -> std::optional<double> {
    for (const Case& c : gCases)
      if (c.work == work && c.engine == engine && c.size == size)
        if (auto it = measured.find(c.name); it != measured.end()) return it->second.ms;
    return std::nullopt;
  };
  std::vector<Row> rows;
  for (const Case& c : gCases) {
    Row row{&c, labelOf(c), {}, {}, {}, {}, {}};
    if (auto it = measured.find(c.name); it != measured.end()) row.m = it->second;
    if (!row.m.ms) {
      if (row.m.error.empty()) row.m.error = "not run";
      rows.push_back(row);
      continue;
    }
    const double ms = *row.m.ms;
    if (auto floor = find(Work::floor, Engine::memcpy, c.size); floor && *floor > 0)
      row.toFloor = ms / *floor;
    if (c.work != Work::floor)
      if (auto theirs = find(c.work, Engine::compositor, c.size); theirs && *theirs > 0)
        row.toCompositor = ms / *theirs;
    // GStreamer's threads allocate as they please; the count is the mix's and the floor's.
    if (c.engine != Engine::compositor)
      if (auto it = gHeap.find(c.name); it != gHeap.end() && it->second.ticks > 0) {
        row.newsPerTick = double(it->second.news) / double(it->second.ticks);
        if (bench::countsMalloc())
          row.mallocsPerTick = double(it->second.mallocs) / double(it->second.ticks);
      }
    rows.push_back(row);
  }
  return rows;
}

// ---- The targets -------------------------------------------------------------------------

struct Target {
  Work work;
  MixCanvasSize size;
  bool ratio;  // a ratio to the compositor, else milliseconds per tick
  double limit;
  std::optional<double> value;

  std::optional<bool> met() const {
    if (!value) return std::nullopt;
    return ratio ? *value <= limit : *value < limit;
  }
  std::string text() const {
    char line[96];
    const char* canvas = size == MixCanvasSize::uhd ? "2160p" : "1080p";
    if (!value)
      std::snprintf(line, sizeof line, "(%s) %s not measured", caseOf(work), canvas);
    else if (ratio)
      std::snprintf(line, sizeof line, "(%s) %s x%.2f compositor ≤ %.1f: %s", caseOf(work), canvas,
                    *value, limit, *met() ? "met" : "missed");
    else
      std::snprintf(line, sizeof line, "(%s) %s %.1f ms < %g ms: %s", caseOf(work), canvas, *value,
                    limit, *met() ? "met" : "missed");
    return line;
  }
};

std::vector<Target> buildTargets(const std::vector<Row>& rows) {
  auto mixRow = [&](Work work, MixCanvasSize size) -> const Row* {
    for (const Row& row : rows)
      if (row.c->work == work && row.c->engine == Engine::mix && row.c->size == size) return &row;
    return nullptr;
  };
  std::vector<Target> targets;
  for (auto [size, limit] : {std::pair{MixCanvasSize::hd, kPreviewTargetHdMs},
                             std::pair{MixCanvasSize::uhd, kPreviewTargetUhdMs}}) {
    const Row* row = mixRow(Work::preview, size);
    targets.push_back({Work::preview, size, false, limit, row ? row->m.ms : std::nullopt});
  }
  for (Work work : {Work::fit, Work::fade})
    for (MixCanvasSize size : {MixCanvasSize::hd, MixCanvasSize::uhd}) {
      const Row* row = mixRow(work, size);
      targets.push_back(
          {work, size, true, kCompositorTargetRatio, row ? row->toCompositor : std::nullopt});
    }
  return targets;
}

std::string gstVersion() {
  gchar* text = gst_version_string();
  std::string version(text);
  g_free(text);
  return version;
}

std::string cell(const std::optional<double>& v, const char* format) {
  if (!v) return "-";
  char text[32];
  std::snprintf(text, sizeof text, format, *v);
  return text;
}

void printTable(const std::vector<Row>& rows, const std::vector<Target>& targets,
                std::optional<int> fitDiff, std::optional<int> fadeDiff) {
  std::printf("\nqvn-bench-mix: one tick on one thread, median of %d repetitions, %s\n",
              kRepetitions, gstVersion().c_str());
  std::printf("%-34s %-10s %9s %9s %12s %9s %12s %9s\n", "case", "canvas", "ms/tick", "x memcpy",
              "x compositor", "new/tick", "malloc/tick", "cpu/wall");
  for (const Row& row : rows) {
    const std::string canvas(enumText(row.c->size));
    if (!row.m.ms) {
      std::printf("%-34s %-10s failed: %s\n", row.label.c_str(), canvas.c_str(),
                  row.m.error.c_str());
      continue;
    }
    std::printf("%-34s %-10s %9.3f %9s %12s %9s %12s %9s\n", row.label.c_str(), canvas.c_str(),
                *row.m.ms, cell(row.toFloor, "%.2f").c_str(),
                cell(row.toCompositor, "%.2f").c_str(), cell(row.newsPerTick, "%.2f").c_str(),
                cell(row.mallocsPerTick, "%.2f").c_str(), cell(row.m.cpuPerWall, "%.2f").c_str());
  }
  std::printf("x memcpy: time over the memcpy floor on the same canvas.\n");
  std::printf(
      "x compositor: the mix's time over GStreamer's compositor doing the same work "
      "(below 1: the mix is faster); (b), (c), (e) are the mix's alone.\n");
  std::printf(
      "new/tick, malloc/tick: allocations of the ticking thread per tick, after %d "
      "warm-up ticks, over every timed tick%s.\n",
      kWarmupTicks, bench::countsMalloc() ? "" : " (malloc not counted: sanitizer)");
  std::printf(
      "cpu/wall: CPU time of the whole process over wall time while timed (1: one "
      "core).\n");
  std::printf(
      "same pictures at 1920x1080, largest channel difference at 49 points: (a) %s, "
      "(d) %s\n",
      fitDiff ? std::to_string(*fitDiff).c_str() : "not compared",
      fadeDiff ? std::to_string(*fadeDiff).c_str() : "not compared");
  std::printf("compositor settings:\n");
  for (const std::string& line : CompositorPipeline::settings())
    std::printf("  %s\n", line.c_str());
  std::string line = "targets:";
  for (size_t i = 0; i < targets.size(); ++i) line += (i ? "; " : " ") + targets[i].text();
  std::printf("%s\n", line.c_str());
}

nlohmann::json jsonOf(const std::optional<double>& v) {
  return v ? nlohmann::json(*v) : nlohmann::json(nullptr);
}

bool writeJson(const std::string& path, const std::vector<Row>& rows,
               const std::vector<Target>& targets, std::optional<int> fitDiff,
               std::optional<int> fadeDiff) {
  nlohmann::json out;
  out["benchmark"] = "mix";
  out["threads"] = 1;
  out["statistic"] = "median";
  out["repetitions"] = kRepetitions;
  out["warmup_ticks"] = kWarmupTicks;
  out["gstreamer"] = gstVersion();
  out["compositor_settings"] = CompositorPipeline::settings();
  out["malloc_counted"] = bench::countsMalloc();
  nlohmann::json list = nlohmann::json::array();
  for (const Row& row : rows) {
    const CanvasPixels size = canvasPixels(row.c->size);
    const char* engine = row.c->engine == Engine::memcpy ? "memcpy"
                         : row.c->engine == Engine::mix  ? "mix"
                                                         : "compositor";
    list.push_back({{"case", caseOf(row.c->work)},
                    {"engine", engine},
                    {"label", row.label},
                    {"canvas", std::string(enumText(row.c->size))},
                    {"width", size.width},
                    {"height", size.height},
                    {"ms_per_tick", jsonOf(row.m.ms)},
                    {"ratio_to_memcpy", jsonOf(row.toFloor)},
                    {"ratio_to_compositor", jsonOf(row.toCompositor)},
                    {"new_per_tick", jsonOf(row.newsPerTick)},
                    {"malloc_per_tick", jsonOf(row.mallocsPerTick)},
                    {"cpu_per_wall", jsonOf(row.m.cpuPerWall)},
                    {"error", row.m.ms ? nlohmann::json(nullptr) : nlohmann::json(row.m.error)}});
  }
  out["rows"] = std::move(list);
  out["picture_difference_1920x1080"] = {
      {"a", fitDiff ? nlohmann::json(*fitDiff) : nlohmann::json(nullptr)},
      {"d", fadeDiff ? nlohmann::json(*fadeDiff) : nlohmann::json(nullptr)}};
  nlohmann::json goals = nlohmann::json::array();
  for (const Target& t : targets) {
    const std::optional<bool> met = t.met();
    goals.push_back({{"case", caseOf(t.work)},
                     {"canvas", std::string(enumText(t.size))},
                     {"measure", t.ratio ? "ratio_to_compositor" : "ms_per_tick"},
                     {"limit", t.limit},
                     {"value", jsonOf(t.value)},
                     {"met", met ? nlohmann::json(*met) : nlohmann::json(nullptr)},
                     {"text", t.text()}});
  }
  out["targets"] = std::move(goals);
  std::ofstream file(path);
  file << out.dump(2) << '\n';
  return bool(file);
}

}  // namespace

int main(int argc, char** argv) {
  auto [jsonPath, args, count] = bench::takeJsonArgument(argc, argv, "qvn-bench-mix");

  // GStreamer allocates a canvas-sized buffer per pad and frame. Whether glibc hands it out
  // recycled or fresh from the kernel (a page fault per 4 KiB, several times the blending)
  // depends on thresholds it adapts to what was freed before and on which arena a thread
  // got, so results would hang on the order of the cases. One arena and fixed thresholds
  // keep buffers up to 32 MiB on the heap whatever ran before; the mix allocates none.
  mallopt(M_ARENA_MAX, 1);
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  gst_init(nullptr, nullptr);
  gSourceA = makeSource(false);
  gSourceB = makeSource(true);
  if (!gSourceA || !gSourceB) {
    std::fprintf(stderr, "qvn-bench-mix: no memory for the source pictures\n");
    return 1;
  }
  registerCases();
  benchmark::Initialize(&count, args.data());
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;

  TableReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  gRig.reset();

  const auto fitDiff = pictureDifference(Work::fit);
  const auto fadeDiff = pictureDifference(Work::fade);
  const std::vector<Row> rows = buildRows(reporter.measured);
  const std::vector<Target> targets = buildTargets(rows);
  printTable(rows, targets, fitDiff, fadeDiff);
  int status = 0;
  if (!jsonPath.empty() && !writeJson(jsonPath, rows, targets, fitDiff, fadeDiff)) {
    std::fprintf(stderr, "qvn-bench-mix: can't write %s\n", jsonPath.c_str());
    status = 1;
  }

  benchmark::Shutdown();
  gSourceA.reset();
  gSourceB.reset();
  gst_deinit();
  return status;
}
