#include "audio/pcm_converter.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>

namespace qvn {

PCMConverter::PCMConverter() : out_(2 * size_t(kMaxFrames)) {}

PCMConverter::~PCMConverter() {
  swr_free(&swr_);
}

bool PCMConverter::rebuild(const FormatKey& key) {
  swr_free(&swr_);
  key_ = key;
  AVChannelLayout in{}, out{};
  av_channel_layout_default(&in, key.channels);
  av_channel_layout_default(&out, 2);
  AVSampleFormat inFormat = key.format == SampleFormat::int16
                                ? (key.interleaved ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S16P)
                                : (key.interleaved ? AV_SAMPLE_FMT_FLT : AV_SAMPLE_FMT_FLTP);
  const int made = swr_alloc_set_opts2(&swr_, &out, AV_SAMPLE_FMT_FLT, 48000, &in, inFormat,
                                       key.rate, 0, nullptr);
  av_channel_layout_uninit(&in);
  av_channel_layout_uninit(&out);
  if (made < 0 || !swr_ || swr_init(swr_) < 0) {
    swr_free(&swr_);
    key_ = {};
    return false;
  }
  return true;
}

const float* PCMConverter::convert(const PCMView& pcm, int& frames) {
  frames = 0;
  if (pcm.frames <= 0 || pcm.channels < 1 || pcm.channels > 8 || pcm.rate <= 0) return nullptr;
  // The mix's own rate in floats: copied, with mono doubled and extra channels left out.
  if (pcm.rate == 48000 && pcm.format == SampleFormat::float32) {
    const int n = std::min(pcm.frames, kMaxFrames);
    const int right = pcm.channels > 1 ? 1 : 0;
    for (int i = 0; i < n; ++i) {
      if (pcm.interleaved) {
        const auto* in = static_cast<const float*>(pcm.planes[0]);
        out_[2 * size_t(i)] = in[size_t(i) * size_t(pcm.channels)];
        out_[2 * size_t(i) + 1] = in[size_t(i) * size_t(pcm.channels) + size_t(right)];
      } else {
        out_[2 * size_t(i)] = static_cast<const float*>(pcm.planes[0])[i];
        out_[2 * size_t(i) + 1] = static_cast<const float*>(pcm.planes[size_t(right)])[i];
      }
    }
    frames = n;
    return out_.data();
  }
  const FormatKey key{pcm.rate, pcm.channels, pcm.format, pcm.interleaved};
  if ((!swr_ || !(key == key_)) && !rebuild(key)) return nullptr;
  auto* out = reinterpret_cast<std::uint8_t*>(out_.data());
  const int converted = swr_convert(
      swr_, &out, kMaxFrames,
      reinterpret_cast<const std::uint8_t**>(const_cast<const void**>(pcm.planes.data())),
      pcm.frames);
  if (converted <= 0) return nullptr;
  frames = converted;
  return out_.data();
}

}  // namespace qvn
