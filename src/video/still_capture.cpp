#include "video/still_capture.h"

#include <png.h>
#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "inputs/media_library.h"
#include "platform/files.h"
#include "platform/pixel_convert.h"
#include "support/qvn_log.h"
#include "video/video_orient.h"

namespace qvn {
namespace {

namespace fs = std::filesystem;

std::optional<std::vector<std::uint8_t>> encodeJPEG(const PixelBuffer& picture, double quality) {
  const double q = std::clamp(std::isnan(quality) ? 1.0 : quality, 0.0, 1.0);
  const int jpegQuality = 1 + static_cast<int>(std::lround(q * 99));
  std::unique_ptr<void, decltype(&tjDestroy)> handle(tjInitCompress(), &tjDestroy);
  if (!handle) return std::nullopt;
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const int failed =
      tjCompress2(handle.get(), picture.data(), picture.width(), picture.stride(), picture.height(),
                  TJPF_BGRA, &jpeg, &size, TJSAMP_420, jpegQuality, 0);
  std::unique_ptr<unsigned char, decltype(&tjFree)> owned(jpeg, &tjFree);
  if (failed || !jpeg) return std::nullopt;
  return std::vector<std::uint8_t>(jpeg, jpeg + size);
}

// PNG stores straight alpha, so each premultiplied colour is divided by its alpha again
// (rounded); a fully transparent pixel has no colour left and becomes 0, 0, 0, 0.
std::vector<std::uint8_t> straightRGBA(const PixelBuffer& picture) {
  const int width = picture.width();
  std::vector<std::uint8_t> rgba(static_cast<size_t>(width) * picture.height() * 4);
  std::uint8_t* out = rgba.data();
  for (int y = 0; y < picture.height(); ++y) {
    const std::uint8_t* in = picture.bgraAt(0, y);
    for (int x = 0; x < width; ++x, in += 4, out += 4) {
      const unsigned a = in[3];
      if (a == 255) {
        out[0] = in[2];
        out[1] = in[1];
        out[2] = in[0];
      } else if (a == 0) {
        out[0] = out[1] = out[2] = 0;
      } else {
        for (int c = 0; c < 3; ++c)
          out[c] = static_cast<std::uint8_t>(std::min(255u, (in[2 - c] * 255u + a / 2) / a));
      }
      out[3] = static_cast<std::uint8_t>(a);
    }
  }
  return rgba;
}

// libpng's simplified writer reports errors by its return value, so no longjmp crosses
// our frames.
std::optional<std::vector<std::uint8_t>> encodePNG(const PixelBuffer& picture) {
  const std::vector<std::uint8_t> rgba = straightRGBA(picture);
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(picture.width());
  image.height = static_cast<png_uint_32>(picture.height());
  image.format = PNG_FORMAT_RGBA;
  // Room for the worst case up front, so the picture is compressed once.
  std::vector<std::uint8_t> png(PNG_IMAGE_PNG_SIZE_MAX(image));
  png_alloc_size_t size = png.size();
  const bool written =
      png_image_write_to_memory(&image, png.data(), &size, 0, rgba.data(), 0, nullptr);
  png_image_free(&image);
  if (!written) return std::nullopt;
  png.resize(size);
  return png;
}

// Makes a taken file name unique with " 2", " 3", ... before its extension.
fs::path freeName(const fs::path& folder, const std::string& fileName, std::string_view ext) {
  const std::string base = fileName.substr(0, fileName.size() - ext.size() - 1);
  fs::path candidate = folder / fileName;
  std::error_code ec;
  for (int n = 2; fs::exists(candidate, ec); ++n)
    candidate = folder / (base + " " + std::to_string(n) + "." + std::string(ext));
  return candidate;
}

}  // namespace

std::optional<EncodedStill> encodeStill(const FrameHub& hub, int slot, StillType type,
                                        double maxWidth, double quality) {
  const PixelBufferRef buffer = hub.buffer(slot);
  if (!buffer || buffer->width() <= 1 || buffer->height() <= 1) return std::nullopt;
  int width = buffer->width();
  int height = buffer->height();
  if (std::isfinite(maxWidth) && maxWidth < width) {
    const double scale = maxWidth / width;
    width = static_cast<int>(std::lround(maxWidth));
    height = static_cast<int>(std::lround(height * scale));
    if (width < 1 || height < 1) return std::nullopt;
  }

  PixelBufferRef picture =
      buffer->format() == PixelFormat::bgra ? buffer : QvnVideoOrient::orient(buffer, 0);
  if (picture->format() != PixelFormat::bgra) return std::nullopt;
  if (picture->width() != width || picture->height() != height) {
    auto scaled = PixelBuffer::make(PixelFormat::bgra, width, height);
    if (!scaled || !scaleBGRA(*picture, *scaled)) return std::nullopt;
    picture = std::move(scaled);
  }

  auto data = type == StillType::jpeg ? encodeJPEG(*picture, quality) : encodePNG(*picture);
  if (!data) return std::nullopt;
  return EncodedStill{std::move(*data), width, height};
}

namespace StillCapture {

std::optional<fs::path> save(const FrameHub& hub, int slot, const std::string& name) {
  MediaLibrary::ensureFolders();

  const auto still =
      encodeStill(hub, slot, StillType::png, std::numeric_limits<double>::max(), 1.0);
  if (!still) return std::nullopt;
  const fs::path file = freeName(MediaLibrary::stills(), MediaLibrary::stamp(name, "png"), "png");
  const std::string_view bytes(reinterpret_cast<const char*>(still->data.data()),
                               still->data.size());
  if (const auto error = writeFileAtomically(file, bytes)) {
    QvnLog::line("still not saved: " + *error);
    return std::nullopt;
  }
  QvnLog::line("still " + std::to_string(still->width) + "\u00d7" + std::to_string(still->height) +
               " \u2192 " + file.filename().string());
  return file;
}

}  // namespace StillCapture
}  // namespace qvn
