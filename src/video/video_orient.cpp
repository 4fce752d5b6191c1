#include "video/video_orient.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/pixel_convert.h"

namespace qvn::QvnVideoOrient {
namespace {

// The buffers one thread's pictures go through. Asking the allocator for 8 MB a frame costs
// more than the conversion: glibc hands blocks that big back to the kernel once a few are
// free, so every frame faulted its memory in again (50 ms for a 1080p quarter turn). Pools
// start over on a size change, and sizes hold steady within a stream.
struct ThreadBuffers {
  // Handed out, and home again once nobody holds them: as new to the caller as fresh ones.
  QvnPixelBufferPool results{PixelFormat::bgra, 3};
  // Only in between, dropped before orient returns, so one of each is reused.
  QvnPixelBufferPool converted{PixelFormat::bgra, 1};
  QvnPixelBufferPool scaled{PixelFormat::bgra, 1};
  QvnPixelBufferPool turnedPlanes{PixelFormat::i420, 1};
};

ThreadBuffers& threadBuffers() {
  thread_local ThreadBuffers buffers;
  return buffers;
}

// The input as BGRA: itself, or a converted copy from `pool`; none for a format we can't read.
PixelBufferRef asBGRA(const PixelBufferRef& buffer, QvnPixelBufferPool& pool) {
  switch (buffer->format()) {
    case PixelFormat::bgra:
      return buffer;
    case PixelFormat::nv12:
    case PixelFormat::i420: {
      auto bgra = pool.make(buffer->width(), buffer->height());
      if (!bgra) return nullptr;
      const bool done = buffer->format() == PixelFormat::nv12 ? nv12ToBGRA(*buffer, *bgra)
                                                              : i420ToBGRA(*buffer, *bgra);
      return done ? bgra : nullptr;
    }
  }
  return nullptr;
}

}  // namespace

PixelBufferRef orient(const PixelBufferRef& buffer, int rotation, std::optional<int> maxLongEdge) {
  if (!buffer) return buffer;
  const bool turns = rotation == 90 || rotation == 180 || rotation == 270;
  const bool quarter = rotation == 90 || rotation == 270;
  if (!turns) rotation = 0;

  double width = quarter ? buffer->height() : buffer->width();
  double height = quarter ? buffer->width() : buffer->height();
  if (const double longEdge = std::max(width, height); maxLongEdge && longEdge > *maxLongEdge) {
    const double scale = *maxLongEdge / longEdge;
    width *= scale;
    height *= scale;
  }
  const long outWidth = std::lround(width);
  const long outHeight = std::lround(height);
  if (outWidth < 2 || outHeight < 2) return buffer;

  // Scale before turning: when shrinking, the turn then moves fewer pixels.
  const int scaledWidth = static_cast<int>(quarter ? outHeight : outWidth);
  const int scaledHeight = static_cast<int>(quarter ? outWidth : outHeight);
  const bool scales = buffer->width() != scaledWidth || buffer->height() != scaledHeight;
  // Each step draws into the result's pool when it is the last one.
  ThreadBuffers& buffers = threadBuffers();
  if (rotation != 0 && !scales && buffer->format() == PixelFormat::i420) {
    // Turning the planes moves 1.5 bytes a pixel instead of 4, and the conversion after it
    // writes the result directly.
    auto turned = buffers.turnedPlanes.make(int(outWidth), int(outHeight));
    auto result = buffers.results.make(int(outWidth), int(outHeight));
    if (!turned || !result || !rotateI420(*buffer, *turned, rotation) ||
        !i420ToBGRA(*turned, *result))
      return buffer;
    return result;
  }
  PixelBufferRef picture =
      asBGRA(buffer, !scales && rotation == 0 ? buffers.results : buffers.converted);
  if (!picture) return buffer;
  if (scales) {
    auto scaled =
        (rotation == 0 ? buffers.results : buffers.scaled).make(scaledWidth, scaledHeight);
    if (!scaled || !scaleBGRA(*picture, *scaled)) return buffer;
    picture = std::move(scaled);
  }
  // Unturned and already a buffer of our own: done. Otherwise the turn (a plain copy at 0)
  // makes one, so the result is never the input.
  if (rotation == 0 && picture != buffer) return picture;
  auto result = buffers.results.make(static_cast<int>(outWidth), static_cast<int>(outHeight));
  if (!result || !rotateBGRA(*picture, *result, rotation)) return buffer;
  return result;
}

}  // namespace qvn::QvnVideoOrient
