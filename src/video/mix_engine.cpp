#include "video/mix_engine.h"

#include <algorithm>
#include <cstdio>

#include "support/qvn_log.h"
#include "video/standby_picture.h"

namespace qvn {

namespace {

std::atomic<int> gCanvasWidth{1920};
std::atomic<int> gCanvasHeight{1080};

std::string sizeText(int width, int height) {
  return std::to_string(width) + "×" + std::to_string(height);
}

std::vector<CanvasPainter> makeCanvases(int width, int height) {
  std::vector<CanvasPainter> ring;
  for (int i = 0; i < MixEngine::kRingSize; ++i)
    if (auto buffer = PixelBuffer::make(PixelFormat::bgra, width, height))
      ring.emplace_back(std::move(buffer));  // a failed place just makes the ring shorter
  return ring;
}

}  // namespace

std::shared_ptr<MixEngine> MixEngine::make(std::shared_ptr<FrameHub> frames) {
  return std::shared_ptr<MixEngine>(new MixEngine(std::move(frames)));
}

MixEngine::MixEngine(std::shared_ptr<FrameHub> frames)
    : frames_(frames),
      queue_(
          std::make_unique<SerialQueue>("io.quorvane.camera.mix", QueuePriority::userInteractive)),
      composer_(std::move(frames)) {}

MixEngine::~MixEngine() {
  timer_.cancel();
  // Jobs hold the engine only while they run, so the last reference may go inside one.
  SerialQueue::release(std::move(queue_));
}

int MixEngine::canvasWidth() {
  return gCanvasWidth.load(std::memory_order_relaxed);
}
int MixEngine::canvasHeight() {
  return gCanvasHeight.load(std::memory_order_relaxed);
}

template <class F>
void MixEngine::post(F job) {
  queue_->async([weak = weak_from_this(), job = std::move(job)]() mutable {
    if (auto self = weak.lock()) job(*self);
  });
}

// ---- Setters ------------------------------------------------------------------------------

void MixEngine::start() {
  post([](MixEngine& m) {
    if (m.running_) return;
    m.running_ = true;
    m.makeRing();
    m.timer_ = RepeatingTimer(*m.queue_, 1.0 / kTicksPerSecond, [weak = m.weak_from_this()] {
      if (auto self = weak.lock()) self->tick();
    });
    QvnLog::line("mix start " + sizeText(canvasWidth(), canvasHeight()));
    m.tick();  // the first picture goes out now, not a tick later
  });
}

void MixEngine::setCanvas(int width, int height) {
  post([width, height](MixEngine& m) {
    const bool changed = width != canvasWidth() || height != canvasHeight();
    gCanvasWidth = width;
    gCanvasHeight = height;
    m.composer_.setCanvas(width, height);
    if (m.running_ && changed) {
      m.makeRing();
      m.previewCanvases_.clear();
    }
    QvnLog::line("mix canvas " + sizeText(width, height));
  });
}

void MixEngine::makeRing() {
  canvases_ = makeCanvases(canvasWidth(), canvasHeight());
  canvasIndex_ = 0;
  blendScratch_.reset();
  if (auto scratch = PixelBuffer::make(PixelFormat::bgra, canvasWidth(), canvasHeight()))
    blendScratch_ = std::make_unique<CanvasPainter>(std::move(scratch));
  standby_ = makeStandbyPicture(canvasWidth(), canvasHeight());
}

void MixEngine::setFill(bool fill) {
  post([fill](MixEngine& m) { m.composer_.setFill(fill); });
}

void MixEngine::setTransitionDuration(double seconds) {
  const double clamped = std::clamp(seconds, 0.1, 5.0);
  post([clamped](MixEngine& m) { m.transitionSeconds_ = clamped; });
}

void MixEngine::setImageCrop(int slot, ImageCrop crop, bool snap) {
  post([slot, crop, snap](MixEngine& m) { m.composer_.crops().setTarget(slot, crop, snap); });
}

void MixEngine::setHoldPreview(bool on) {
  post([on](MixEngine& m) { m.holdPreview_ = on; });
}

void MixEngine::setPreviewVisible(bool on) {
  post([on](MixEngine& m) { m.previewVisible_ = on; });
}

void MixEngine::setPreviewFullSize(bool on) {
  post([on](MixEngine& m) {
    if (m.previewFullSize_ == on) return;
    m.previewFullSize_ = on;
    m.previewCanvases_.clear();
    m.previewBlankSent_ = false;
  });
}

void MixEngine::setPreview(int slot) {
  post([slot](MixEngine& m) {
    m.previewSlot_ = slot;
    m.reportBuses(std::nullopt);
  });
}

template <class F>
void MixEngine::forLooks(Bus bus, F change) {
  if (bus != Bus::preview) change(programLook_);
  if (bus != Bus::program) change(previewLook_);
}

void MixEngine::setPiP(bool on, int slot, const QvnPiPLayout& layout, Bus bus) {
  post([=](MixEngine& m) {
    m.forLooks(bus, [&](BusLook& look) {
      look.pipOn = on;
      look.pipSlot = slot;
      look.pipLayout = layout;
    });
  });
}

void MixEngine::setOverlayLayers(bool on, std::vector<OverlayLayer> layers, Bus bus) {
  post([on, layers = std::move(layers), bus](MixEngine& m) {
    const double now = mediaTime();
    m.forLooks(bus, [&](BusLook& look) { look.mergeLayers(on, layers, now); });
  });
}

void MixEngine::setOverlayPlacements(bool on, std::vector<OverlayPlacement> placements, Bus bus) {
  post([on, placements = std::move(placements), bus](MixEngine& m) {
    m.forLooks(bus, [&](BusLook& look) { look.place(on, placements); });
  });
}

// ---- Switching ------------------------------------------------------------------------------

void MixEngine::switchTo(int slot, MixTransition kind) {
  if (slot < 1) return;
  post([slot, kind](MixEngine& m) { m.switchNow(slot, kind); });
}

void MixEngine::setProgramSlot(int slot) {
  programSlot_ = slot;
  programMirror_ = slot;
}

void MixEngine::switchNow(int slot, MixTransition kind) {
  const int from = programSlot_;
  const BusLook look = programLook_;  // a direct switch keeps Program's look
  setProgramSlot(slot);
  if (!holdPreview_) previewSlot_ = slot;
  beginTransition(from, look, kind, 0);
}

int MixEngine::promotePreview(bool swap, BusLook& oldLook) {
  const int from = programSlot_;
  oldLook = std::move(programLook_);
  setProgramSlot(previewSlot_);
  // Layers leaving Preview stay behind; the others arrive at rest.
  programLook_ = previewLook_.settled();
  if (swap && from >= 1 && from != programSlot_) previewSlot_ = from;
  return from;
}

void MixEngine::takePreview(MixTransition kind, bool swap) {
  post([kind, swap](MixEngine& m) {
    if (m.previewSlot_ < 1) return;
    BusLook look;
    const int from = m.promotePreview(swap, look);
    m.beginTransition(from, look, kind, 0);
  });
}

void MixEngine::setManual(double progress, MixTransition kind) {
  const double p = std::clamp(progress, 0.0, 1.0);
  post([p, kind](MixEngine& m) {
    if (m.dissolving_ || m.previewSlot_ < 1) return;
    m.manualKind_ = kind == MixTransition::instant ? MixTransition::fade : kind;
    m.manualProgress_ = p;
  });
}

void MixEngine::endManual(bool commit, bool swap, std::function<void(bool)> completion) {
  post([commit, swap, completion = std::move(completion)](MixEngine& m) {
    auto report = [&](bool taken) {
      if (completion) completion(taken);
    };
    if (!m.manualProgress_) return report(false);
    const double p = *m.manualProgress_;
    m.manualProgress_.reset();
    if (!commit || m.previewSlot_ < 1) return report(false);  // back to Program next tick
    BusLook look;
    const int from = m.promotePreview(swap, look);
    // The rest of the way runs by itself from where the hand left it.
    m.beginTransition(from, look, m.manualKind_, p);
    report(true);
  });
}

void MixEngine::beginTransition(int from, const BusLook& look, MixTransition kind, double startAt) {
  if (kind == MixTransition::instant || from == 0 || startAt >= 1) {
    dissolving_ = false;
    emitProgram();  // the cut lands now, not at the next tick
    reportBuses(false);
    return;
  }
  dissolveKind_ = kind;
  dissolveFrom_ = from;
  fromLook_ = look;
  dissolveSeconds_ = transitionSeconds_;
  dissolveStart_ = mediaTime() - startAt * transitionSeconds_;
  dissolving_ = true;
  reportBuses(true);
}

void MixEngine::reportBuses(std::optional<bool> dissolve) {
  if (dissolve && onDissolve) onDissolve(*dissolve);
  if (onBusChanged) onBusChanged(programSlot_, previewSlot_);
}

void MixEngine::clearIf(int slot, std::vector<int> live) {
  post([slot, live = std::move(live)](MixEngine& m) {
    if (slot == m.programSlot_) {
      if (!live.empty()) {
        if (live.front() >= 1) {
          QvnLog::line("program ← input " + std::to_string(live.front()) + " (input " +
                       std::to_string(slot) + " went)");
          m.switchNow(live.front(), MixTransition::instant);
        }
        return;
      }
      m.setProgramSlot(0);
      m.previewSlot_ = 0;
      if (m.dissolving_) {
        m.dissolving_ = false;
        m.fromLook_ = {};
      }
      m.reportBuses(std::nullopt);
    } else if (slot == m.previewSlot_) {
      m.previewSlot_ = m.programSlot_;
      m.reportBuses(std::nullopt);
    }
  });
}

void MixEngine::noteIncoming(int slot) {
  if (slot < 1 || programSlotMirror() != 0) return;
  post([slot](MixEngine& m) {
    if (m.programSlot_ != 0) return;
    // Nobody chose this: say so in the log, as a take would.
    QvnLog::line("program ← input " + std::to_string(slot) + " (first picture)");
    m.switchNow(slot, MixTransition::instant);
  });
}

// ---- The tick --------------------------------------------------------------------------------

void MixEngine::tick() {
  const double t0 = mediaTime();
  composer_.crops().step();
  emitProgram();
  // Preview is drawn only for a screen that shows it; without a window nothing does.
  if (previewVisible_ && frames_->watched(FrameHub::kPreviewSlot)) emitPreview();
  recordTickTime(t0, (mediaTime() - t0) * 1000.0);
}

void MixEngine::recordTickTime(double startedAt, double milliseconds) {
  constexpr double kTickMs = 1000.0 / kTicksPerSecond;
  const bool missed = lastTickStart_ > 0 && (startedAt - lastTickStart_) * 1000.0 > 2 * kTickMs;
  lastTickStart_ = startedAt;
  if (milliseconds > kTickMs || missed) lateTicks_.fetch_add(1, std::memory_order_relaxed);
  std::vector<double> sorted;
  {
    std::lock_guard lock(tickMsLock_);
    tickMs_.push_back(milliseconds);
    if (++tickCount_ % kStatsEveryTicks != 0) return;
    sorted.swap(tickMs_);
    tickMs_.reserve(kStatsEveryTicks);
  }
  std::sort(sorted.begin(), sorted.end());
  const size_t n = sorted.size();
  double sum = 0;
  for (double ms : sorted) sum += ms;
  char line[160];
  std::snprintf(line, sizeof line, "mix tick 3s n=%d avg=%.2fms p50=%.2fms p95=%.2fms max=%.2fms",
                int(n), sum / n, sorted[n / 2], sorted[std::min(n * 95 / 100, n - 1)],
                sorted[n - 1]);
  QvnLog::line(line);
}

void MixEngine::emitProgram() {
  if (programSlot_ < 1 && !dissolving_) {
    // Recorder, publisher and screens always have a picture, 30 times a second.
    if (standby_) frames_->ingestMix(standby_);
    return;
  }
  if (canvases_.empty()) return;
  canvasIndex_ = (canvasIndex_ + 1) % int(canvases_.size());
  CanvasPainter& target = canvases_[canvasIndex_];
  const double now = mediaTime();

  if (dissolving_) {
    const double p = std::min((now - dissolveStart_) / dissolveSeconds_, 1.0);
    if (p < 1) {
      blend(target, {dissolveFrom_, fromLook_}, {programSlot_, programLook_}, dissolveKind_, p,
            now);
    } else {
      composer_.compose(target, programSlot_, programLook_, now);
      dissolving_ = false;
      fromLook_ = {};
      if (onDissolve) onDissolve(false);
    }
  } else if (manualProgress_ && previewSlot_ >= 1) {
    // The T-bar is a picture only: Program and Preview stay until it is let go.
    blend(target, {programSlot_, programLook_},
          {previewSlot_, previewLook_, BusComposer::Motion::settled}, manualKind_, *manualProgress_,
          now);
  } else {
    composer_.compose(target, programSlot_, programLook_, now);
  }
  frames_->ingestMix(target.canvas());
}

void MixEngine::blend(CanvasPainter& target, BusComposer::Side from, BusComposer::Side to,
                      MixTransition kind, double p, double now) {
  if (blendScratch_)
    composer_.composeBlend(target, *blendScratch_, from, to, kind, p, now);
  else  // no memory for the incoming side: it shows at once
    composer_.compose(target, to.slot, to.look, now, to.motion);
}

void MixEngine::emitPreview() {
  const PixelSize size = previewSize(canvasWidth(), canvasHeight(), previewFullSize_);
  if (previewCanvases_.empty()) {
    previewCanvases_ = makeCanvases(size.width, size.height);
    previewBlankSent_ = false;
    if (previewCanvases_.empty()) return;
  }
  // A Preview without a source is sent once, not at every tick.
  if (previewSlot_ == 0 && previewBlankSent_) return;
  previewBlankSent_ = previewSlot_ == 0;
  previewCanvasIndex_ = (previewCanvasIndex_ + 1) % int(previewCanvases_.size());
  CanvasPainter& target = previewCanvases_[previewCanvasIndex_];
  if (previewSlot_ >= 1)
    composer_.compose(target, previewSlot_, previewLook_, mediaTime());
  else
    target.fill(kMixBackground);
  frames_->store(FrameHub::kPreviewSlot, target.canvas());
}

}  // namespace qvn
