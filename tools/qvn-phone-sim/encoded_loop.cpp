#include "encoded_loop.h"

#include <cmath>

#include "frame_code.h"

namespace qvn {

std::shared_ptr<const EncodedLoop> encodeLoop(const H264Settings& settings, const CameraLook& look,
                                              TestPattern& pattern,
                                              const std::atomic<bool>& cancelled,
                                              std::string& error, std::uint32_t firstCode) {
  auto encoder = H264Encoder::make(settings, error);
  auto picture = PixelBuffer::make(PixelFormat::i420, settings.width, settings.height);
  if (!encoder || !picture) {
    if (error.empty()) error = "no memory for a picture";
    return nullptr;
  }
  auto loop = std::make_shared<EncodedLoop>();
  loop->format = {settings.width, settings.height, settings.fps, encoder->decoderConfiguration()};
  loop->look = look;
  const int count = int(std::lround(kCycleSeconds * settings.fps));
  for (int i = 0; i < count; ++i) {
    if (cancelled) {
      error = "cancelled";
      return nullptr;
    }
    pattern.draw(*picture, double(i) / count, (firstCode + std::uint32_t(i)) & kFrameCodeMask,
                 look);
    auto frame = encoder->encode(*picture, std::int64_t(i) * 1000 / settings.fps, i == 0);
    if (!frame || frame->nals.empty()) {
      error = "the H.264 encoder failed on frame " + std::to_string(i) + " of the loop";
      return nullptr;
    }
    loop->frames.push_back(std::move(*frame));
  }
  return loop;
}

}  // namespace qvn
