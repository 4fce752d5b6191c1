// The movie writer on libavcodec (libx264, libx265 and its own AAC) and libavformat's MP4 and
// QuickTime muxer, writing through file descriptors of our own so that each fragment reaches
// the disk as soon as the muxer has written it.
extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
}

#include <fcntl.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <system_error>
#include <vector>

#include "platform/codecs.h"
#include "platform/dispatch.h"
#include "platform/movie_writer.h"
#include "platform/pixel_convert.h"

namespace qvn {

namespace fs = std::filesystem;

namespace {

constexpr int kTimescale = MovieWriter::kTimescale;
constexpr int kSoundFrames = 1024;  // AAC's block
// What the copy at finish needs beyond the movie's own size before it is tried.
constexpr std::uintmax_t kSpareBytes = 64u << 20;
// The longest fragment: what a crash may cost beyond the encoder's delay.
constexpr std::int64_t kFragmentMicroseconds = 500'000;

// ---- errors -----------------------------------------------------------------------------------

enum Code {
  kCreate = 1,
  kEncoder,
  kWrite,
  kEncode,
  kEmpty,
  kRemux,
  kRead,
  kUnusable,
  kNoSound,
  kFinished,
};

std::string link(std::string_view domain, long code, std::string_view text) {
  return std::string(domain) + " " + std::to_string(code) + ": " + std::string(text);
}
std::string movieError(Code code, std::string_view text) {
  return link("movie", code, text);
}
std::string posixError(int e) {
  return link("posix", e, std::generic_category().message(e));
}
// libav's codes are negated errno values where the system gave the error.
std::string avError(int e) {
  if (e < 0 && e > -4096) return posixError(-e);
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(e, text, sizeof text);
  return link("libav", e, text);
}
std::string chain(std::string outer, const std::string& inner) {
  return inner.empty() ? outer : outer + " ← " + inner;
}

void quietLibraries() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_level(AV_LOG_ERROR); });
}

fs::path copyPath(const fs::path& movie) {
  return fs::path(movie) += ".copying";
}

// Makes names made or removed in `folder` survive a power cut.
void syncFolder(const fs::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

std::uint64_t bigEndian(const std::uint8_t* p, int bytes) {
  std::uint64_t v = 0;
  for (int i = 0; i < bytes; ++i) v = v << 8 | p[i];
  return v;
}

// Where what a crash left whole of a movie ends: after its last complete top-level box, less
// a fragment header whose media never made it to the disk.
std::int64_t wholeEnd(int fd, std::int64_t size) {
  std::int64_t pos = 0, end = 0;
  while (size - pos >= 8) {
    std::uint8_t header[16];
    const ssize_t got = ::pread(fd, header, sizeof header, pos);
    if (got < 8) break;
    std::uint64_t length = bigEndian(header, 4);
    if (length == 1) {
      if (got < 16) break;
      length = bigEndian(header + 8, 8);
    } else if (length == 0) {
      length = std::uint64_t(size - pos);  // runs to the end of the file
    }
    if (length < 8 || length > std::uint64_t(size - pos)) break;
    if (std::memcmp(header + 4, "moof", 4) != 0) end = pos + std::int64_t(length);
    pos += std::int64_t(length);
  }
  return end;
}

// ---- files ------------------------------------------------------------------------------------

// A file descriptor behind an AVIOContext: written and synced when asked, or read no further
// than a limit.
class FileIO {
 public:
  static std::unique_ptr<FileIO> create(const fs::path& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
      error = posixError(errno);
      return nullptr;
    }
    return made(new FileIO(fd, -1), error);
  }
  // Reads only what a crash left whole.
  static std::unique_ptr<FileIO> openWhole(const fs::path& path, std::string& error) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info {};
    if (fd < 0 || ::fstat(fd, &info) != 0) {
      error = posixError(errno);
      if (fd >= 0) ::close(fd);
      return nullptr;
    }
    return made(new FileIO(fd, wholeEnd(fd, info.st_size)), error);
  }
  ~FileIO() {
    if (io_) av_freep(&io_->buffer);
    avio_context_free(&io_);
    ::close(fd_);
  }
  FileIO(const FileIO&) = delete;
  FileIO& operator=(const FileIO&) = delete;

  AVIOContext* io() const { return io_; }
  // Hands what the context holds to the file, and the file to the disk.
  int sync() {
    avio_flush(io_);
    if (io_->error < 0) return io_->error;
    return ::fdatasync(fd_) == 0 ? 0 : AVERROR(errno);
  }

 private:
  static constexpr int kBuffer = 1 << 16;
  static std::unique_ptr<FileIO> made(FileIO* file, std::string& error) {
    std::unique_ptr<FileIO> owned(file);
    if (owned->io_) return owned;
    error = avError(AVERROR(ENOMEM));
    return nullptr;
  }
  FileIO(int fd, std::int64_t limit) : fd_(fd), limit_(limit) {
    auto* buffer = static_cast<std::uint8_t*>(av_malloc(kBuffer));
    const bool reading = limit >= 0;
    io_ = avio_alloc_context(buffer, kBuffer, reading ? 0 : 1, this, reading ? &read : nullptr,
                             reading ? nullptr : &write, &seek);
    if (!io_) av_free(buffer);
  }
  static int write(void* opaque, std::uint8_t* data, int size) {
    const int fd = static_cast<FileIO*>(opaque)->fd_;
    for (int done = 0; done < size;) {
      const ssize_t n = ::write(fd, data + done, size_t(size - done));
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) return AVERROR(errno);
      done += int(n);
    }
    return size;
  }
  static int read(void* opaque, std::uint8_t* data, int size) {
    auto* self = static_cast<FileIO*>(opaque);
    const off_t at = ::lseek(self->fd_, 0, SEEK_CUR);
    const auto wanted = std::min<std::int64_t>(size, self->limit_ - at);
    if (wanted <= 0) return AVERROR_EOF;
    ssize_t n;
    do n = ::read(self->fd_, data, size_t(wanted));
    while (n < 0 && errno == EINTR);
    if (n < 0) return AVERROR(errno);
    return n == 0 ? AVERROR_EOF : int(n);
  }
  static std::int64_t seek(void* opaque, std::int64_t offset, int whence) {
    auto* self = static_cast<FileIO*>(opaque);
    std::int64_t size = self->limit_;
    if (size < 0) {
      struct stat info {};
      if (::fstat(self->fd_, &info) != 0) return AVERROR(errno);
      size = info.st_size;
    }
    if (whence & AVSEEK_SIZE) return size;
    whence &= ~AVSEEK_FORCE;
    if (whence == SEEK_END) offset += size, whence = SEEK_SET;
    const off_t at = ::lseek(self->fd_, offset, whence);
    return at < 0 ? AVERROR(errno) : at;
  }

  int fd_;
  std::int64_t limit_;
  AVIOContext* io_ = nullptr;
};

struct InputClose {
  void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
struct OutputFree {
  void operator()(AVFormatContext* c) const { avformat_free_context(c); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};

AVFormatContext* makeOutput(MovieContainer container, FileIO& file) {
  AVFormatContext* out = nullptr;
  avformat_alloc_output_context2(&out, nullptr, container == MovieContainer::mov ? "mov" : "mp4",
                                 nullptr);
  if (!out) return nullptr;
  out->pb = file.io();
  out->flags |= AVFMT_FLAG_CUSTOM_IO;
  return out;
}

// Apple's players take HEVC only under this tag, with its parameter sets in the header.
void tagHEVC(AVCodecParameters& p) {
  if (p.codec_id == AV_CODEC_ID_HEVC) p.codec_tag = MKTAG('h', 'v', 'c', '1');
}

struct Copy {
  std::int64_t packets = 0;
  double seconds = 0;
  std::string error;  // empty when the copy is whole and on the disk
};

// Copies the streams of `from`, up to its last whole fragment, into a normal movie at `to`.
Copy remux(const fs::path& from, const fs::path& to, MovieContainer container) {
  Copy copy;
  auto failed = [&copy](std::string error) {
    copy.error = std::move(error);
    return copy;
  };
  std::string error;
  auto source = FileIO::openWhole(from, error);
  if (!source) return failed(error);
  AVFormatContext* opened = avformat_alloc_context();
  if (!opened) return failed(avError(AVERROR(ENOMEM)));
  opened->pb = source->io();
  opened->flags |= AVFMT_FLAG_CUSTOM_IO;
  if (const int e = avformat_open_input(&opened, from.c_str(), nullptr, nullptr); e < 0)
    return failed(avError(e));
  std::unique_ptr<AVFormatContext, InputClose> in(opened);

  auto target = FileIO::create(to, error);
  if (!target) return failed(error);
  std::unique_ptr<AVFormatContext, OutputFree> out(makeOutput(container, *target));
  if (!out) return failed(avError(AVERROR(ENOMEM)));
  std::vector<int> streams(in->nb_streams, -1);
  for (unsigned i = 0; i < in->nb_streams; ++i) {
    const AVStream* s = in->streams[i];
    if (s->codecpar->codec_type != AVMEDIA_TYPE_VIDEO &&
        s->codecpar->codec_type != AVMEDIA_TYPE_AUDIO)
      continue;
    AVStream* o = avformat_new_stream(out.get(), nullptr);
    if (!o || avcodec_parameters_copy(o->codecpar, s->codecpar) < 0)
      return failed(avError(AVERROR(ENOMEM)));
    o->codecpar->codec_tag = 0;
    tagHEVC(*o->codecpar);
    o->time_base = s->time_base;
    streams[i] = o->index;
  }
  if (const int e = avformat_write_header(out.get(), nullptr); e < 0) return failed(avError(e));
  std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
  double first = 1e300, last = -1e300;
  // A fragment's last sample comes without a duration; the muxer would end the track where
  // the last picture starts, and players would never show it. It lasts as long as the one
  // before it.
  std::vector<std::int64_t> lastDts(in->nb_streams, AV_NOPTS_VALUE), step(in->nb_streams, 0);
  // Reading ends at the end of what was whole; a damaged fragment before it ends it too.
  while (av_read_frame(in.get(), packet.get()) >= 0) {
    const auto s = size_t(packet->stream_index);
    const int index = streams[s];
    if (index < 0) {
      av_packet_unref(packet.get());
      continue;
    }
    if (lastDts[s] != AV_NOPTS_VALUE && packet->dts > lastDts[s])
      step[s] = packet->dts - lastDts[s];
    lastDts[s] = packet->dts;
    if (packet->duration <= 0) packet->duration = step[s];
    const AVRational base = in->streams[packet->stream_index]->time_base;
    first = std::min(first, double(packet->pts) * av_q2d(base));
    last = std::max(last, double(packet->pts + packet->duration) * av_q2d(base));
    av_packet_rescale_ts(packet.get(), base, out->streams[index]->time_base);
    packet->stream_index = index;
    packet->pos = -1;
    if (const int e = av_interleaved_write_frame(out.get(), packet.get()); e < 0)
      return failed(avError(e));
    ++copy.packets;
  }
  if (copy.packets == 0) return failed(movieError(kRead, "nothing in it could be read"));
  if (const int e = av_write_trailer(out.get()); e < 0) return failed(avError(e));
  if (const int e = target->sync(); e < 0) return failed(avError(e));
  copy.seconds = last - first;
  return copy;
}

}  // namespace

// ---- the writer -------------------------------------------------------------------------------

// Everything the worker touches. The owner's thread reads only the atomics and the error.
struct MovieWriter::Core {
  MovieSettings settings;
  fs::path path;
  std::unique_ptr<FileIO> file;
  AVFormatContext* out = nullptr;
  AVCodecContext* video = nullptr;
  AVCodecContext* audio = nullptr;
  AVStream* videoStream = nullptr;
  AVStream* audioStream = nullptr;
  AVFrame* picture = av_frame_alloc();
  AVFrame* sound = av_frame_alloc();
  AVPacket* packet = av_packet_alloc();
  // AAC's first packet starts a block before the sound it carries; every time in the file is
  // moved on by that much so that it starts at zero and pictures stay in step with sound.
  std::int64_t shift = 0;
  int soundFill = 0;                      // frames in the block being filled
  std::int64_t soundPts = 0;              // the time of its first frame
  std::optional<std::int64_t> soundNext;  // where the sound handed over so far ends
  std::int64_t syncedAt = 0;              // the muxer's position at the last sync
  std::int64_t packets = 0;               // handed to the muxer
  std::int64_t videoPackets = 0;
  bool closed = false;
  bool marked = false;  // the marker is ours
  std::string noSound;  // why sound was asked for and can't be recorded

  std::atomic<int> queuedPictures{0};
  std::atomic<int> queuedSound{0};
  std::atomic<bool> failed{false};
  std::mutex errorLock;
  std::string error;

  ~Core() {
    avformat_free_context(out);
    file.reset();
    avcodec_free_context(&video);
    avcodec_free_context(&audio);
    av_frame_free(&picture);
    av_frame_free(&sound);
    av_packet_free(&packet);
  }

  bool fail(const std::string& text) {
    std::lock_guard lock(errorLock);
    if (error.empty()) error = text;
    failed = true;
    return false;
  }
  std::string errors() {
    std::lock_guard lock(errorLock);
    return error;
  }

  bool open(std::string& why);
  bool send(AVCodecContext* codec, AVStream* stream, const AVFrame* frame);
  void encodePicture(const PixelBufferRef& picture, std::int64_t pts);
  void encodeSound(const std::vector<std::int16_t>& samples, std::int64_t pts);
  bool pushSound(const std::int16_t* samples, std::int64_t frames);
  void close();
  void finish(const Done& done);
  std::string normalize();
};

namespace {

AVCodecContext* openVideo(const MovieSettings& s, std::string& error) {
  const bool hevc = s.codec == MovieCodec::hevc;
  const char* name = hevc ? "libx265" : "libx264";
  const AVCodec* codec = avcodec_find_encoder_by_name(name);
  if (!codec) {
    error = movieError(kEncoder, std::string("libavcodec has no ") + name);
    return nullptr;
  }
  AVCodecContext* c = avcodec_alloc_context3(codec);
  if (!c) {
    error = avError(AVERROR(ENOMEM));
    return nullptr;
  }
  c->width = s.width;
  c->height = s.height;
  c->pix_fmt = AV_PIX_FMT_YUV420P;
  c->time_base = {1, kTimescale};
  c->framerate = {s.fps, 1};
  c->gop_size = s.keyframeInterval;
  c->max_b_frames = 0;
  // An average with a two-second allowance: room for a cut without starving the next second.
  c->bit_rate = s.videoBitrate;
  c->rc_max_rate = s.videoBitrate;
  c->rc_buffer_size = int(std::min<std::int64_t>(2 * s.videoBitrate, INT32_MAX));
  c->color_range = AVCOL_RANGE_MPEG;
  c->color_primaries = AVCOL_PRI_BT709;
  c->color_trc = AVCOL_TRC_BT709;
  c->colorspace = AVCOL_SPC_BT709;
  c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // parameter sets in the header, as MP4 wants
  c->thread_count = H264Encoder::encoderThreads();
  AVDictionary* options = nullptr;
  // x265 costs several times what x264 does for the same picture: only its fastest preset
  // comes near real time at 1080p. No zero-latency tune: a recording can wait a few pictures,
  // and the look-ahead and frame threads that buys make both encoders cheaper per picture.
  const std::string preset = !s.preset.empty() ? s.preset
                             : hevc            ? "ultrafast"
                                               : H264Encoder::presetFor(s.width, s.height);
  av_dict_set(&options, "preset", preset.c_str(), 0);
  if (hevc)
    av_dict_set(&options, "x265-params", "log-level=error:bframes=0", 0);
  else
    av_dict_set(&options, "profile", "main", 0);
  const int e = avcodec_open2(c, codec, &options);
  av_dict_free(&options);
  if (e < 0) {
    avcodec_free_context(&c);
    error = chain(movieError(kEncoder, std::string("couldn't start ") + name), avError(e));
  }
  return c;
}

AVCodecContext* openAudio(std::string& error) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  AVCodecContext* c = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (!c) {
    error = movieError(kEncoder, "no AAC encoder");
    return nullptr;
  }
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->sample_rate = kTimescale;
  c->bit_rate = 192'000;
  c->profile = FF_PROFILE_AAC_LOW;
  c->time_base = {1, kTimescale};
  c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_channel_layout_default(&c->ch_layout, 2);
  if (const int e = avcodec_open2(c, codec, nullptr); e < 0) {
    avcodec_free_context(&c);
    error = chain(movieError(kEncoder, "couldn't start the AAC encoder"), avError(e));
  }
  return c;
}

AVStream* addStream(AVFormatContext* out, const AVCodecContext* codec) {
  AVStream* s = avformat_new_stream(out, nullptr);
  if (!s || avcodec_parameters_from_context(s->codecpar, codec) < 0) return nullptr;
  tagHEVC(*s->codecpar);
  s->time_base = {1, kTimescale};
  return s;
}

}  // namespace

bool MovieWriter::Core::open(std::string& why) {
  auto refuse = [&why](std::string text) {
    why = std::move(text);
    return false;
  };
  // The encoders first: one that can't start leaves no empty file behind.
  video = openVideo(settings, why);
  if (!video) return false;
  if (settings.audio) {
    std::string reason;
    audio = openAudio(reason);
    // Pictures without their sound rather than no movie: the first sound handed over is
    // refused with the reason, so the owner says it once and stops sending it.
    if (!audio) noSound = chain(movieError(kNoSound, "recording video only"), reason);
  }
  std::string e;
  const std::string create = "couldn't create " + path.string();
  file = FileIO::create(path, e);
  if (!file) return refuse(chain(movieError(kCreate, create), e));
  const fs::path marker = recordingMarker(path);
  const int fd = ::open(marker.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return refuse(chain(movieError(kCreate, create), posixError(errno)));
  ::close(fd);
  marked = true;
  out = makeOutput(settings.container, *file);
  if (!out) return refuse(avError(AVERROR(ENOMEM)));
  // Pictures wait in the muxer for sound of the same time; should sound stop coming, they
  // wait a second, not the ten the library would, before going to the file without it.
  out->max_interleave_delta = AV_TIME_BASE;
  videoStream = addStream(out, video);
  if (!videoStream) return refuse(avError(AVERROR(ENOMEM)));
  videoStream->avg_frame_rate = {settings.fps, 1};
  if (audio) {
    audioStream = addStream(out, audio);
    if (!audioStream) return refuse(avError(AVERROR(ENOMEM)));
    shift = audio->initial_padding;
    sound->format = AV_SAMPLE_FMT_FLTP;
    sound->sample_rate = kTimescale;
    sound->nb_samples = kSoundFrames;
    av_channel_layout_copy(&sound->ch_layout, &audio->ch_layout);
    if (const int r = av_frame_get_buffer(sound, 0); r < 0) return refuse(avError(r));
  }
  // A fragment at each keyframe and at least every half second, each one readable without
  // the ones after it: a crash loses the one being gathered and what the encoder holds.
  AVDictionary* options = nullptr;
  av_dict_set(&options, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
  av_dict_set_int(&options, "frag_duration", kFragmentMicroseconds, 0);
  const int r = avformat_write_header(out, &options);
  av_dict_free(&options);
  if (r < 0) return refuse(chain(movieError(kWrite, "couldn't write the movie"), avError(r)));
  if (const int s = file->sync(); s < 0)
    return refuse(chain(movieError(kWrite, "couldn't write the movie"), avError(s)));
  syncedAt = avio_tell(out->pb);
  syncFolder(path.parent_path());
  return true;
}

bool MovieWriter::Core::send(AVCodecContext* codec, AVStream* stream, const AVFrame* frame) {
  if (const int e = avcodec_send_frame(codec, frame); e < 0)
    return fail(chain(movieError(kEncode, "couldn't encode"), avError(e)));
  for (;;) {
    int e = avcodec_receive_packet(codec, packet);
    if (e == AVERROR(EAGAIN) || e == AVERROR_EOF) return true;
    if (e < 0) return fail(chain(movieError(kEncode, "couldn't encode"), avError(e)));
    if (codec == video) {
      ++videoPackets;
      // The muxer times a picture by the next one; this is for the last.
      if (packet->duration <= 0) packet->duration = kTimescale / settings.fps;
    }
    packet->pts += shift;
    packet->dts += shift;
    av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
    packet->stream_index = stream->index;
    ++packets;
    if ((e = av_interleaved_write_frame(out, packet)) < 0)
      return fail(chain(movieError(kWrite, "couldn't write the movie"), avError(e)));
    // The muxer writes a fragment at a time: each goes to the disk at once, so that a power
    // cut loses only the one being gathered.
    if (avio_tell(out->pb) > syncedAt) {
      if ((e = file->sync()) < 0)
        return fail(chain(movieError(kWrite, "couldn't write the movie"), avError(e)));
      syncedAt = avio_tell(out->pb);
    }
  }
}

void MovieWriter::Core::encodePicture(const PixelBufferRef& p, std::int64_t pts) {
  AVFrame* f = picture;
  f->format = AV_PIX_FMT_YUV420P;
  f->width = p->width();
  f->height = p->height();
  for (int plane = 0; plane < 3; ++plane) {
    f->data[plane] = const_cast<std::uint8_t*>(p->data(plane));
    f->linesize[plane] = p->stride(plane);
  }
  // The encoder holds the pixels by this reference for as long as it needs them: no copy.
  auto* holder = new PixelBufferRef(p);
  f->buf[0] = av_buffer_create(
      f->data[0], 1,
      [](void* opaque, std::uint8_t*) { delete static_cast<PixelBufferRef*>(opaque); }, holder,
      AV_BUFFER_FLAG_READONLY);
  if (!f->buf[0]) {
    delete holder;
    fail(avError(AVERROR(ENOMEM)));
    return;
  }
  f->pts = pts;
  f->color_range = AVCOL_RANGE_MPEG;
  f->color_primaries = AVCOL_PRI_BT709;
  f->color_trc = AVCOL_TRC_BT709;
  f->colorspace = AVCOL_SPC_BT709;
  send(video, videoStream, f);
  av_frame_unref(f);
}

bool MovieWriter::Core::pushSound(const std::int16_t* samples, std::int64_t frames) {
  while (frames > 0) {
    if (soundFill == 0 && av_frame_make_writable(sound) < 0) return fail(avError(AVERROR(ENOMEM)));
    const int take = int(std::min<std::int64_t>(frames, kSoundFrames - soundFill));
    auto* left = reinterpret_cast<float*>(sound->data[0]) + soundFill;
    auto* right = reinterpret_cast<float*>(sound->data[1]) + soundFill;
    for (int i = 0; i < take; ++i) {
      left[i] = samples ? samples[2 * i] * (1.0f / 32768) : 0.0f;
      right[i] = samples ? samples[2 * i + 1] * (1.0f / 32768) : 0.0f;
    }
    if (samples) samples += 2 * take;
    soundFill += take;
    frames -= take;
    if (soundFill == kSoundFrames) {
      sound->pts = soundPts;
      if (!send(audio, audioStream, sound)) return false;
      soundPts += kSoundFrames;
      soundFill = 0;
    }
  }
  return true;
}

void MovieWriter::Core::encodeSound(const std::vector<std::int16_t>& samples, std::int64_t pts) {
  const std::int16_t* s = samples.data();
  std::int64_t frames = std::int64_t(samples.size() / 2);
  if (soundNext) {
    const std::int64_t gap = pts - *soundNext;
    if (gap < 0) {  // overlaps what was written
      if (-gap >= frames) return;
      s -= 2 * gap;
      frames += gap;
      pts -= gap;
    } else if (gap > 0) {
      // A short gap becomes silence so that times run on; after a long one the sound starts
      // afresh at its own time, its last block ended with silence.
      const std::int64_t silence =
          gap <= kTimescale ? gap : (kSoundFrames - soundFill) % kSoundFrames;
      if (!pushSound(nullptr, silence)) return;
    }
  }
  if (soundFill == 0) soundPts = pts;
  if (pushSound(s, frames)) soundNext = pts + frames;
}

void MovieWriter::Core::close() {
  if (closed) return;
  closed = true;
  if (!failed) {
    send(video, videoStream, nullptr);
    if (audio && soundFill > 0) {  // the last block may be short
      sound->nb_samples = soundFill;
      sound->pts = soundPts;
      send(audio, audioStream, sound);
    }
    if (audio && !failed) send(audio, audioStream, nullptr);
  }
  // Even after a failure: the file ends as well as it can.
  if (const int e = av_write_trailer(out); e < 0)
    fail(chain(movieError(kWrite, "couldn't write the movie"), avError(e)));
  if (const int e = file->sync(); e < 0)
    fail(chain(movieError(kWrite, "couldn't write the movie"), avError(e)));
  avformat_free_context(out);
  out = nullptr;
  file.reset();
}

// The fragmented movie copied into a normal one that replaces it. Empty when done, else why it
// stayed fragmented.
std::string MovieWriter::Core::normalize() {
  const std::string stays = "couldn't make a normal movie; it stays fragmented";
  std::error_code sizeError, spaceError;
  const auto size = fs::file_size(path, sizeError);
  const auto space = fs::space(path.parent_path(), spaceError);
  if (!sizeError && !spaceError && space.available < size + kSpareBytes)
    return chain(movieError(kRemux, stays), posixError(ENOSPC));
  const fs::path copying = copyPath(path);
  Copy copy = remux(path, copying, settings.container);
  if (copy.error.empty() && copy.packets != packets)
    copy.error = movieError(kRead, "the copy has " + std::to_string(copy.packets) + " of " +
                                       std::to_string(packets) + " packets");
  if (copy.error.empty() && ::rename(copying.c_str(), path.c_str()) != 0)
    copy.error = posixError(errno);
  if (copy.error.empty()) return {};
  std::error_code ignored;
  fs::remove(copying, ignored);
  return chain(movieError(kRemux, stays), copy.error);
}

void MovieWriter::Core::finish(const Done& done) {
  close();
  if (!failed && videoPackets == 0) fail(movieError(kEmpty, "no pictures were recorded"));
  if (failed) {
    done(false, errors());
    return;
  }
  const std::string note = normalize();
  std::error_code ignored;
  fs::remove(recordingMarker(path), ignored);
  syncFolder(path.parent_path());
  done(true, note);
}

MovieWriter::MovieWriter(std::shared_ptr<Core> core, std::unique_ptr<SerialQueue> worker)
    : core_(std::move(core)), worker_(std::move(worker)) {}

std::unique_ptr<MovieWriter> MovieWriter::create(const fs::path& path, const MovieSettings& s,
                                                 std::string& error) {
  quietLibraries();
  if (s.width < 2 || s.height < 2 || s.width % 2 || s.height % 2 || s.fps < 1 ||
      s.keyframeInterval < 1 || s.videoBitrate < 1) {
    error = movieError(kUnusable, "unusable movie size or rate");
    return nullptr;
  }
  auto core = std::make_shared<Core>();
  if (!core->picture || !core->sound || !core->packet) {
    error = avError(AVERROR(ENOMEM));
    return nullptr;
  }
  core->settings = s;
  std::error_code ec;
  core->path = fs::absolute(path, ec);
  if (ec) core->path = path;
  // The encoder's threads are made as it opens and take the priority of the thread that opens
  // it: the worker's, below the mix and the sound, which must never wait for a movie.
  auto worker = std::make_unique<SerialQueue>("io.quorvane.movie", QueuePriority::utility);
  bool opened = false;
  worker->sync([&] { opened = core->open(error); });
  if (!opened) {
    // A movie that was created stays, whatever it holds, for the error to be looked into; its
    // marker goes, for there is nothing to recover.
    const fs::path made = core->path;
    const bool marked = core->marked;
    core.reset();
    if (marked) fs::remove(recordingMarker(made), ec);
    return nullptr;
  }
  return std::unique_ptr<MovieWriter>(new MovieWriter(std::move(core), std::move(worker)));
}

MovieWriter::~MovieWriter() {
  if (!finishing_) worker_->async([core = core_] { core->close(); });
  // Let go on a thread of its own when the last reference goes in `done`.
  SerialQueue::release(std::move(worker_));
}

bool MovieWriter::readyForVideo() const {
  return !finishing_ && !core_->failed && core_->queuedPictures.load() < kVideoQueue;
}

bool MovieWriter::appendVideo(PixelBufferRef picture, std::int64_t pts, std::string& error) {
  auto refused = [&error](std::string text) {
    error = std::move(text);
    return false;
  };
  if (core_->failed) return refused(core_->errors());
  if (finishing_) return refused(movieError(kFinished, "the movie is finishing"));
  const MovieSettings& s = core_->settings;
  if (!picture || picture->format() != PixelFormat::i420 || picture->width() != s.width ||
      picture->height() != s.height)
    return refused(movieError(kUnusable, "pictures must be I420 of " + std::to_string(s.width) +
                                             "×" + std::to_string(s.height)));
  if (pts <= lastVideoPts_ || core_->queuedPictures.load() >= kVideoQueue) return false;
  lastVideoPts_ = pts;
  ++core_->queuedPictures;
  worker_->async([core = core_, picture = std::move(picture), pts] {
    if (!core->failed) core->encodePicture(picture, pts);
    --core->queuedPictures;
  });
  return true;
}

bool MovieWriter::readyForAudio() const {
  // Without an encoder it says yes, for the sound it is then handed to be refused with why.
  return core_->settings.audio && !finishing_ && !core_->failed &&
         core_->queuedSound.load() < kTimescale;
}

bool MovieWriter::appendAudio(const std::int16_t* interleaved, int frames, std::int64_t pts,
                              std::string& error) {
  auto refused = [&error](std::string text) {
    error = std::move(text);
    return false;
  };
  if (core_->failed) return refused(core_->errors());
  if (!core_->settings.audio) return refused(movieError(kNoSound, "the movie has no sound"));
  if (!core_->noSound.empty()) return refused(core_->noSound);
  if (finishing_) return refused(movieError(kFinished, "the movie is finishing"));
  if (frames <= 0) return true;
  if (core_->queuedSound.load() >= kTimescale) return false;
  core_->queuedSound += frames;
  worker_->async(
      [core = core_,
       samples = std::vector<std::int16_t>(interleaved, interleaved + 2 * std::size_t(frames)), pts,
       frames] {
        if (!core->failed) core->encodeSound(samples, pts);
        core->queuedSound -= frames;
      });
  return true;
}

void MovieWriter::finish(Done done) {
  if (finishing_) {
    worker_->async([done = std::move(done)] {
      done(false, movieError(kFinished, "the movie was finished already"));
    });
    return;
  }
  finishing_ = true;
  worker_->async([core = core_, done = std::move(done)] { core->finish(done); });
}

// ---- recovery ---------------------------------------------------------------------------------

fs::path recordingMarker(const fs::path& movie) {
  return fs::path(movie) += ".recording";
}

MovieRecovery recoverMovie(const fs::path& movie) {
  quietLibraries();
  MovieRecovery result;
  result.path = movie;
  std::error_code ignored;
  const fs::path copying = copyPath(movie);
  fs::remove(copying, ignored);  // a finish cut short
  if (fs::exists(movie, ignored)) {
    std::string extension = movie.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    Copy copy =
        remux(movie, copying, extension == ".mov" ? MovieContainer::mov : MovieContainer::mp4);
    if (copy.error.empty() && ::rename(copying.c_str(), movie.c_str()) != 0)
      copy.error = posixError(errno);
    if (copy.error.empty()) {
      result.outcome = MovieRecovery::Outcome::recovered;
      result.seconds = copy.seconds;
    } else {
      fs::remove(copying, ignored);
      result.outcome = MovieRecovery::Outcome::damaged;
      result.errors =
          chain(movieError(kRead, "couldn't recover " + movie.filename().string()), copy.error);
      const fs::path aside =
          movie.parent_path() / (movie.stem().string() + ".damaged" + movie.extension().string());
      if (::rename(movie.c_str(), aside.c_str()) == 0) result.path = aside;
    }
  }
  fs::remove(recordingMarker(movie), ignored);
  syncFolder(movie.parent_path());
  return result;
}

// ---- pictures ---------------------------------------------------------------------------------

MoviePictureConformer::MoviePictureConformer(int width, int height)
    : width_(width),
      height_(height),
      pictures_(std::make_unique<QvnPixelBufferPool>(PixelFormat::i420, 6)) {}

MoviePictureConformer::~MoviePictureConformer() = default;

PixelBufferRef MoviePictureConformer::conform(const PixelBuffer& src) {
  if (src.format() != PixelFormat::bgra || src.width() <= 1 || src.height() <= 1) return nullptr;
  const PixelBuffer* from = &src;
  if (src.width() != width_ || src.height() != height_) {
    if (!scaled_) scaled_ = PixelBuffer::make(PixelFormat::bgra, width_, height_);
    if (!scaled_) return nullptr;
    if (std::abs(src.width() - width_) <= 1 && std::abs(src.height() - height_) <= 1) {
      // An odd size the movie made even, or one a unit short: scaling would soften the whole
      // picture for one line, so it stays where it is, a missing line repeating its neighbour.
      const int w = std::min(src.width(), width_), h = std::min(src.height(), height_);
      libyuv::ARGBCopy(src.data(), src.stride(), scaled_->data(), scaled_->stride(), w, h);
      if (w < width_)
        for (int y = 0; y < h; ++y)
          std::memcpy(scaled_->bgraAt(w, y), scaled_->bgraAt(w - 1, y), 4);
      if (h < height_)
        std::memcpy(scaled_->bgraAt(0, h), scaled_->bgraAt(0, h - 1), size_t(width_) * 4);
    } else {
      // The largest centred rectangle of the source that has the movie's shape.
      int cropWidth = src.width(), cropHeight = src.height();
      if (std::int64_t(src.width()) * height_ > std::int64_t(src.height()) * width_)
        cropWidth = std::max(1, int(std::int64_t(src.height()) * width_ / height_));
      else
        cropHeight = std::max(1, int(std::int64_t(src.width()) * height_ / width_));
      const int x = (src.width() - cropWidth) / 2, y = (src.height() - cropHeight) / 2;
      if (libyuv::ARGBScale(src.data() + std::ptrdiff_t(y) * src.stride() + x * 4, src.stride(),
                            cropWidth, cropHeight, scaled_->data(), scaled_->stride(), width_,
                            height_, libyuv::kFilterBilinear) != 0)
        return nullptr;
    }
    from = scaled_.get();
  }
  PixelBufferRef picture = pictures_->make(width_, height_);
  if (!picture || !bgraToI420(*from, *picture)) return nullptr;
  return picture;
}

}  // namespace qvn
