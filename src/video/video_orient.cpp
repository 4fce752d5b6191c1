#include "video/video_orient.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/pixel_convert.h"

namespace qvn::QvnVideoOrient {
namespace {

// The input as BGRA: itself, or a converted copy; none for a format we can't read.
PixelBufferRef asBGRA(const PixelBufferRef& buffer) {
  switch (buffer->format()) {
    case PixelFormat::bgra:
      return buffer;
    case PixelFormat::nv12:
    case PixelFormat::i420: {
      auto bgra = PixelBuffer::make(PixelFormat::bgra, buffer->width(), buffer->height());
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

  PixelBufferRef picture = asBGRA(buffer);
  if (!picture) return buffer;
  // Scale before turning: when shrinking, the turn then moves fewer pixels.
  const int scaledWidth = static_cast<int>(quarter ? outHeight : outWidth);
  const int scaledHeight = static_cast<int>(quarter ? outWidth : outHeight);
  if (picture->width() != scaledWidth || picture->height() != scaledHeight) {
    auto scaled = PixelBuffer::make(PixelFormat::bgra, scaledWidth, scaledHeight);
    if (!scaled || !scaleBGRA(*picture, *scaled)) return buffer;
    picture = std::move(scaled);
  }
  // Unturned and already a buffer of our own: done. Otherwise the turn (a plain copy at 0)
  // makes one, so the result is never the input.
  if (rotation == 0 && picture != buffer) return picture;
  auto result =
      PixelBuffer::make(PixelFormat::bgra, static_cast<int>(outWidth), static_cast<int>(outHeight));
  if (!result || !rotateBGRA(*picture, *result, rotation)) return buffer;
  return result;
}

}  // namespace qvn::QvnVideoOrient
