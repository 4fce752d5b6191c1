#include "golive/rtmp_publisher.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "audio/audio_engine.h"
#include "golive/flv_messages.h"
#include "golive/go_live_format.h"
#include "platform/pixel_convert.h"
#include "support/qvn_log.h"
#include "video/frame_hub.h"

namespace qvn {

namespace {

constexpr const char* kBusName = "golive";
constexpr int kAudioRate = 48000;

std::string kbps(std::int64_t bitsPerSecond) {
  return std::to_string(bitsPerSecond / 1000);
}

std::uint32_t milliseconds(double seconds) {
  return seconds <= 0 ? 0 : std::uint32_t(std::llround(seconds * 1000));
}

}  // namespace

// ---- Rules ---------------------------------------------------------------------------------

std::uint32_t RTMPPublisher::videoMilliseconds(double pts, double videoZero) {
  return milliseconds(pts - videoZero);
}

std::uint32_t RTMPPublisher::audioMilliseconds(std::int64_t startFrame, std::int64_t originFrame,
                                               double videoZero) {
  return milliseconds(double(startFrame - originFrame) / kAudioRate - videoZero);
}

std::optional<double> RTMPPublisher::reconnectDelay(int attempt) {
  if (attempt > kMostReconnects) return std::nullopt;
  return std::min(std::pow(2.0, attempt - 1), 16.0);
}

std::int64_t RTMPPublisher::bitrateFor(std::int64_t bitrate, int height, bool chosen) {
  constexpr std::int64_t k720Ceiling = 4'000'000;
  return chosen && height <= 720 ? std::min(bitrate, k720Ceiling) : bitrate;
}

void RTMPPublisher::setPreferredSize(std::optional<std::pair<int, int>> size) {
  std::lock_guard hold(preferredLock_);
  preferredSize_ = size;
}

long RTMPPublisher::networkDrops() const {
  auto sample = latestSample();
  return sample ? sample->networkDrops : 0;
}

std::optional<QvnPublishSample> RTMPPublisher::latestSample() const {
  std::lock_guard hold(sampleLock_);
  return latestSample_;
}

// ---- Life ------------------------------------------------------------------------------------

std::shared_ptr<RTMPPublisher> RTMPPublisher::make(Sources sources) {
  return std::shared_ptr<RTMPPublisher>(new RTMPPublisher(std::move(sources)));
}

RTMPPublisher::RTMPPublisher(Sources sources)
    : sources_(std::move(sources)),
      // The encoder is made on this queue and its threads take the queue's priority: below
      // the mix and the sound, which must never wait for the stream. A late picture here is
      // replaced by the next; the mix's tick can't be.
      queue_(std::make_unique<SerialQueue>("io.quorvane.camera.golive", QueuePriority::utility)) {}

RTMPPublisher::~RTMPPublisher() {
  queue_->sync([this] { stopOnQueue(); });
  // Jobs hold the publisher only while they run, so the last reference may go inside one.
  SerialQueue::release(std::move(queue_));
}

bool RTMPPublisher::start(const std::string& ingestURL, const std::string& streamKey, int slot,
                          const StreamConfig& config) {
  bool started = false;
  queue_->sync([&] { started = startOnQueue(ingestURL, streamKey, slot, config); });
  return started;
}

void RTMPPublisher::stop() {
  queue_->sync([this] { stopOnQueue(); });
}

void RTMPPublisher::status(const std::string& text) {
  if (onStatus) onStatus(text);
}

std::int64_t RTMPPublisher::audioBitrate() const {
  return liveConfig_ ? liveConfig_->audioBitrate : 128'000;
}

bool RTMPPublisher::startOnQueue(const std::string& url, const std::string& key, int slot,
                                 const StreamConfig& config) {
  // 1-2
  stopOnQueue();
  stopping_ = false;
  startedAt_ = monotonicTime();
  originFrame_ = sources_.audio ? sources_.audio->mix().streamFrames() : 0;
  videoZeroSeconds_.reset();
  lastVideoMs_.reset();
  sentHeader_ = sentAudioHeader_ = false;
  pcmQueue_.clear();
  queuedFrames_ = 0;
  audioQueueDrops_ = 0;
  // 3
  std::string error;
  aac_ = AACEncoder::make(kAudioRate, 2, std::max<std::int64_t>(config.audioBitrate, 1), error);
  if (!aac_) {
    status("Could not start the AAC encoder");
    QvnLog::line("golive AAC encoder prepare failed");
    return false;
  }
  // 4-6
  const auto canvas = sources_.canvasSize ? sources_.canvasSize() : std::pair{1920, 1080};
  std::optional<std::pair<int, int>> chosen;
  {
    std::lock_guard hold(preferredLock_);
    chosen = preferredSize_;
  }
  const auto [width, height] = GoLiveFormat::outputSize(config, canvas, chosen);
  const int fps = std::min(config.fps, 30);
  const std::int64_t bitrate = bitrateFor(config.videoBitrate, height, chosen.has_value());
  if (bitrate != config.videoBitrate)
    QvnLog::line("golive 720p output → bitrate " + kbps(config.videoBitrate) + " → " +
                 kbps(bitrate) + " kbps");
  if (width < 2 || height < 2 || fps < 1 || bitrate < 1) {
    status("stream_config produced unusable encoder settings");
    QvnLog::line("golive encoder settings rejected after ceiling " + std::to_string(width) + "×" +
                 std::to_string(height) + " @" + std::to_string(fps) + " " +
                 std::to_string(bitrate) + "bps");
    aac_.reset();
    return false;
  }
  // 7-8: Main profile, no reordering, a keyframe at least every two seconds, real time.
  const H264Settings settings{width, height, fps, bitrate, ""};
  encoder_ = sources_.makeEncoder ? sources_.makeEncoder(settings, error)
                                  : H264Encoder::make(settings, error);
  if (!encoder_) {
    status("Could not start the H.264 encoder");
    QvnLog::line("golive H.264 encoder failed: " + error);
    aac_.reset();
    return false;
  }
  width_ = width;
  height_ = height;
  fps_ = fps;
  // 9
  currentBitrate_ = targetBitrate_ = bitrate;
  ingestURL_ = url;
  streamKey_ = key;
  liveSlot_ = slot;
  liveConfig_ = config;
  reconnectAttempt_ = 0;
  droppedVideoFrames_ = framesSubmitted_ = encoderDrops_ = reconnectCount_ = 0;
  encodedVideoBytes_ = 0;
  {
    std::lock_guard hold(sampleLock_);
    latestSample_.reset();
  }
  // 10-11
  openSocket();
  lastEncodeTime_ = lastForcedKeyframe_ = 0;
  lastKeyframePts_.reset();
  timing_.reset();
  {
    std::lock_guard hold(mailboxLock_);
    nextFrame_.reset();
    replacedPictures_ = 0;
  }
  // 12
  std::weak_ptr<RTMPPublisher> weak = weak_from_this();
  if (sources_.frames)
    sources_.frames->setMixListener([weak](const PixelBufferRef& buffer) {
      if (auto self = weak.lock()) self->offer(buffer);
    });
  // 13
  healthTimer_ = RepeatingTimer(*queue_, 1.0, [weak] {
    if (auto self = weak.lock()) self->takeSample();
  });
  // 14
  if (sources_.audio)
    sources_.audio->addBusConsumer(kBusName,
                                   [weak](const std::vector<float>& block, std::int64_t position) {
                                     auto self = weak.lock();
                                     if (!self) return;
                                     self->queue_->async([weak, block, position] {
                                       if (auto publisher = weak.lock())
                                         publisher->enqueueAudio(block, position);
                                     });
                                   });
  // 15
  QvnLog::line("golive rate control: average with 1 s cap");
  QvnLog::line("Go Live start " + url + " key=" + (key.empty() ? "none" : "set") +
               " slot=" + std::to_string(slot) + " " + std::to_string(width) + "×" +
               std::to_string(height) + " @" + std::to_string(fps) + "fps " + kbps(bitrate) +
               "kbps audio=" + kbps(config.audioBitrate) +
               "kbps originFrame=" + std::to_string(originFrame_) +
               " canvas=" + std::to_string(canvas.first) + "×" + std::to_string(canvas.second) +
               " ceiling=" + std::to_string(config.width) + "×" + std::to_string(config.height));
  return true;
}

void RTMPPublisher::stopOnQueue() {
  stopping_ = true;
  reconnectWork_.cancel();
  if (sources_.audio && aac_) sources_.audio->addBusConsumer(kBusName, nullptr);
  if (sources_.frames && encoder_) sources_.frames->setMixListener(nullptr);
  {
    std::lock_guard hold(mailboxLock_);
    nextFrame_.reset();
  }
  healthTimer_.cancel();
  {
    std::lock_guard hold(sampleLock_);
    latestSample_.reset();
  }
  sentBytesTotal_ = 0;
  encoder_.reset();
  aac_.reset();
  if (rtmp_) rtmp_->close();
  rtmp_.reset();
  sentHeader_ = sentAudioHeader_ = false;
  pcmQueue_.clear();
  queuedFrames_ = 0;
  videoZeroSeconds_.reset();
}

void RTMPPublisher::setLiveBitrate(std::int64_t bitsPerSecond) {
  queue_->async([weak = weak_from_this(), bitsPerSecond] {
    auto self = weak.lock();
    if (!self || !self->encoder_) return;
    const std::int64_t old = self->currentBitrate_;
    self->currentBitrate_ = std::max(bitsPerSecond, kBitrateFloor);
    self->encoder_->setBitrate(self->currentBitrate_);
    if (self->rtmp_)
      self->rtmp_->setStreamRate(
          std::max(self->currentBitrate_ + self->audioBitrate(), kBitrateFloor));
    QvnLog::line("golive bitrate " + kbps(old) + " → " + kbps(self->currentBitrate_) + " kbps");
  });
}

// ---- The socket ------------------------------------------------------------------------------

void RTMPPublisher::openSocket() {
  auto socket = RTMPSocket::make();
  std::weak_ptr<RTMPPublisher> weak = weak_from_this();
  auto onQueue = [weak](auto work) {
    if (auto self = weak.lock())
      self->queue_->async([weak, work] {
        if (auto publisher = weak.lock()) work(*publisher);
      });
  };
  std::weak_ptr<RTMPSocket> which = socket;
  // Each callback checks it still speaks for the socket of the moment.
  socket->onReady = [onQueue, which] {
    onQueue([which](RTMPPublisher& p) {
      if (p.rtmp_ != which.lock()) return;
      p.reconnectAttempt_ = 0;
      p.status("Publishing to Quorvane");
      if (p.onPublished) p.onPublished();
      p.flushAudio();
    });
  };
  socket->onFailed = [onQueue, which](const std::string& reason) {
    onQueue([which, reason](RTMPPublisher& p) {
      if (p.rtmp_ == which.lock()) p.handleDisconnect(reason);
    });
  };
  socket->onDroppedFrame = [onQueue] {
    onQueue([](RTMPPublisher& p) { ++p.droppedVideoFrames_; });
  };
  rtmp_ = socket;
  socket->setStreamRate(std::max(currentBitrate_ + audioBitrate(), kBitrateFloor));
  socket->connect(ingestURL_, streamKey_);
}

void RTMPPublisher::handleDisconnect(const std::string& reason) {
  if (stopping_) return;
  // 1: each new socket starts with both sequence headers; the timeline goes on.
  if (rtmp_) sentBytesTotal_ += rtmp_->sendCounters().sent;
  rtmp_.reset();
  sentHeader_ = sentAudioHeader_ = false;
  // 2-4
  ++reconnectAttempt_;
  ++reconnectCount_;
  const auto wait = sources_.reconnectWait ? sources_.reconnectWait(reconnectAttempt_)
                                           : reconnectDelay(reconnectAttempt_);
  if (!wait) {
    QvnLog::line("golive ingest lost after 5 reconnects (" + reason + ")");
    status("ingest lost");
    if (onFatal) onFatal("ingest lost");
    return;
  }
  const double delay = *wait;
  status("ingest lost — reconnecting");
  if (onReconnecting) onReconnecting();
  char seconds[16];
  std::snprintf(seconds, sizeof seconds, "%.1f", delay);
  QvnLog::line("golive reconnect " + std::to_string(reconnectAttempt_) + "/5 in " + seconds +
               "s slot=" + std::to_string(liveSlot_) + " (" + reason + ")");
  reconnectWork_ = DelayedWork::schedule(*queue_, delay, [weak = weak_from_this()] {
    if (auto self = weak.lock(); self && !self->stopping_) self->openSocket();
  });
}

// ---- Pictures --------------------------------------------------------------------------------

// The mix queue's side: one lock, at most one job, and only the newest picture ever waits.
void RTMPPublisher::offer(const PixelBufferRef& buffer) {
  bool wasEmpty;
  {
    std::lock_guard hold(mailboxLock_);
    wasEmpty = !nextFrame_;
    if (!wasEmpty) ++replacedPictures_;
    nextFrame_ = buffer;
    nextMade_ = monotonicTime();
  }
  if (wasEmpty)
    queue_->async([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->takeFromMailbox();
    });
}

RTMPPublisher::VideoGate RTMPPublisher::videoGate(std::optional<std::uint32_t> lastMs,
                                                  std::uint32_t ms, bool keyframe,
                                                  bool waitingForKeyframe, bool backlogged) {
  // Without its keyframe the pictures after it can't be shown, so they wait for the next.
  if (lastMs && ms <= *lastMs) return {false, waitingForKeyframe || keyframe};
  if (keyframe) return {true, false};
  if (waitingForKeyframe || backlogged) return {false, true};
  return {true, false};
}

void RTMPPublisher::takeFromMailbox() {
  PixelBufferRef buffer;
  double made;
  {
    std::lock_guard hold(mailboxLock_);
    buffer = std::move(nextFrame_);
    made = nextMade_;
  }
  if (!buffer) return;
  if (fps_ < 30 && lastEncodeTime_ > 0 && made - lastEncodeTime_ < 0.75 / std::max(fps_, 1)) return;
  lastEncodeTime_ = made;
  encode(buffer, made);
}

// Program as the encoder takes it: scaled to the output size if it differs, then to I420.
PixelBufferRef RTMPPublisher::toI420(const PixelBufferRef& bgra) {
  PixelBufferRef picture = bgra;
  if (picture->width() != width_ || picture->height() != height_) {
    auto scaled = scaledPool_.make(width_, height_);
    if (!scaled || !scaleBGRA(*picture, *scaled)) return nullptr;
    picture = std::move(scaled);
  }
  auto i420 = i420Pool_.make(width_, height_);
  if (!i420 || !bgraToI420(*picture, *i420)) return nullptr;
  return i420;
}

void RTMPPublisher::encode(const PixelBufferRef& buffer, double made) {
  if (!encoder_) return;
  // 1
  ++framesSubmitted_;
  const double now = monotonicTime();
  const double pts = now - startedAt_;
  // 2: once the backlog is gone, a keyframe lets video resume at once.
  bool forceKeyframe = false;
  if (rtmp_ && rtmp_->droppingPFrames && rtmp_->backlogSeconds(now) < 0.5 &&
      now - lastForcedKeyframe_ > 1.0) {
    lastForcedKeyframe_ = now;
    forceKeyframe = true;
    QvnLog::line("golive queue drained — keyframe requested to resume video");
  }
  // The encoder counts two seconds in frames; when the mix delivers fewer than the rate,
  // time says when the next keyframe is due.
  if (lastKeyframePts_ && pts - *lastKeyframePts_ >= 2.0 - 1.0 / fps_) forceKeyframe = true;
  // 3-4
  const PixelBufferRef picture = toI420(buffer);
  std::optional<EncodedFrame> frame;
  if (picture) frame = encoder_->encode(*picture, std::llround(pts * 90000), forceKeyframe);
  if (!frame || frame->nals.empty()) {
    ++encoderDrops_;
    if (!picture) QvnLog::line("golive frame could not be converted for the encoder");
    return;
  }
  if (frame->keyframe) lastKeyframePts_ = pts;
  publish(*frame, pts, made, now, monotonicTime());
}

bool RTMPPublisher::sampled() const {
  return publishCalls_ < 4 || publishCalls_ % 90 == 0;
}

void RTMPPublisher::publish(const EncodedFrame& frame, double pts, double made, double submitted,
                            double encoded) {
  // 1: frames made while no socket is up are let go.
  ++publishCalls_;
  const std::string head = "golive publish #" + std::to_string(publishCalls_) + ": ";
  if (!rtmp_ || !rtmp_->ready()) {
    if (sampled()) QvnLog::line(head + "dropped, rtmp not ready");
    return;
  }
  // 3
  const std::uint32_t stream = rtmp_->msgStreamId();
  if (!sentHeader_) {
    rtmp_->droppingPFrames = false;
    const auto body = FLVMessage::avcSequenceHeader(encoder_->decoderConfiguration());
    rtmp_->sendMessage(FLVMessage::kVideoType, stream, 0, body, FLVMessage::kVideoChunkStream);
    sentHeader_ = true;
    QvnLog::line("golive sent AVC sequence header (" + std::to_string(body.size()) + " bytes)");
  }
  // 5-6
  encodedVideoBytes_ += std::int64_t(frame.nals.size());
  if (!videoZeroSeconds_) {
    videoZeroSeconds_ = pts;
    char raw[32];
    std::snprintf(raw, sizeof raw, "%.3f", pts);
    QvnLog::line(std::string("golive video timeline origin pts=0 (raw=") + raw +
                 "s) originFrame=" + std::to_string(originFrame_));
    flushAudio();
  }
  // 7-8
  const std::uint32_t ms = videoMilliseconds(pts, *videoZeroSeconds_);
  const double now = monotonicTime();
  const bool backlogged =
      rtmp_->sendCounters().pending > kBacklogBytes || rtmp_->backlogSeconds(now) > 2.0;
  const VideoGate gate =
      videoGate(lastVideoMs_, ms, frame.keyframe, rtmp_->droppingPFrames, backlogged);
  rtmp_->droppingPFrames = gate.waitForKeyframe;
  if (gate.send) {
    rtmp_->sendMessage(FLVMessage::kVideoType, stream, ms,
                       FLVMessage::avcFrame(frame.keyframe, frame.nals),
                       FLVMessage::kVideoChunkStream);
    lastVideoMs_ = ms;
  } else {
    rtmp_->noteDrop();
  }
  // 9
  timing_.add(submitted - made, encoded - submitted, now - encoded);
  if (auto delay = rtmp_->withDelivery([now](const auto& d) { return d.delaySeconds(now); }))
    timing_.addDelivery(*delay);
  if (auto report = timing_.reportIfDue(now)) QvnLog::line(*report);
  // 10
  if (sampled())
    QvnLog::line(head + "sent " + std::to_string(frame.nals.size()) + " bytes keyframe=" +
                 (frame.keyframe ? "true" : "false") + " ts=" + std::to_string(ms));
}

// ---- Health -----------------------------------------------------------------------------------

void RTMPPublisher::takeSample() {
  QvnPublishSample sample;
  sample.time = monotonicTime();
  if (rtmp_) {
    const auto counters = rtmp_->sendCounters();
    sample.publishing = rtmp_->ready();
    sample.pendingBytes = counters.pending;
    sample.backlogSeconds = rtmp_->backlogSeconds(sample.time);
    sample.sentBytes = sentBytesTotal_ + counters.sent;
    rtmp_->withDelivery([&](const QvnDeliveryTracker& d) {
      if (d.seen()) {
        sample.unackedBytes = d.written() - d.acked();
        sample.ackedBytes = d.acked();
      }
      sample.deliverySeconds = d.delaySeconds(sample.time);
      return 0;
    });
  } else {
    sample.sentBytes = sentBytesTotal_;
  }
  sample.framesSubmitted = framesSubmitted_;
  sample.encoderDrops = encoderDrops_;
  sample.networkDrops = droppedVideoFrames_;
  {
    std::lock_guard hold(mailboxLock_);
    sample.replacedPictures = replacedPictures_;
  }
  sample.encodedVideoBytes = encodedVideoBytes_;
  sample.reconnects = reconnectCount_;
  sample.currentBitrate = currentBitrate_;
  sample.targetBitrate = targetBitrate_;
  sample.width = width_;
  sample.height = height_;
  sample.fps = fps_;
  sample.audioBitrate = audioBitrate();
  std::lock_guard hold(sampleLock_);
  latestSample_ = sample;
}

// ---- Sound -----------------------------------------------------------------------------------

void RTMPPublisher::enqueueAudio(std::vector<float> block, std::int64_t startFrame) {
  if (!aac_) return;
  const std::int64_t frames = std::int64_t(block.size() / 2);
  pcmQueue_.push_back({std::move(block), startFrame});
  queuedFrames_ += frames;
  while (queuedFrames_ > kAudioQueueFrames) {
    queuedFrames_ -= std::int64_t(pcmQueue_.front().block.size() / 2);
    pcmQueue_.pop_front();
    ++audioQueueDrops_;
    if (audioQueueDrops_ <= 3 || audioQueueDrops_ % 50 == 0)
      QvnLog::line("golive audio queue overflow — dropped oldest chunk, totalDrops=" +
                   std::to_string(audioQueueDrops_));
  }
  flushAudio();
}

void RTMPPublisher::flushAudio() {
  // 1-3: sound waits for a socket, and for the first picture to fix time zero.
  if (!rtmp_ || !rtmp_->ready() || !aac_) return;
  const std::uint32_t stream = rtmp_->msgStreamId();
  if (!sentAudioHeader_) {
    const auto config = AACEncoder::audioSpecificConfig(kAudioRate, 2);
    if (!config) {
      QvnLog::line("golive AAC sequence header unavailable — not sending audio packets");
      return;
    }
    const auto body = FLVMessage::aacSequenceHeader(*config);
    rtmp_->sendMessage(FLVMessage::kAudioType, stream, 0, body, FLVMessage::kAudioChunkStream);
    sentAudioHeader_ = true;
    QvnLog::line("golive sent AAC sequence header (" + std::to_string(body.size()) + " bytes)");
  }
  if (!videoZeroSeconds_) return;
  // 4
  while (!pcmQueue_.empty()) {
    Pending next = std::move(pcmQueue_.front());
    pcmQueue_.pop_front();
    const int frames = int(next.block.size() / 2);
    queuedFrames_ -= frames;
    if (frames != AACEncoder::kFrames) continue;
    const float* planes[2] = {next.block.data(), next.block.data() + frames};
    std::string error;
    auto packet = aac_->encode(planes, error);
    if (!packet) {
      QvnLog::line("golive AAC encode error: " + error);
      continue;
    }
    if (packet->empty()) continue;
    rtmp_->sendMessage(FLVMessage::kAudioType, stream,
                       audioMilliseconds(next.startFrame, originFrame_, *videoZeroSeconds_),
                       FLVMessage::aacFrame(*packet), FLVMessage::kAudioChunkStream);
  }
}

}  // namespace qvn
