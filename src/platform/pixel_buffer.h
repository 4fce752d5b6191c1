// The picture type of the whole pipeline: a reference-counted image with a size and a pixel
// format, shared by reference and never copied between stages. Rows start on 64-byte
// boundaries so vector kernels can run over them without peeling.
//
// A producer fills a buffer, hands it over (store, submit, ...) and never writes it again;
// readers only read. Holding a `PixelBufferRef` keeps the pixels alive, whatever happens to
// the pool the buffer came from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace qvn {

enum class PixelFormat : std::uint32_t {
  // B, G, R, A bytes in memory, premultiplied alpha ('BGRA').
  bgra = 0x42475241,
  // Bi-planar 4:2:0 video range: a Y plane and an interleaved CbCr plane ('420v').
  nv12 = 0x34323076,
  // Tri-planar 4:2:0: Y, U (Cb) and V (Cr) planes ('y420').
  i420 = 0x79343230,
};

class PixelBuffer;
using PixelBufferRef = std::shared_ptr<PixelBuffer>;

class PixelBuffer {
 public:
  static constexpr size_t kRowAlignment = 64;

  // A new buffer, or none when the size is not positive (or odd, for the 4:2:0 formats) or
  // its memory can't be had. The pixels are not cleared.
  static PixelBufferRef make(PixelFormat format, int width, int height);

  // Shared by reference only: the object lives inside the allocation it describes.
  PixelBuffer(const PixelBuffer&) = delete;
  PixelBuffer& operator=(const PixelBuffer&) = delete;

  PixelFormat format() const { return format_; }
  int width() const { return width_; }
  int height() const { return height_; }
  int planeCount() const { return planeCount_; }

  // Plane 0 is BGRA or Y; plane 1 CbCr (NV12) or U (I420); plane 2 V (I420).
  std::uint8_t* data(int plane = 0) { return planes_[plane].data; }
  const std::uint8_t* data(int plane = 0) const { return planes_[plane].data; }
  int stride(int plane = 0) const { return planes_[plane].stride; }
  int planeWidth(int plane) const;  // in samples of that plane (a CbCr pair counts once)
  int planeHeight(int plane) const;

  // Pixel (x, y) of a BGRA buffer, as B, G, R, A bytes.
  std::uint8_t* bgraAt(int x, int y) { return data(0) + y * stride(0) + x * 4; }
  const std::uint8_t* bgraAt(int x, int y) const { return data(0) + y * stride(0) + x * 4; }

 private:
  friend class QvnPixelBufferPool;
  struct Plane {
    std::uint8_t* data = nullptr;
    int stride = 0;
  };
  // One allocation holds the buffer object, its planes and the room for its reference
  // count, so handing a recycled buffer out again allocates nothing.
  struct Storage;
  // Places the reference count in its storage's room and, when it is freed, sends the
  // storage home to its pool (or frees it).
  template <typename T>
  struct CountAllocator;
  PixelBuffer() = default;
  static bool validSize(PixelFormat format, int width, int height);
  static Storage* allocate(PixelFormat format, int width, int height);
  static void destroy(Storage* storage) noexcept;
  static void release(Storage* storage) noexcept;
  static PixelBufferRef share(Storage* storage);

  PixelFormat format_ = PixelFormat::bgra;
  int width_ = 0;
  int height_ = 0;
  int planeCount_ = 0;
  Plane planes_[3];
};

// Recycles buffers of one format and size. A buffer goes back to the pool when its last
// reference (weak ones included) is dropped; after a size change the pool starts over, and
// buffers of the old size still held stay valid. Any thread.
class QvnPixelBufferPool {
 public:
  explicit QvnPixelBufferPool(PixelFormat format, size_t keep = 6);
  ~QvnPixelBufferPool();
  QvnPixelBufferPool(const QvnPixelBufferPool&) = delete;
  QvnPixelBufferPool& operator=(const QvnPixelBufferPool&) = delete;

  // A buffer of that size, recycled when one is free; none when the size is not valid.
  PixelBufferRef make(int width, int height);

  PixelFormat format() const { return format_; }

 private:
  friend class PixelBuffer;  // a released buffer finds its way back
  struct Shared;
  PixelFormat format_;
  std::shared_ptr<Shared> shared_;
};

}  // namespace qvn
