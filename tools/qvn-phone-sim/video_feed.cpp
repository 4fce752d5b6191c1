#include "video_feed.h"

#include <algorithm>
#include <cmath>

#include "frame_code.h"
#include "sim_log.h"

namespace qvn {
namespace {

constexpr double kClimbAfterSeconds = 2;
constexpr size_t kLoopsKept = 4;

std::string sizeText(int width, int height) {
  return std::to_string(width) + "x" + std::to_string(height);
}

}  // namespace

VideoFeed::VideoFeed(Settings settings, std::unique_ptr<FrameLog> frameLog, Sink sink,
                     std::function<void(const std::string&)> onFailure)
    : settings_(std::move(settings)),
      sink_(std::move(sink)),
      onFailure_(std::move(onFailure)),
      frameLog_(std::move(frameLog)),
      queue_(std::make_unique<SerialQueue>("io.quorvane.phone-sim.video")),
      loopQueue_(
          std::make_unique<SerialQueue>("io.quorvane.phone-sim.loop", QueuePriority::utility)) {}

VideoFeed::~VideoFeed() {
  stopping_ = true;
  queue_->sync([this] { ticks_.cancel(); });
  loopQueue_.reset();  // a loop being encoded gives up at its next frame
  queue_.reset();
}

void VideoFeed::prepare() {
  if (settings_.loop) queue_->async([this] { encodeMissingLoop(); });
}

void VideoFeed::start() {
  queue_->async([this] {
    if (started_) return;
    started_ = true;
    ticks_ = RepeatingTimer(*queue_, 1.0 / settings_.fps, [this] { tick(); });
  });
}

void VideoFeed::setLook(const CameraLook& look) {
  queue_->async([this, look] {
    look_ = look;
    if (settings_.loop) encodeMissingLoop();
  });
}

VideoFeed::Size VideoFeed::sizeNow() const {
  if (settings_.climb && (!firstSentAt_ || queue_->now() - *firstSentAt_ < kClimbAfterSeconds))
    return {(settings_.width / 2) & ~1, (settings_.height / 2) & ~1};
  return {settings_.width, settings_.height};
}

H264Settings VideoFeed::encoderSettings(Size size) const {
  // The small picture gets the bitrate in proportion, as a phone's estimate still climbing.
  const bool full = size.width == settings_.width;
  return {size.width, size.height, settings_.fps, full ? settings_.bitrate : settings_.bitrate / 3,
          ""};
}

void VideoFeed::tick() {
  if (failed_) return;
  const Size size = sizeNow();
  if (settings_.loop)
    sendLooped(size);
  else
    sendLive(size);
}

void VideoFeed::sendLive(Size size) {
  if (!encoder_ || !(encoderSize_ == size)) {
    std::string error;
    encoder_ = H264Encoder::make(encoderSettings(size), error);
    picture_ = PixelBuffer::make(PixelFormat::i420, size.width, size.height);
    if (!encoder_ || !picture_) return fail(error.empty() ? "no memory for a picture" : error);
    if (!pattern_) pattern_ = std::make_unique<TestPattern>(settings_.name);
    encoderSize_ = size;
    keyframeWanted_ = true;
  }
  const int cycle = int(std::lround(kCycleSeconds * settings_.fps));
  const std::uint32_t code = (settings_.codeBase + frameNumber_) & kFrameCodeMask;
  pattern_->draw(*picture_, double(frameNumber_ % std::uint32_t(cycle)) / cycle, code, look_);
  auto frame = encoder_->encode(*picture_, encoded_++ * 1000 / settings_.fps,
                                keyframeWanted_.exchange(false));
  if (!frame) return fail("the H.264 encoder failed");
  if (frame->nals.empty()) return;
  send({size.width, size.height, settings_.fps, encoder_->decoderConfiguration()}, *frame, code);
}

void VideoFeed::sendLooped(Size size) {
  if (auto wanted = loopFor(size); wanted && wanted != playing_) {
    playing_ = wanted;
    loopIndex_ = 0;
  }
  if (!playing_) return;  // still encoding the first loop
  // Every loop starts on its IDR: going back there is the keyframe.
  if (keyframeWanted_.exchange(false)) loopIndex_ = 0;
  const std::uint32_t code = (settings_.codeBase + std::uint32_t(loopIndex_)) & kFrameCodeMask;
  send(playing_->format, playing_->frames[loopIndex_], code);
  loopIndex_ = (loopIndex_ + 1) % playing_->frames.size();
}

void VideoFeed::send(const VideoFormat& format, const EncodedFrame& frame, std::uint32_t code) {
  const double pushedAt = monotonicSeconds();
  if (!sink_(format, frame)) return;
  if (frameLog_) frameLog_->write(code, pushedAt);
  const Size size{format.width, format.height};
  if (!firstSentAt_) firstSentAt_ = queue_->now();
  if (!lastSize_)
    SimLog::line("first frame sent: " + sizeText(size.width, size.height) + ", code " +
                 std::to_string(code) + (settings_.loop ? ", looped" : ", live"));
  else if (!(*lastSize_ == size))
    SimLog::line("picture size now " + sizeText(size.width, size.height));
  lastSize_ = size;
  ++frameNumber_;
}

std::shared_ptr<const EncodedLoop> VideoFeed::loopFor(Size size) const {
  for (const auto& loop : loops_)
    if (loop->format.width == size.width && loop->format.height == size.height &&
        loop->look == look_)
      return loop;
  return nullptr;
}

// One loop at a time, always the one needed soonest for the latest look: a zoom slider
// dragged across costs one loop per finished encode, not one per step.
void VideoFeed::encodeMissingLoop() {
  if (encodingLoop_ || failed_ || stopping_) return;
  std::vector<Size> needed = {sizeNow()};
  if (settings_.climb) needed.push_back({settings_.width, settings_.height});
  const auto missing =
      std::find_if(needed.begin(), needed.end(), [this](Size size) { return !loopFor(size); });
  if (missing == needed.end()) return;
  encodingLoop_ = true;
  loopQueue_->async([this, encoder = encoderSettings(*missing), look = look_] {
    if (stopping_) return;
    if (!loopPattern_) loopPattern_ = std::make_unique<TestPattern>(settings_.name);
    const double began = monotonicSeconds();
    std::string error;
    auto loop = encodeLoop(encoder, look, *loopPattern_, stopping_, error, settings_.codeBase);
    const double took = monotonicSeconds() - began;
    queue_->async([this, loop, error, took] {
      encodingLoop_ = false;
      if (stopping_) return;
      if (!loop) return fail(error);
      SimLog::line("loop ready: " + sizeText(loop->format.width, loop->format.height) + ", " +
                   std::to_string(loop->frames.size()) + " frames encoded in " +
                   std::to_string(int(took * 1000)) + " ms");
      loops_.push_back(loop);
      // The oldest loops go, never the one playing.
      while (loops_.size() > kLoopsKept) {
        auto old = std::find_if(loops_.begin(), loops_.end(),
                                [this](const auto& l) { return l != playing_; });
        loops_.erase(old);
      }
      encodeMissingLoop();
    });
  });
}

void VideoFeed::fail(const std::string& error) {
  if (failed_) return;
  failed_ = true;
  ticks_.cancel();
  if (onFailure_) onFailure_(error);
}

}  // namespace qvn
