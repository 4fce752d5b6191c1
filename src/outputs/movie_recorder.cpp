#include "outputs/movie_recorder.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <future>
#include <utility>

#include "audio/pcm_tap.h"
#include "platform/movie_writer.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

const char* codecName(const RecordOptions& o) {
  return o.codec == "hevc" ? "HEVC" : "H.264";
}
const char* containerName(const RecordOptions& o) {
  return o.container == "mov" ? "MOV" : "MP4";
}

const char* sourceName(RecordAudioSource::Kind kind) {
  switch (kind) {
    case RecordAudioSource::Kind::mix:
      return "mix";
    case RecordAudioSource::Kind::mac:
      return "mac";
    case RecordAudioSource::Kind::camera:
      return "camera";
    case RecordAudioSource::Kind::none:
      return "none";
  }
  return "none";
}

// A tap's buffers are laid end to end on the file's clock while they stay this close to it;
// beyond, the phone's sound paused or drifted, and the next buffer starts where the clock is.
constexpr std::int64_t kMostTapDrift = 4800;

// The platform's movie writer, with its picture conformer at the movie's size.
class MovieFile final : public RecordingWriter {
 public:
  MovieFile(std::unique_ptr<MovieWriter> writer, int width, int height)
      : writer_(std::move(writer)), conformer_(width, height) {}
  bool readyForVideo() const override { return writer_->readyForVideo(); }
  bool appendVideo(PixelBufferRef picture, std::int64_t pts, std::string& error) override {
    return writer_->appendVideo(std::move(picture), pts, error);
  }
  bool readyForAudio() const override { return writer_->readyForAudio(); }
  bool appendAudio(const std::int16_t* interleaved, int frames, std::int64_t pts,
                   std::string& error) override {
    return writer_->appendAudio(interleaved, frames, pts, error);
  }
  void finish(std::function<void(bool, const std::string&)> done) override {
    writer_->finish(std::move(done));
  }
  PixelBufferRef conform(const PixelBuffer& bgra) override { return conformer_.conform(bgra); }

 private:
  std::unique_ptr<MovieWriter> writer_;
  MoviePictureConformer conformer_;
};

}  // namespace

std::unique_ptr<RecordingWriter> MovieRecorder::movieFile(const std::filesystem::path& file,
                                                          const MovieSettings& settings,
                                                          std::string& error) {
  auto writer = MovieWriter::create(file, settings, error);
  if (!writer) return nullptr;
  return std::make_unique<MovieFile>(std::move(writer), settings.width, settings.height);
}

std::shared_ptr<MovieRecorder> MovieRecorder::make(Sources sources) {
  return std::shared_ptr<MovieRecorder>(new MovieRecorder(std::move(sources)));
}

MovieRecorder::MovieRecorder(Sources sources)
    : sources_(std::move(sources)),
      queue_(std::make_unique<SerialQueue>("io.quorvane.camera.record")),
      recoveryQueue_(std::make_unique<SerialQueue>("io.quorvane.camera.record.recover",
                                                   QueuePriority::utility)) {}

MovieRecorder::~MovieRecorder() {
  running_ = false;
  sources_.recordBus(nullptr);
  queue_->sync([] {});
}

std::pair<int, int> MovieRecorder::outputSize(const std::string& size, std::pair<int, int> slot,
                                              std::pair<int, int> canvas) {
  std::pair<int, int> out = size == "hd1080"                      ? std::pair{1920, 1080}
                            : size == "hd720"                     ? std::pair{1280, 720}
                            : slot.first < 16 || slot.second < 16 ? canvas
                                                                  : slot;
  return {out.first - out.first % 2, out.second - out.second % 2};
}

MovieSettings MovieRecorder::settingsFor(const RecordOptions& options, int width, int height,
                                         bool audio) {
  MovieSettings s;
  s.container = options.container == "mov" ? MovieContainer::mov : MovieContainer::mp4;
  s.codec = options.codec == "hevc" ? MovieCodec::hevc : MovieCodec::h264;
  s.width = width;
  s.height = height;
  s.videoBitrate = options.videoBitrate(width, height);
  s.fps = 30;
  s.keyframeInterval = 30;
  s.audio = audio;
  return s;
}

bool MovieRecorder::canRecord(const RecordAudioSource& source, int videoSlot) {
  switch (source.kind) {
    case RecordAudioSource::Kind::mix:
      return true;
    case RecordAudioSource::Kind::camera: {
      const int slot = videoSlot == 0 ? sources_.programSlot() : videoSlot;
      std::lock_guard hold(tapsLock_);
      return phoneTaps_.contains(slot);
    }
    case RecordAudioSource::Kind::mac:  // no microphone capture yet; see the header
    case RecordAudioSource::Kind::none:
      return false;
  }
  return false;
}

std::optional<std::filesystem::path> MovieRecorder::start(
    int videoSlot, RecordAudioSource audio, const RecordOptions& options,
    const std::optional<std::string>& workspace) {
  const std::filesystem::path folder = options.folderOr(sources_.recordingsFolder());
  std::error_code ignored;
  std::filesystem::create_directories(folder, ignored);
  const std::filesystem::path file = folder / options.fileName(workspace, sources_.wallClock());
  if (!startFile(file, videoSlot, audio, options)) return std::nullopt;
  return file;
}

bool MovieRecorder::startFile(const std::filesystem::path& file, int videoSlot,
                              RecordAudioSource audio, const RecordOptions& options) {
  if (running_) stop();
  const auto [width, height] =
      outputSize(options.size, sources_.slotSize(videoSlot), sources_.canvasSize());
  const int audioSlot = videoSlot == 0 ? sources_.programSlot() : videoSlot;
  bool withSound = audio.kind != RecordAudioSource::Kind::none;
  if (withSound && !canRecord(audio, videoSlot)) {
    QvnLog::line(std::string("record: no live audio source for ") + sourceName(audio.kind) +
                 " at slot " + std::to_string(audioSlot) +
                 " — recording video-only instead of risking an empty audio track");
    withSound = false;
  }
  const MovieSettings settings = settingsFor(options, width, height, withSound);
  std::string error;
  {
    // A recovery running on the queue keeps its hands off this one.
    std::lock_guard hold(currentLock_);
    current_ = file;
  }
  auto writer = sources_.makeWriter(file, settings, error);
  if (!writer) {
    QvnLog::line("record start: " + (error.empty() ? std::string("?") : error));
    return false;
  }
  queue_->sync([&] {
    writer_ = std::move(writer);
    hasAudio_ = withSound;
    sessionStarted_ = false;
    clockOrigin_.reset();
    pendingAudio_.clear();
    audioOK_ = true;
    file_ = file;
  });
  frameCount_ = 0;
  videoSlot_ = videoSlot;
  audioSlot_ = audioSlot;
  audioKind_ = withSound ? audio.kind : RecordAudioSource::Kind::none;
  running_ = true;
  connectSound(audio);
  report(true, file);
  char rate[32];
  std::snprintf(rate, sizeof rate, "%g", double(settings.videoBitrate) / 1e6);
  QvnLog::line(std::string("recording ") + codecName(options) + " " + containerName(options) + " " +
               std::to_string(width) + "×" + std::to_string(height) + " @" + rate + "Mbps → " +
               file.filename().string());
  return true;
}

void MovieRecorder::recoverUnfinished(const std::filesystem::path& folder) {
  recoveryQueue_->async([self = shared_from_this(), folder] {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
      const auto& marker = entry.path();
      if (marker.extension() != ".recording") continue;
      const auto movie = marker.parent_path() / marker.stem();
      {
        std::lock_guard hold(self->currentLock_);
        if (self->current_ && std::filesystem::equivalent(*self->current_, movie, error)) continue;
      }
      const auto result = recoverMovie(movie);
      switch (result.outcome) {
        case MovieRecovery::Outcome::recovered:
          QvnLog::line("record recovered " + movie.filename().string() + " (" +
                       std::to_string(int(result.seconds)) + " s)");
          if (self->onRecovered) self->onRecovered(movie.filename().string());
          break;
        case MovieRecovery::Outcome::damaged:
          QvnLog::line("record could not recover " + movie.filename().string() + ": " +
                       result.errors + " — kept as " + result.path.filename().string());
          break;
        case MovieRecovery::Outcome::missing:
          break;
      }
    }
  });
}

void MovieRecorder::connectSound(const RecordAudioSource& audio) {
  if (audio.kind != RecordAudioSource::Kind::mix || audioKind_ == RecordAudioSource::Kind::none) {
    sources_.recordBus(nullptr);
    return;
  }
  sources_.recordBus(
      [weak = weak_from_this()](const std::vector<float>& block, std::int64_t position) {
        auto self = weak.lock();
        if (self && self->running_ && self->audioKind_ == RecordAudioSource::Kind::mix)
          self->appendPCM(block, position);
      });
}

void MovieRecorder::stop() {
  stopThen([] {});
}

void MovieRecorder::stopThen(std::function<void()> finished) {
  sources_.recordBus(nullptr);
  queue_->async([self = shared_from_this(), finished] {
    self->flushPendingAudio(true);
    self->clockOrigin_.reset();
    self->pendingAudio_.clear();
    self->finishOnQueue(finished);
  });
}

bool MovieRecorder::finishBlocking(double seconds) {
  auto done = std::make_shared<std::promise<void>>();
  auto finished = done->get_future();
  stopThen([done] { done->set_value(); });
  return finished.wait_for(std::chrono::duration<double>(seconds)) == std::future_status::ready;
}

// One phone's sound on its way to the movie; used on that phone's audio thread only.
struct MovieRecorder::TapFeed {
  int slot = 0;
  PCMConverter converter;
  std::optional<std::int64_t> next;  // where its next buffer starts on the file's clock
};

void MovieRecorder::attachTap(std::shared_ptr<PCMTap> tap, int slot) {
  if (!tap) return detachTap(slot);
  auto feed = std::make_shared<TapFeed>();
  feed->slot = slot;
  tap->setConsumer([weak = weak_from_this(), feed](const PCMView& pcm) {
    if (auto self = weak.lock()) self->takeTapPCM(*feed, pcm);
  });
  std::shared_ptr<PCMTap> replaced;
  {
    std::lock_guard hold(tapsLock_);
    replaced = std::exchange(phoneTaps_[slot], tap);
  }
  if (replaced && replaced != tap) replaced->setConsumer(nullptr);
}

void MovieRecorder::detachTap(int slot) {
  std::shared_ptr<PCMTap> tap;
  {
    std::lock_guard hold(tapsLock_);
    if (auto it = phoneTaps_.find(slot); it != phoneTaps_.end()) {
      tap = std::move(it->second);
      phoneTaps_.erase(it);
    }
  }
  if (tap) tap->setConsumer(nullptr);
}

// The phone's audio thread: its sound brought to the movie's format and placed on the clock.
void MovieRecorder::takeTapPCM(TapFeed& feed, const PCMView& pcm) {
  if (!running_ || audioKind_ != RecordAudioSource::Kind::camera || audioSlot_ != feed.slot) {
    feed.next.reset();
    return;
  }
  int frames = 0;
  const float* samples = feed.converter.convert(pcm, frames);
  if (!samples || frames <= 0) return;
  const std::int64_t now = sources_.clock();
  if (!feed.next || std::abs(*feed.next - now) > kMostTapDrift) feed.next = now;
  std::vector<float> block(std::size_t(frames) * 2);
  for (std::size_t i = 0; i < std::size_t(frames); ++i) {
    block[i] = samples[2 * i];
    block[std::size_t(frames) + i] = samples[2 * i + 1];
  }
  appendPCM(std::move(block), *feed.next);
  *feed.next += frames;
}

void MovieRecorder::followAudioSlot(int slot) {
  queue_->async([self = shared_from_this(), slot] {
    if (self->running_ && self->videoSlot_ == 0) self->audioSlot_ = slot;
  });
}

// The mix queue's part: the stamp is read now, on arrival, not when the queue gets to it.
void MovieRecorder::appendVideo(int slot, const PixelBufferRef& buffer) {
  if (!running_ || slot != videoSlot_ || !buffer) return;
  const std::int64_t stamp = sources_.clock();
  queue_->async([self = shared_from_this(), buffer, stamp] { self->writeVideo(buffer, stamp); });
}

void MovieRecorder::appendPCM(std::vector<float> block, std::int64_t startFrame) {
  queue_->async([self = shared_from_this(), block = std::move(block), startFrame]() mutable {
    self->takePCM(std::move(block), startFrame);
  });
}

void MovieRecorder::ensureSession(std::int64_t stamp) {
  if (sessionStarted_ || !writer_) return;
  clockOrigin_ = stamp;
  sessionStarted_ = true;
}

void MovieRecorder::writeVideo(PixelBufferRef buffer, std::int64_t stamp) {
  if (!running_ || !writer_) return;
  ensureSession(stamp);
  const std::int64_t offset = stamp - *clockOrigin_;
  if (offset < 0) return;
  auto picture = writer_->readyForVideo() ? writer_->conform(*buffer) : nullptr;
  buffer.reset();  // the mix's picture is free once conformed
  std::string error;
  if (picture && writer_->appendVideo(std::move(picture), offset, error)) {
    ++frameCount_;
  } else {
    droppedFrames_.fetch_add(1, std::memory_order_relaxed);
    if (!error.empty()) QvnLog::line("record video append failed: " + error);
  }
  flushPendingAudio(false);
}

void MovieRecorder::takePCM(std::vector<float> block, std::int64_t startFrame) {
  if (!running_ || !audioOK_ || !writer_ || !hasAudio_) return;
  ensureSession(startFrame);
  if (pendingAudio_.size() > kMostPendingAudio)
    pendingAudio_.erase(pendingAudio_.begin(),
                        pendingAudio_.end() - std::ptrdiff_t(kMostPendingAudio));
  pendingAudio_.push_back({std::move(block), startFrame});
  flushPendingAudio(false);
}

void MovieRecorder::flushPendingAudio(bool force) {
  if (!audioOK_ || !writer_ || !hasAudio_ || !sessionStarted_) return;
  std::size_t walked = 0;
  for (; walked < pendingAudio_.size(); ++walked) {
    if (!force && !writer_->readyForAudio()) break;
    const Pending& p = pendingAudio_[walked];
    const std::int64_t offset = p.startFrame - clockOrigin_.value_or(0);
    const int frames = int(p.block.size() / 2);
    if (offset < 0 || frames == 0) continue;
    interleaved_.resize(std::size_t(frames) * 2);
    for (int i = 0; i < frames; ++i)
      for (int c = 0; c < 2; ++c)
        interleaved_[std::size_t(i) * 2 + c] = std::int16_t(
            std::lround(std::clamp(p.block[std::size_t(c) * frames + i], -1.0f, 1.0f) * 32767));
    std::string error;
    if (!writer_->appendAudio(interleaved_.data(), frames, offset, error)) {
      // Sound stops for good; the pictures go on.
      audioOK_ = false;
      QvnLog::line("record audio append failed (continuing video): " + error);
      pendingAudio_.clear();
      return;
    }
  }
  pendingAudio_.erase(pendingAudio_.begin(), pendingAudio_.begin() + std::ptrdiff_t(walked));
}

void MovieRecorder::finishOnQueue(std::function<void()> completion) {
  if (!running_) return completion();
  running_ = false;
  // Kept here until its own thread has finished it: letting go of a writer waits for that.
  finishing_ = std::move(writer_);
  const auto file = file_;
  const long frames = frameCount_;
  sessionStarted_ = false;
  const std::string name = file ? file->filename().string() : std::string("?");
  finishing_->finish([weak = weak_from_this(), file, name, frames, completion](
                         bool ok, const std::string& errors) {
    QvnLog::line("record finished " + name + " status=" + (ok ? "completed" : "failed") +
                 " frames=" + std::to_string(frames) + " " + (errors.empty() ? "ok" : errors));
    if (!ok && file) QvnLog::line("record kept file for inspection: " + file->string());
    if (auto self = weak.lock()) self->report(false, file);
    completion();
  });
}

void MovieRecorder::report(bool running, std::optional<std::filesystem::path> file) {
  if (onState) onState(running, file);
}

}  // namespace qvn
