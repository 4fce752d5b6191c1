#include "video/frame_hub.h"

#include <algorithm>
#include <utility>

namespace qvn {

FrameHub::FrameHub() = default;

void FrameHub::setProgramTaps(ProgramTap virtualCamera, ProgramTap recorder) {
  virtualCamera_ = std::move(virtualCamera);
  recorder_ = std::move(recorder);
}

void FrameHub::setMixListener(MixListener listener) {
  MixListener old;
  {
    std::lock_guard lock(listenerLock_);
    old = std::exchange(mixListener_, std::move(listener));
  }
}

void FrameHub::store(int slot, PixelBufferRef buffer) {
  if (!valid(slot) || !buffer) return;
  const FrameSize size{double(buffer->width()), double(buffer->height())};
  const int i = indexOf(slot);
  PixelBufferRef replaced;  // let go after the lock: the last release may recycle a buffer
  std::shared_ptr<const Watchers> watchers;
  bool first = false;
  {
    std::lock_guard lock(lock_);
    replaced = std::exchange(latest_[i], buffer);
    sizes_[i] = size;
    if (slot >= 1 && !announcedFirst_[i]) {
      announcedFirst_[i] = true;
      first = true;
    }
    watchers = watchers_[i];
  }
  if (first && onFirstFrame) onFirstFrame(slot);
  if (!watchers) return;
  for (const auto& watcher : *watchers)
    if (auto view = watcher->view.lock()) view->enqueue(buffer);
}

void FrameHub::ingestMix(const PixelBufferRef& buffer) {
  store(kProgramSlot, buffer);
  if (virtualCamera_) virtualCamera_(kProgramSlot, buffer);
  if (recorder_) recorder_(kProgramSlot, buffer);
  MixListener listener;
  {
    std::lock_guard lock(listenerLock_);
    if (!mixListener_) return;
    listener = mixListener_;  // called outside the lock, so the publisher may clear it
  }
  listener(buffer);
}

PixelBufferRef FrameHub::buffer(int slot) const {
  if (!valid(slot)) return nullptr;
  std::lock_guard lock(lock_);
  return latest_[indexOf(slot)];
}

FrameSize FrameHub::size(int slot) const {
  if (!valid(slot)) return {};
  std::lock_guard lock(lock_);
  return sizes_[indexOf(slot)];
}

bool FrameHub::hasFrame(int slot) const {
  if (!valid(slot)) return false;
  std::lock_guard lock(lock_);
  return latest_[indexOf(slot)] != nullptr;
}

void FrameHub::clear(int slot) {
  if (!valid(slot)) return;
  const int i = indexOf(slot);
  PixelBufferRef removed;
  std::lock_guard lock(lock_);
  removed = std::exchange(latest_[i], nullptr);
  sizes_[i] = {};
  announcedFirst_[i] = false;
}

void FrameHub::watch(int slot, std::shared_ptr<FrameWatcher> watcher) {
  if (!valid(slot) || !watcher) return;
  const int i = indexOf(slot);
  updateWatchers(i, [&](Watchers& list) { list.push_back(watcher); });
  // A view that starts watching shows the current picture now, not at the next frame.
  if (auto current = buffer(slot))
    if (auto view = watcher->view.lock()) view->enqueue(current);
}

bool FrameHub::watched(int slot) const {
  if (!valid(slot)) return false;
  std::shared_ptr<const Watchers> list;
  {
    std::lock_guard lock(lock_);
    list = watchers_[indexOf(slot)];
  }
  return list && std::any_of(list->begin(), list->end(),
                             [](const auto& watcher) { return !watcher->view.expired(); });
}

void FrameHub::unwatch(const std::shared_ptr<FrameWatcher>& watcher) {
  for (int i = 0; i < kSlots; ++i)
    updateWatchers(i, [&](Watchers& list) { std::erase(list, watcher); });
}

template <class Change>
void FrameHub::updateWatchers(int i, Change change) {
  // The new list is built outside the lock, so `store` never spins behind an allocation;
  // a concurrent change in between makes us build again.
  for (;;) {
    std::shared_ptr<const Watchers> before;
    {
      std::lock_guard lock(lock_);
      before = watchers_[i];
    }
    auto after = before ? std::make_shared<Watchers>(*before) : std::make_shared<Watchers>();
    change(*after);
    if ((before ? before->size() : 0) == after->size() && (!before || *before == *after)) return;
    std::shared_ptr<const Watchers> replaced = after->empty() ? nullptr : std::move(after);
    std::lock_guard lock(lock_);
    if (watchers_[i] != before) continue;
    std::swap(watchers_[i], replaced);  // the old list dies after the lock is released
    return;
  }
}

// ---- SlotFeed ----------------------------------------------------------------------------

SlotFeed::SlotFeed(FrameHub& hub, std::weak_ptr<PixelBufferView> view, int slot)
    : hub_(hub), view_(std::move(view)), slot_(slot) {
  subscribe();
}

SlotFeed::~SlotFeed() {
  if (watcher_) hub_.unwatch(watcher_);
}

void SlotFeed::setSlot(int slot) {
  slot_ = slot;
  subscribe();
}

void SlotFeed::subscribe() {
  if (watcher_) hub_.unwatch(watcher_);
  watcher_ = nullptr;
  if (view_.expired()) return;
  watcher_ = std::make_shared<FrameWatcher>(FrameWatcher{view_});
  hub_.watch(slot_, watcher_);
}

}  // namespace qvn
