#include "platform/pixel_buffer.h"

#include <climits>
#include <cstddef>
#include <new>
#include <utility>

namespace qvn {
namespace {

constexpr size_t roundUp(size_t n, size_t to) {
  return (n + to - 1) / to * to;
}

// Room for the shared_ptr control block of one hand-out; the standard library's block for a
// pointer, an empty deleter and a one-pointer allocator is far smaller.
constexpr size_t kCountRoomBytes = 64;

// The buffer object lives inside its storage, which outlives every reference.
struct KeepObject {
  void operator()(PixelBuffer*) const noexcept {}
};

struct PlaneShape {
  int rowBytes;
  int rows;
};

}  // namespace

struct PixelBuffer::Storage {
  PixelBuffer buffer;
  // Empty for a buffer from PixelBuffer::make.
  std::weak_ptr<QvnPixelBufferPool::Shared> pool;
  alignas(std::max_align_t) std::byte countRoom[kCountRoomBytes];
};

struct QvnPixelBufferPool::Shared {
  explicit Shared(size_t keepCount) : keep(keepCount) { free.reserve(keep); }
  ~Shared() {
    for (PixelBuffer::Storage* storage : free) PixelBuffer::destroy(storage);
  }

  std::mutex mutex;
  const size_t keep;
  int width = 0;
  int height = 0;
  // Reserved to `keep`, so giving a buffer back never allocates.
  std::vector<PixelBuffer::Storage*> free;
};

template <typename T>
struct PixelBuffer::CountAllocator {
  using value_type = T;

  explicit CountAllocator(Storage* owner) noexcept : storage(owner) {}
  template <typename U>
  CountAllocator(const CountAllocator<U>& other) noexcept : storage(other.storage) {}

  T* allocate(size_t count) {
    static_assert(sizeof(T) <= kCountRoomBytes && alignof(T) <= alignof(std::max_align_t));
    if (count != 1) throw std::bad_alloc();
    return reinterpret_cast<T*>(storage->countRoom);
  }
  // The last thing done with the control block: from here on the storage is free to reuse.
  void deallocate(T*, size_t) noexcept { release(storage); }

  template <typename U>
  bool operator==(const CountAllocator<U>& other) const noexcept {
    return storage == other.storage;
  }

  Storage* storage;
};

bool PixelBuffer::validSize(PixelFormat format, int width, int height) {
  if (width <= 0 || height <= 0) return false;
  // Strides are ints; keep the widest row and its rounding within one.
  if (width > (INT_MAX - static_cast<int>(kRowAlignment)) / 4) return false;
  if (format == PixelFormat::bgra) return true;
  return width % 2 == 0 && height % 2 == 0;
}

int PixelBuffer::planeWidth(int plane) const {
  if (plane < 0 || plane >= planeCount_) return 0;
  return plane == 0 ? width_ : width_ / 2;
}

int PixelBuffer::planeHeight(int plane) const {
  if (plane < 0 || plane >= planeCount_) return 0;
  return plane == 0 ? height_ : height_ / 2;
}

PixelBuffer::Storage* PixelBuffer::allocate(PixelFormat format, int width, int height) {
  if (!validSize(format, width, height)) return nullptr;
  PlaneShape shapes[3] = {};
  int planeCount = 0;
  switch (format) {
    case PixelFormat::bgra:
      shapes[planeCount++] = {width * 4, height};
      break;
    case PixelFormat::nv12:
      shapes[planeCount++] = {width, height};
      shapes[planeCount++] = {width, height / 2};
      break;
    case PixelFormat::i420:
      shapes[planeCount++] = {width, height};
      shapes[planeCount++] = {width / 2, height / 2};
      shapes[planeCount++] = {width / 2, height / 2};
      break;
    default:
      return nullptr;
  }

  const size_t header = roundUp(sizeof(Storage), kRowAlignment);
  size_t offsets[3] = {};
  size_t total = header;
  for (int plane = 0; plane < planeCount; ++plane) {
    offsets[plane] = total;
    total += roundUp(static_cast<size_t>(shapes[plane].rowBytes), kRowAlignment) *
             static_cast<size_t>(shapes[plane].rows);
  }
  void* block = ::operator new (total, std::align_val_t{kRowAlignment}, std::nothrow);
  if (!block) return nullptr;

  auto* storage = new (block) Storage();
  PixelBuffer& buffer = storage->buffer;
  buffer.format_ = format;
  buffer.width_ = width;
  buffer.height_ = height;
  buffer.planeCount_ = planeCount;
  for (int plane = 0; plane < planeCount; ++plane) {
    buffer.planes_[plane].data = static_cast<std::uint8_t*>(block) + offsets[plane];
    buffer.planes_[plane].stride =
        static_cast<int>(roundUp(static_cast<size_t>(shapes[plane].rowBytes), kRowAlignment));
  }
  return storage;
}

void PixelBuffer::destroy(Storage* storage) noexcept {
  storage->~Storage();
  ::operator delete (static_cast<void*>(storage), std::align_val_t{kRowAlignment});
}

void PixelBuffer::release(Storage* storage) noexcept {
  if (auto pool = storage->pool.lock()) {
    std::lock_guard lock(pool->mutex);
    if (storage->buffer.width_ == pool->width && storage->buffer.height_ == pool->height &&
        pool->free.size() < pool->keep) {
      pool->free.push_back(storage);
      return;
    }
  }
  destroy(storage);
}

PixelBufferRef PixelBuffer::share(Storage* storage) {
  return PixelBufferRef(&storage->buffer, KeepObject{}, CountAllocator<PixelBuffer>(storage));
}

PixelBufferRef PixelBuffer::make(PixelFormat format, int width, int height) {
  Storage* storage = allocate(format, width, height);
  return storage ? share(storage) : nullptr;
}

QvnPixelBufferPool::QvnPixelBufferPool(PixelFormat format, size_t keep)
    : format_(format), shared_(std::make_shared<Shared>(keep)) {}

// Buffers still out hold the shared state only weakly: they free themselves when released.
QvnPixelBufferPool::~QvnPixelBufferPool() = default;

PixelBufferRef QvnPixelBufferPool::make(int width, int height) {
  if (!PixelBuffer::validSize(format_, width, height)) return nullptr;
  PixelBuffer::Storage* storage = nullptr;
  std::vector<PixelBuffer::Storage*> stale;
  {
    std::lock_guard lock(shared_->mutex);
    if (width != shared_->width || height != shared_->height) {
      stale.swap(shared_->free);
      shared_->free.reserve(shared_->keep);
      shared_->width = width;
      shared_->height = height;
    } else if (!shared_->free.empty()) {
      storage = shared_->free.back();
      shared_->free.pop_back();
    }
  }
  for (PixelBuffer::Storage* old : stale) PixelBuffer::destroy(old);
  if (!storage) {
    storage = PixelBuffer::allocate(format_, width, height);
    if (!storage) return nullptr;
    storage->pool = shared_;
  }
  return PixelBuffer::share(storage);
}

}  // namespace qvn
