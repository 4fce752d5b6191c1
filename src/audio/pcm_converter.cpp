#include "audio/pcm_converter.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <algorithm>

namespace qvn {

// Room for a whole block behind what an old resampler may still hold.
PCMConverter::PCMConverter() : out_(2 * size_t(2 * kMaxFrames)) {}

PCMConverter::~PCMConverter() {
  swr_free(&swr_);
}

bool PCMConverter::rebuild(const FormatKey& key) {
  swr_free(&swr_);
  key_ = key;
  // Only the rate and sample format change here; channels are picked as on the fast path,
  // so a mono source is heard at full level on both sides.
  AVChannelLayout in{}, out{};
  av_channel_layout_default(&in, key.channels);
  av_channel_layout_default(&out, key.channels);
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

int PCMConverter::flush() {
  if (!swr_) return 0;
  const int room = std::min(swr_get_out_samples(swr_, 0), kMaxFrames);
  const int held = room > 0 ? resample(nullptr, 0, room, 0) : 0;
  swr_free(&swr_);
  key_ = {};
  return held;
}

int PCMConverter::resample(const std::uint8_t** in, int inFrames, int room, int at) {
  resampled_.resize(size_t(room) * size_t(key_.channels));
  auto* out = reinterpret_cast<std::uint8_t*>(resampled_.data());
  const int got = swr_convert(swr_, &out, room, in, inFrames);
  if (got <= 0) return at;
  PCMView resampled;
  resampled.channels = key_.channels;
  resampled.frames = got;
  resampled.planes[0] = resampled_.data();
  return pick(resampled, at);
}

// Float frames at the mix's rate: copied, with mono doubled and extra channels left out.
int PCMConverter::pick(const PCMView& pcm, int at) {
  const int n = std::min(pcm.frames, kMaxFrames);
  const int right = pcm.channels > 1 ? 1 : 0;
  float* dest = out_.data() + 2 * size_t(at);
  for (int i = 0; i < n; ++i) {
    if (pcm.interleaved) {
      const auto* in = static_cast<const float*>(pcm.planes[0]);
      dest[2 * size_t(i)] = in[size_t(i) * size_t(pcm.channels)];
      dest[2 * size_t(i) + 1] = in[size_t(i) * size_t(pcm.channels) + size_t(right)];
    } else {
      dest[2 * size_t(i)] = static_cast<const float*>(pcm.planes[0])[i];
      dest[2 * size_t(i) + 1] = static_cast<const float*>(pcm.planes[size_t(right)])[i];
    }
  }
  return at + n;
}

const float* PCMConverter::convert(const PCMView& pcm, int& frames) {
  frames = 0;
  if (pcm.frames <= 0 || pcm.channels < 1 || pcm.channels > 8 || pcm.rate <= 0) return nullptr;
  const bool direct = pcm.rate == 48000 && pcm.format == SampleFormat::float32;
  const FormatKey key{pcm.rate, pcm.channels, pcm.format, pcm.interleaved};
  // A new format: what the old resampler still holds goes out first.
  const int held = swr_ && (direct || !(key == key_)) ? flush() : 0;
  frames = held;
  if (direct) {
    frames = pick(pcm, held);
    return out_.data();
  }
  if (!swr_ && !rebuild(key)) return held > 0 ? out_.data() : nullptr;
  // Room for all it will give back, so nothing piles up inside the resampler.
  const int room = std::max(swr_get_out_samples(swr_, pcm.frames), 1);
  frames =
      resample(reinterpret_cast<const std::uint8_t**>(const_cast<const void**>(pcm.planes.data())),
               pcm.frames, room, held);
  return frames > 0 ? out_.data() : nullptr;
}

}  // namespace qvn
