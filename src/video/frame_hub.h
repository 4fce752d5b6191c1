// The one meeting point of all video: every input writes its newest picture into its slot,
// the mix reads the newest picture of each slot on its own clock, and screens watching a
// slot are handed each new picture. There is no queue of frames: a slot holds exactly one
// picture, and a later one replaces it. Inputs never wait for the mix, nor the mix for them.
//
// Slots: -1 Preview, 0 Program (both written by the mix only), 1 to 16 the inputs.
// Thread-safe; one short spin lock guards the slot table and is never held across a call out.
#pragma once

#include <array>
#include <bitset>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/pixel_buffer.h"
#include "platform/spin_lock.h"
#include "video/pixel_buffer_view.h"

namespace qvn {

// Pushes a slot's pictures to one view; the hub holds the watcher, the watcher the view
// weakly, so a view that is gone costs nothing until its owner unwatches.
struct FrameWatcher {
  std::weak_ptr<PixelBufferView> view;
};

struct FrameSize {
  double width = 0;
  double height = 0;
  bool operator==(const FrameSize&) const = default;
};

class FrameHub {
 public:
  static constexpr int kPreviewSlot = -1;
  static constexpr int kProgramSlot = 0;
  static constexpr int kLastSlot = 16;

  using ProgramTap = std::function<void(int slot, const PixelBufferRef& buffer)>;
  using MixListener = std::function<void(const PixelBufferRef& buffer)>;

  FrameHub();
  virtual ~FrameHub() = default;
  FrameHub(const FrameHub&) = delete;
  FrameHub& operator=(const FrameHub&) = delete;

  // The first picture of an input slot since it was last cleared; called on the thread that
  // stored it. Set once before pictures flow.
  std::function<void(int slot)> onFirstFrame;

  // Where Program goes besides the screens: the virtual camera, then the recorder. Set once
  // before the mix starts.
  void setProgramTaps(ProgramTap virtualCamera, ProgramTap recorder);
  // The publisher's tap on Program; set and cleared while the mix runs.
  void setMixListener(MixListener listener);

  // Publishes a picture of a slot; any thread. The caller never writes the buffer again.
  void store(int slot, PixelBufferRef buffer);
  // Publishes a Program picture and fans it out: screens, virtual camera, recorder,
  // publisher, in that order. Mix queue only; each tap must return quickly.
  void ingestMix(const PixelBufferRef& buffer);

  PixelBufferRef buffer(int slot) const;
  FrameSize size(int slot) const;
  virtual bool hasFrame(int slot) const;
  // The slot's picture goes; its watchers stay.
  virtual void clear(int slot);

  // A view watching a slot that already holds a picture gets it at once.
  void watch(int slot, std::shared_ptr<FrameWatcher> watcher);
  void unwatch(const std::shared_ptr<FrameWatcher>& watcher);
  // Whether a view that still exists watches the slot: a bus nobody sees need not be drawn.
  bool watched(int slot) const;

 private:
  using Watchers = std::vector<std::shared_ptr<FrameWatcher>>;
  static constexpr int kSlots = kLastSlot + 2;  // -1 ... 16
  static int indexOf(int slot) { return slot + 1; }
  static bool valid(int slot) { return slot >= kPreviewSlot && slot <= kLastSlot; }
  template <class Change>
  void updateWatchers(int index, Change change);

  // The slot table: fixed arrays, so storing a picture never allocates. A slot's watcher
  // list is replaced whole when it changes, so `store` takes a reference, not a copy.
  mutable SpinLock lock_;
  std::array<PixelBufferRef, kSlots> latest_;
  std::array<FrameSize, kSlots> sizes_;
  std::bitset<kSlots> announcedFirst_;
  std::array<std::shared_ptr<const Watchers>, kSlots> watchers_;

  ProgramTap virtualCamera_;
  ProgramTap recorder_;
  mutable std::mutex listenerLock_;
  MixListener mixListener_;
};

// Binds a slot number to a view: watches the slot, and re-watches when the slot changes.
// Owner's thread; unwatches when destroyed.
class SlotFeed {
 public:
  SlotFeed(FrameHub& hub, std::weak_ptr<PixelBufferView> view, int slot);
  ~SlotFeed();
  SlotFeed(const SlotFeed&) = delete;
  SlotFeed& operator=(const SlotFeed&) = delete;

  void setSlot(int slot);
  int slot() const { return slot_; }

 private:
  void subscribe();

  FrameHub& hub_;
  std::weak_ptr<PixelBufferView> view_;
  int slot_;
  std::shared_ptr<FrameWatcher> watcher_;
};

}  // namespace qvn
