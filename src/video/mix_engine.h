// The compositor. It owns Program and Preview, runs one clock of 30 ticks a second on its own
// queue ("io.quorvane.camera.mix"), and on each tick builds each bus's picture from the
// newest pictures in the frame hub into a ring of three canvases: a reader of a Program
// picture has the tick that delivered it and the two after it before it is drawn over.
//
// Every setter posts a job to the mix queue and returns at once; effects apply in call order.
// The bus callbacks are called on the mix queue; the studio hops them to the main thread.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/dispatch.h"
#include "platform/pixel_buffer.h"
#include "video/bus_composer.h"
#include "video/bus_look.h"
#include "video/canvas_painter.h"
#include "video/frame_hub.h"
#include "video/mix_control.h"
#include "video/pip_layout.h"

namespace qvn {

class MixEngine final : public MixControl, public std::enable_shared_from_this<MixEngine> {
 public:
  static constexpr double kTicksPerSecond = 30;
  static constexpr int kRingSize = 3;
  static constexpr int kStatsEveryTicks = 90;

  static std::shared_ptr<MixEngine> make(std::shared_ptr<FrameHub> frames);
  ~MixEngine() override;

  // The canvas size, readable from any thread; the mix queue writes it.
  static int canvasWidth();
  static int canvasHeight();

  // ---- MixControl
  void start() override;
  void setFill(bool fill) override;
  void setCanvas(int width, int height) override;
  void setTransitionDuration(double seconds) override;
  void clearIf(int slot, std::vector<int> live) override;
  void setImageCrop(int slot, ImageCrop crop, bool snap) override;

  void setHoldPreview(bool on) override;
  void setPreviewVisible(bool on) override;
  void setPreviewFullSize(bool on);
  void setPreview(int slot) override;
  void setPiP(bool on, int slot, const QvnPiPLayout& layout, Bus bus) override;
  // Finished layers from the overlay store: merged into the chosen looks at this moment, so
  // layers that went away play their exit and new ones their entrance.
  void setOverlayLayers(bool on, std::vector<OverlayLayer> layers, Bus bus);
  // Moves layers without new pictures.
  void setOverlayPlacements(bool on, std::vector<OverlayPlacement> placements, Bus bus);
  void switchTo(int slot, MixTransition kind) override;
  void takePreview(MixTransition kind, bool swap) override;
  // The T-bar held at `progress` (0..1, clamped here): Program shows the way to Preview's
  // source and settled look. Ignored while a transition runs or without a Preview source.
  void setManual(double progress, MixTransition kind) override;
  // The T-bar let go: with `commit` and a Preview source, the change runs the rest of the
  // way from where the hand left it. `completion` says whether it was taken, on the mix queue.
  void endManual(bool commit, bool swap, std::function<void(bool taken)> completion) override;
  // A picture arrived on an input: the first input to deliver one goes to Program by itself.
  // Any thread; costs one atomic read while Program is occupied.
  void noteIncoming(int slot);
  int programSlotMirror() const { return programMirror_.load(std::memory_order_acquire); }
  // Ticks whose picture went out late since the start: the work took longer than a tick, or
  // the clock came a whole tick after its time (Program showed a picture twice). Any thread.
  long lateTicks() const { return lateTicks_.load(std::memory_order_relaxed); }

  // The queue everything runs on; tests post to it to wait for the engine.
  SerialQueue& queue() { return *queue_; }

 private:
  explicit MixEngine(std::shared_ptr<FrameHub> frames);
  template <class F>
  void post(F job);
  void tick();
  void emitProgram();
  void emitPreview();
  // switchTo's work, on the queue: a job that decides to switch does it in place, so no job
  // queued behind it sees the old Program.
  void switchNow(int slot, MixTransition kind);
  void beginTransition(int from, const BusLook& look, MixTransition kind, double startAt);
  // Program takes Preview's source and settled look; with `swap` the old Program source goes
  // to Preview. Returns the old Program source.
  int promotePreview(bool swap, BusLook& oldLook);
  void setProgramSlot(int slot);
  template <class F>
  void forLooks(Bus bus, F change);
  // Program's picture while a transition runs or the T-bar is held: `from` under `to`.
  void blend(CanvasPainter& target, BusComposer::Side from, BusComposer::Side to,
             MixTransition kind, double p, double now);
  void reportBuses(std::optional<bool> dissolve);
  void makeRing();
  void recordTickTime(double startedAt, double milliseconds);

  std::shared_ptr<FrameHub> frames_;
  std::unique_ptr<SerialQueue> queue_;
  RepeatingTimer timer_;

  // Mix queue state.
  std::vector<CanvasPainter> canvases_;
  int canvasIndex_ = 0;
  std::unique_ptr<CanvasPainter> blendScratch_;  // the incoming side of a transition
  PixelBufferRef standby_;
  bool running_ = false;
  BusComposer composer_;
  BusLook programLook_, previewLook_, fromLook_;
  int programSlot_ = 0;
  int previewSlot_ = 0;
  bool dissolving_ = false;
  MixTransition dissolveKind_ = MixTransition::instant;
  int dissolveFrom_ = 0;
  std::optional<double> manualProgress_;
  MixTransition manualKind_ = MixTransition::fade;
  double dissolveStart_ = 0;
  double dissolveSeconds_ = 0.4;
  double transitionSeconds_ = 0.55;
  bool holdPreview_ = false;
  bool previewVisible_ = false;
  bool previewFullSize_ = false;
  std::vector<CanvasPainter> previewCanvases_;
  int previewCanvasIndex_ = 0;
  bool previewBlankSent_ = false;

  std::atomic<int> programMirror_{0};
  std::mutex tickMsLock_;
  std::vector<double> tickMs_;
  long tickCount_ = 0;
  double lastTickStart_ = 0;  // mix queue
  std::atomic<long> lateTicks_{0};
};

}  // namespace qvn
