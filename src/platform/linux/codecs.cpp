// H.264 through libx264 itself and AAC through libavcodec.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <x264.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>
#include <thread>

#include "platform/codecs.h"

namespace qvn {

// ---- H.264 ------------------------------------------------------------------------------------

struct H264Encoder::State {
  x264_t* encoder = nullptr;
  x264_param_t param{};
  ~State() {
    if (encoder) x264_encoder_close(encoder);
  }
};

H264Encoder::H264Encoder(std::unique_ptr<State> state) : state_(std::move(state)) {}
H264Encoder::~H264Encoder() = default;

std::string H264Encoder::presetFor(int width, int height) {
  return width * height <= 1920 * 1080 ? "veryfast" : "ultrafast";
}

int H264Encoder::encoderThreads() {
  return int(std::clamp(std::thread::hardware_concurrency(), 1u, 16u));
}

namespace {

// x264's bitrate is in kbit/s, with a one-second buffer so a burst can't run away.
void applyRate(x264_param_t& p, std::int64_t bitrate) {
  const int kbps = int(std::clamp<std::int64_t>(bitrate / 1000, 1, 1'000'000));
  p.rc.i_rc_method = X264_RC_ABR;
  p.rc.i_bitrate = kbps;
  p.rc.i_vbv_max_bitrate = kbps;
  p.rc.i_vbv_buffer_size = kbps;
}

// The NAL's bytes behind its 4-byte length.
std::vector<std::uint8_t> body(const x264_nal_t& nal) {
  return std::vector<std::uint8_t>(nal.p_payload + 4, nal.p_payload + nal.i_payload);
}

}  // namespace

std::unique_ptr<H264Encoder> H264Encoder::make(const H264Settings& s, std::string& error) {
  if (s.width < 2 || s.height < 2 || s.fps < 1 || s.bitrate < 1 || s.width % 2 || s.height % 2) {
    error = "unusable encoder size or rate";
    return nullptr;
  }
  auto state = std::make_unique<State>();
  x264_param_t& p = state->param;
  const std::string preset = s.preset.empty() ? presetFor(s.width, s.height) : s.preset;
  if (x264_param_default_preset(&p, preset.c_str(), "zerolatency") < 0) {
    error = "unknown encoder preset " + preset;
    return nullptr;
  }
  p.i_width = s.width;
  p.i_height = s.height;
  p.i_csp = X264_CSP_I420;
  p.i_fps_num = uint32_t(s.fps);
  p.i_fps_den = 1;
  p.i_timebase_num = 1;
  p.i_timebase_den = 1000;  // timestamps in milliseconds
  p.b_vfr_input = 0;  // pts pass through; rate control counts frames, with no wait for the next
  p.i_keyint_max = 2 * s.fps;  // a keyframe at least every two seconds
  p.i_bframe = 0;              // no reordering: frames leave in the order they came
  p.b_repeat_headers = 0;      // SPS and PPS go once, in the decoder configuration
  p.b_annexb = 0;              // 4-byte lengths instead of start codes
  p.i_log_level = X264_LOG_NONE;
  p.i_threads = encoderThreads();
  applyRate(p, s.bitrate);
  if (x264_param_apply_profile(&p, "main") < 0) {
    error = "the encoder has no Main profile";
    return nullptr;
  }
  state->encoder = x264_encoder_open(&p);
  if (!state->encoder) {
    error = "could not start the H.264 encoder";
    return nullptr;
  }
  x264_nal_t* nals = nullptr;
  int count = 0;
  if (x264_encoder_headers(state->encoder, &nals, &count) < 0) {
    error = "the H.264 encoder gave no headers";
    return nullptr;
  }
  std::vector<std::uint8_t> sps, pps;
  for (int i = 0; i < count; ++i) {
    if (nals[i].i_type == NAL_SPS) sps = body(nals[i]);
    if (nals[i].i_type == NAL_PPS) pps = body(nals[i]);
  }
  if (sps.size() < 4 || pps.empty()) {
    error = "the H.264 encoder gave no SPS or PPS";
    return nullptr;
  }
  std::unique_ptr<H264Encoder> encoder(new H264Encoder(std::move(state)));
  auto& c = encoder->configuration_;
  c = {1, sps[1], sps[2], sps[3], 0xFF, 0xE1};  // version, profile, compatibility, level,
                                                // 4-byte lengths, one SPS
  c.push_back(std::uint8_t(sps.size() >> 8));
  c.push_back(std::uint8_t(sps.size()));
  c.insert(c.end(), sps.begin(), sps.end());
  c.push_back(1);  // one PPS
  c.push_back(std::uint8_t(pps.size() >> 8));
  c.push_back(std::uint8_t(pps.size()));
  c.insert(c.end(), pps.begin(), pps.end());
  return encoder;
}

std::optional<EncodedFrame> H264Encoder::encode(const PixelBuffer& picture, std::int64_t pts,
                                                bool forceKeyframe) {
  const x264_param_t& p = state_->param;
  if (picture.format() != PixelFormat::i420 || picture.width() != p.i_width ||
      picture.height() != p.i_height)
    return std::nullopt;
  x264_picture_t in;
  x264_picture_init(&in);
  in.img.i_csp = X264_CSP_I420;
  in.img.i_plane = 3;
  for (int plane = 0; plane < 3; ++plane) {
    in.img.plane[plane] = const_cast<std::uint8_t*>(picture.data(plane));
    in.img.i_stride[plane] = picture.stride(plane);
  }
  in.i_pts = pts;
  in.i_type = forceKeyframe ? X264_TYPE_IDR : X264_TYPE_AUTO;
  x264_picture_t out;
  x264_nal_t* nals = nullptr;
  int count = 0;
  const int bytes = x264_encoder_encode(state_->encoder, &nals, &count, &in, &out);
  if (bytes < 0) return std::nullopt;
  EncodedFrame frame;
  frame.keyframe = out.b_keyframe != 0;
  frame.pts = out.i_pts;
  // With 4-byte lengths the payloads are laid end to end already.
  if (bytes > 0) frame.nals.assign(nals[0].p_payload, nals[0].p_payload + bytes);
  return frame;
}

bool H264Encoder::setBitrate(std::int64_t bitsPerSecond) {
  x264_param_t p = state_->param;
  applyRate(p, bitsPerSecond);
  if (x264_encoder_reconfig(state_->encoder, &p) < 0) return false;
  state_->param = p;
  return true;
}

// ---- AAC --------------------------------------------------------------------------------------

struct AACEncoder::State {
  AVCodecContext* context = nullptr;
  AVFrame* frame = nullptr;
  AVPacket* packet = nullptr;
  int channels = 2;
  ~State() {
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&context);
  }
};

AACEncoder::AACEncoder(std::unique_ptr<State> state) : state_(std::move(state)) {}
AACEncoder::~AACEncoder() = default;

std::optional<std::array<std::uint8_t, 2>> AACEncoder::audioSpecificConfig(int rate, int channels) {
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  int index = -1;
  for (int i = 0; i < 13; ++i)
    if (kRates[i] == rate) index = i;
  if (index < 0 || channels < 1 || channels > 7) return std::nullopt;
  return std::array<std::uint8_t, 2>{std::uint8_t(0x10 | (index >> 1)),
                                     std::uint8_t(((index & 1) << 7) | (channels << 3))};
}

std::unique_ptr<AACEncoder> AACEncoder::make(int rate, int channels, std::int64_t bitrate,
                                             std::string& error) {
  // The library's chatter would go to standard error; only its errors matter here.
  static const bool quiet = [] {
    av_log_set_level(AV_LOG_ERROR);
    return true;
  }();
  (void)quiet;
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (!codec) {
    error = "no AAC encoder";
    return nullptr;
  }
  auto state = std::make_unique<State>();
  state->channels = channels;
  state->context = avcodec_alloc_context3(codec);
  state->frame = av_frame_alloc();
  state->packet = av_packet_alloc();
  if (!state->context || !state->frame || !state->packet) {
    error = "no memory for the AAC encoder";
    return nullptr;
  }
  AVCodecContext* c = state->context;
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->sample_rate = rate;
  c->bit_rate = bitrate;
  c->profile = FF_PROFILE_AAC_LOW;
  av_channel_layout_default(&c->ch_layout, channels);
  if (const int e = avcodec_open2(c, codec, nullptr); e < 0) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(e, text, sizeof text);
    error = text;
    return nullptr;
  }
  AVFrame* f = state->frame;
  f->format = AV_SAMPLE_FMT_FLTP;
  f->sample_rate = rate;
  f->nb_samples = kFrames;
  av_channel_layout_copy(&f->ch_layout, &c->ch_layout);
  if (av_frame_get_buffer(f, 0) < 0) {
    error = "no memory for the AAC encoder";
    return nullptr;
  }
  return std::unique_ptr<AACEncoder>(new AACEncoder(std::move(state)));
}

std::optional<std::vector<std::uint8_t>> AACEncoder::encode(const float* const* planes,
                                                            std::string& error) {
  State& s = *state_;
  if (av_frame_make_writable(s.frame) < 0) {
    error = "the AAC frame is busy";
    return std::nullopt;
  }
  for (int ch = 0; ch < s.channels; ++ch)
    std::memcpy(s.frame->data[ch], planes[ch], sizeof(float) * kFrames);
  auto failed = [&error](int e) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(e, text, sizeof text);
    error = text;
    return std::nullopt;
  };
  if (const int e = avcodec_send_frame(s.context, s.frame); e < 0) return failed(e);
  std::vector<std::uint8_t> packet;
  const int e = avcodec_receive_packet(s.context, s.packet);
  if (e == AVERROR(EAGAIN)) return packet;  // still filling up
  if (e < 0) return failed(e);
  packet.assign(s.packet->data, s.packet->data + s.packet->size);
  av_packet_unref(s.packet);
  return packet;
}

}  // namespace qvn
