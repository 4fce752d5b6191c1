// Replaces operator new, and malloc where no sanitizer owns it, with counting forwarders.
// malloc is counted too because the C libraries under the mix (pixman, glib) never call
// operator new, and an allocation there breaks the tick's rule just the same.
#include "heap_count.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QVN_SANITIZED_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define QVN_SANITIZED_HEAP 1
#endif
#endif

namespace {

std::atomic<std::uint64_t> gNews{0};
std::atomic<std::uint64_t> gMallocs{0};
// Constant-initialised in the program itself, so reading it from malloc never allocates.
thread_local bool tCounting = false;

void countNew() {
  if (tCounting) gNews.fetch_add(1, std::memory_order_relaxed);
}

void* allocate(std::size_t size) {
  countNew();
  return std::malloc(size ? size : 1);
}

void* allocateAligned(std::size_t size, std::align_val_t align) {
  countNew();
  const auto a = static_cast<std::size_t>(align);
  // aligned_alloc wants a size that is a multiple of the alignment.
  return std::aligned_alloc(a, (size + a - 1) / a * a + (size ? 0 : a));
}

}  // namespace

namespace qvn::bench {

HeapCount heapCount() {
  return {gNews.load(std::memory_order_relaxed), gMallocs.load(std::memory_order_relaxed)};
}

void countThisThread(bool on) {
  tCounting = on;
}

bool countsMalloc() {
#ifdef QVN_SANITIZED_HEAP
  return false;
#else
  return true;
#endif
}

}  // namespace qvn::bench

void* operator new(std::size_t size) {
  if (void* p = allocate(size)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
  if (void* p = allocate(size)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocate(size);
}
void* operator new(std::size_t size, std::align_val_t align) {
  if (void* p = allocateAligned(size, align)) return p;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size, std::align_val_t align) {
  if (void* p = allocateAligned(size, align)) return p;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return allocateAligned(size, align);
}
void* operator new[](std::size_t size, std::align_val_t align, const std::nothrow_t&) noexcept {
  return allocateAligned(size, align);
}

void operator delete(void* p) noexcept {
  std::free(p);
}
void operator delete[](void* p) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
  std::free(p);
}
void operator delete(void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept {
  std::free(p);
}
void operator delete(void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(p);
}
void operator delete[](void* p, std::align_val_t, const std::nothrow_t&) noexcept {
  std::free(p);
}

#ifndef QVN_SANITIZED_HEAP
namespace {
void countMalloc() {
  if (tCounting) gMallocs.fetch_add(1, std::memory_order_relaxed);
}
}  // namespace

// glibc lets a program replace malloc; these forward to its own allocator, so memory from
// either side may be freed by the other.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* p, std::size_t size);
void* __libc_memalign(std::size_t align, std::size_t size);
void __libc_free(void* p);

void* malloc(std::size_t size) noexcept {
  countMalloc();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  countMalloc();
  return __libc_calloc(count, size);
}
void* realloc(void* p, std::size_t size) noexcept {
  countMalloc();
  return __libc_realloc(p, size);
}
void free(void* p) noexcept {
  __libc_free(p);
}
void* memalign(std::size_t align, std::size_t size) noexcept {
  countMalloc();
  return __libc_memalign(align, size);
}
void* aligned_alloc(std::size_t align, std::size_t size) noexcept {
  countMalloc();
  return __libc_memalign(align, size);
}
int posix_memalign(void** out, std::size_t align, std::size_t size) noexcept {
  if (align < sizeof(void*) || (align & (align - 1)) != 0) return EINVAL;
  countMalloc();
  void* p = __libc_memalign(align, size);
  if (!p) return ENOMEM;
  *out = p;
  return 0;
}
}
#endif
