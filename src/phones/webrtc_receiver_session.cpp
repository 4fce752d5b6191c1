#include "phones/webrtc_receiver_session.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "support/qvn_log.h"
#include "video/frame_hub.h"
#include "video/video_orient.h"

namespace qvn {

namespace {

constexpr double kTrackCheckSeconds = 4;

std::string cam(int slot) {
  return "cam " + std::to_string(slot);
}

std::string valueOr(const StatsReport* report, const std::string& key, const char* missing) {
  if (!report) return missing;
  auto it = report->values.find(key);
  return it == report->values.end() ? missing : it->second;
}

bool isVideo(const StatsReport& report, const StatsReport* codec) {
  if (auto kind = report.values.find("kind"); kind != report.values.end())
    return kind->second == "video";
  const std::string mime = valueOr(codec, "mimeType", "");
  return mime.starts_with("video") || valueOr(codec, "clockRate", "") == "90000";
}

}  // namespace

// ---- Making and ending -----------------------------------------------------------------------

std::shared_ptr<WebRTCReceiverSession> WebRTCReceiverSession::make(int slot, std::string sessionID,
                                                                   std::string deviceName,
                                                                   PhoneSinks sinks) {
  std::shared_ptr<WebRTCReceiverSession> session(new WebRTCReceiverSession(
      slot, std::move(sessionID), std::move(deviceName), std::move(sinks)));
  std::string error;
  session->peer_ =
      WebRTCPeer::make({session->sinks_.localAddress, "qvn-cam" + std::to_string(slot)},
                       session->peerEvents(), error);
  if (!session->peer_) {
    QvnLog::line(cam(slot) + " peer connection not made: " + error);
    return nullptr;
  }
  return session;
}

ReceiverSessionFactory WebRTCReceiverSession::factory(PhoneSinks sinks) {
  return [sinks](int slot, const std::string& sessionID, const std::string& deviceName) {
    return std::static_pointer_cast<ReceiverSession>(make(slot, sessionID, deviceName, sinks));
  };
}

WebRTCReceiverSession::WebRTCReceiverSession(int slot, std::string sessionID,
                                             std::string deviceName, PhoneSinks sinks)
    : slot_(slot),
      sessionID_(std::move(sessionID)),
      deviceName_(std::move(deviceName)),
      sinks_(std::move(sinks)),
      tap_(std::make_shared<PhoneAudioTap>(slot, sinks_.sound)),
      ingestQueue_(std::make_unique<SerialQueue>("io.quorvane.camera.ingest",
                                                 QueuePriority::userInteractive)) {}

WebRTCReceiverSession::~WebRTCReceiverSession() {
  close();
  // The last reference may go in one of the queue's own jobs.
  SerialQueue::release(std::move(ingestQueue_));
}

void WebRTCReceiverSession::close() {
  if (closed_.exchange(true)) return;
  std::shared_ptr<RemoteAudioTrack> hadAudio;
  {
    std::lock_guard hold(stateLock_);
    videoTrack_.reset();
    hadAudio = std::move(audioTrack_);
    videoNow_ = nullptr;
    audioNow_ = nullptr;
  }
  if (hadAudio && onAudioTrack) onAudioTrack(nullptr);
  if (peer_) peer_->close();
  // After any picture already on its way in, so the slot ends empty.
  if (sinks_.frames)
    ingestQueue_->async([frames = sinks_.frames, slot = slot_] { frames->clear(slot); });
}

// ---- Negotiation -------------------------------------------------------------------------------

void WebRTCReceiverSession::status(const std::string& text) {
  if (onStatus) onStatus(text);
}

void WebRTCReceiverSession::handleOffer(const std::string& sdp,
                                        std::function<void(std::optional<std::string>)> done) {
  if (closed_) return done(std::nullopt);
  std::weak_ptr<WebRTCReceiverSession> weak = weak_from_this();
  peer_->setRemoteOffer(sdp, [weak, done](std::optional<std::string> error) {
    auto self = weak.lock();
    if (!self || self->closed_) return done(std::nullopt);
    if (error) {
      self->status("Remote SDP: " + *error);
      return done(std::nullopt);
    }
    std::vector<ICECandidate> early;
    {
      std::lock_guard hold(self->stateLock_);
      self->remoteSet_ = true;
      early.swap(self->pendingICE_);
    }
    for (const auto& candidate : early) self->peer_->addCandidate(candidate);
    self->peer_->answer([weak, done](WebRTCPeer::Answer answer) {
      auto session = weak.lock();
      if (!session || session->closed_) return done(std::nullopt);
      if (!answer.sdp) {
        session->status((answer.made ? "Local SDP: " : "Answer failed: ") + answer.error);
        return done(std::nullopt);
      }
      done(answer.sdp);
    });
  });
}

bool WebRTCReceiverSession::isHostCandidate(const std::string& sdpText) {
  return sdpText.find(" typ relay") == std::string::npos &&
         sdpText.find(" typ srflx") == std::string::npos;
}

void WebRTCReceiverSession::addICE(const nlohmann::json& map) {
  if (closed_) return;
  auto field = [&](const char* key) { return map.is_object() ? map.find(key) : map.end(); };
  ICECandidate candidate;
  if (auto it = field("candidate"); it != map.end() && it->is_string()) candidate.candidate = *it;
  if (!isHostCandidate(candidate.candidate)) return;
  if (auto it = field("sdpMLineIndex"); it != map.end() && it->is_number_integer())
    candidate.sdpMLineIndex = it->get<int>();
  if (auto it = field("sdpMid"); it != map.end() && it->is_string()) candidate.sdpMid = *it;
  {
    std::lock_guard hold(stateLock_);
    if (!remoteSet_) {
      pendingICE_.push_back(std::move(candidate));
      return;
    }
  }
  peer_->addCandidate(candidate);
}

void WebRTCReceiverSession::setAudioEnabled(bool on) {
  std::lock_guard hold(stateLock_);
  if (audioTrack_) audioTrack_->setEnabled(on);
}

WebRTCPeer::Events WebRTCReceiverSession::peerEvents() {
  std::weak_ptr<WebRTCReceiverSession> weak = weak_from_this();
  WebRTCPeer::Events events;
  events.localCandidate = [weak](const ICECandidate& candidate) {
    auto self = weak.lock();
    if (!self || self->closed_ || !isHostCandidate(candidate.candidate) || !self->sendICE) return;
    self->sendICE({{"candidate", candidate.candidate},
                   {"sdpMid", candidate.sdpMid ? nlohmann::json(*candidate.sdpMid) : nullptr},
                   {"sdpMLineIndex", candidate.sdpMLineIndex}});
  };
  events.iceState = [weak](const std::string& state) {
    if (auto self = weak.lock()) self->status("ICE " + state);
  };
  events.peerState = [weak](const std::string& state) {
    if (auto self = weak.lock()) self->peerState(state);
  };
  events.trackAdded = [weak](std::shared_ptr<RemoteTrack> track) {
    if (auto self = weak.lock()) self->trackAdded(std::move(track));
  };
  events.picture = [weak](const RemoteTrack& track, DecodedPictureRef picture) {
    if (auto self = weak.lock()) self->picture(track, std::move(picture));
  };
  events.sound = [weak](const RemoteTrack& track, const DecodedSound& sound) {
    if (auto self = weak.lock()) self->sound(track, sound);
  };
  return events;
}

void WebRTCReceiverSession::peerState(const std::string& state) {
  status("Peer " + state);
  // Disconnected may pass; failed and closed end the session.
  if ((state == "failed" || state == "closed") && !closed_) {
    logInboundVideo("peer " + state);
    if (onPeerGone) onPeerGone();
  }
}

void WebRTCReceiverSession::trackAdded(std::shared_ptr<RemoteTrack> track) {
  if (!track || closed_) {
    if (!track) QvnLog::line(cam(slot_) + " onTrack fired with a nil track");
    return;
  }
  std::weak_ptr<WebRTCReceiverSession> weak = weak_from_this();
  if (track->kind() == MediaKind::video) {
    auto video = std::static_pointer_cast<RemoteVideoTrack>(track);
    {
      std::lock_guard hold(stateLock_);
      videoTrack_ = video;
      videoNow_ = video.get();
    }
    if (onVideoTrack) onVideoTrack(video);
    status("Video");
    ingestQueue_->asyncAfter(kTrackCheckSeconds, [weak] {
      auto self = weak.lock();
      if (self && !self->closed_ && !self->firstFrameSeen_)
        QvnLog::line(cam(self->slot_) + " video track but no decoded frames after 4s");
    });
    watchForFirstFrame(0);
    return;
  }
  auto audio = std::static_pointer_cast<RemoteAudioTrack>(track);
  {
    std::lock_guard hold(stateLock_);
    audioTrack_ = audio;
    audioNow_ = audio.get();
  }
  if (onAudioTrack) onAudioTrack(audio);
  status("Audio");
  QvnLog::line(cam(slot_) + " audio track found, enabled=" + (audio->enabled() ? "true" : "false") +
               " — tap attached");
  ingestQueue_->asyncAfter(kTrackCheckSeconds, [weak] {
    auto self = weak.lock();
    if (self && !self->closed_)
      QvnLog::line(cam(self->slot_) +
                   " audio track present but check log above for 'audio tap' first-frame line — "
                   "if missing, no PCM ever arrived");
  });
}

// ---- Pictures ----------------------------------------------------------------------------------

void WebRTCReceiverSession::picture(const RemoteTrack& track, DecodedPictureRef picture) {
  if (closed_ || !picture || &track != videoNow_.load()) return;
  ++framesReceived_;
  bool scheduled;
  {
    std::lock_guard hold(ingestLock_);
    if (latestFrame_) ++framesReplaced_;
    latestFrame_ = std::move(picture);
    scheduled = std::exchange(ingestScheduled_, true);
  }
  if (!scheduled)
    ingestQueue_->async([weak = weak_from_this()] {
      if (auto self = weak.lock()) self->drain();
    });
}

// Only the newest picture ever waits: a slow ingest costs frames, never delay.
void WebRTCReceiverSession::drain() {
  while (!closed_) {
    DecodedPictureRef next;
    {
      std::lock_guard hold(ingestLock_);
      next = std::move(latestFrame_);
      if (!next) {
        ingestScheduled_ = false;
        return;
      }
    }
    ingest(*next);
  }
}

void WebRTCReceiverSession::ingest(const DecodedPicture& picture) {
  if (closed_) return;
  PixelBufferRef buffer = copyOf(picture);
  const std::string size = std::to_string(picture.width()) + "×" + std::to_string(picture.height());
  if (!loggedFirst_) {
    loggedFirst_ = true;
    firstFrameSeen_ = true;
    QvnLog::line(buffer ? cam(slot_) + " first frame " + size +
                              " rot=" + std::to_string(picture.rotation()) + " I420"
                        : cam(slot_) + " first frame had no pixel buffer (I420) " + size);
  }
  if (!buffer) return;
  const int canvas = sinks_.canvasLongEdge ? sinks_.canvasLongEdge() : 1920;
  PixelBufferRef upright = QvnVideoOrient::orient(buffer, picture.rotation(), sizeBound(canvas));
  buffer.reset();  // the decoder's picture is not held past this point
  noteSize(picture.width(), picture.height(), *upright);
  if (sinks_.frames) sinks_.frames->store(slot_, upright);
  if (slot_ >= 1 && sinks_.noteIncoming) sinks_.noteIncoming(slot_);
}

// The decoded planes into a buffer of our own, so the decoder gets its memory back at once.
PixelBufferRef WebRTCReceiverSession::copyOf(const DecodedPicture& picture) {
  if (picture.width() < 2 || picture.height() < 2) return nullptr;
  PixelBufferRef buffer = i420Pool_.make(picture.width(), picture.height());
  if (!buffer) return nullptr;
  for (int plane = 0; plane < 3; ++plane) {
    const int bytes = buffer->planeWidth(plane);
    for (int row = 0; row < buffer->planeHeight(plane); ++row)
      std::memcpy(buffer->data(plane) + row * buffer->stride(plane),
                  picture.plane(plane) + row * picture.stride(plane), size_t(bytes));
  }
  return buffer;
}

std::string WebRTCReceiverSession::labelFor(int width, int height) {
  const int longEdge = std::max(width, height);
  return longEdge >= 2160 ? "4K" : longEdge >= 1600 ? "FHD" : longEdge >= 1100 ? "HD" : "SD";
}

int WebRTCReceiverSession::sizeBound(int canvasLongEdge) {
  return canvasLongEdge <= 1920 ? 1920 : std::min(canvasLongEdge, 3840);
}

void WebRTCReceiverSession::noteSize(int width, int height, const PixelBuffer& stored) {
  if (width < 2 || height < 2) return;
  const std::string label = labelFor(width, height);
  {
    std::lock_guard hold(sizeLock_);
    if (label == label_ && width == width_ && height == height_) return;
    label_ = label;
    width_ = width;
    height_ = height;
  }
  if (onResolution) onResolution(label, width, height);
  QvnLog::line(cam(slot_) + " received " + std::to_string(width) + "×" + std::to_string(height) +
               " (mix buffer " + std::to_string(stored.width()) + "×" +
               std::to_string(stored.height()) + ") → " + label);
}

std::string WebRTCReceiverSession::resolutionLabel() const {
  std::lock_guard hold(sizeLock_);
  return label_;
}
int WebRTCReceiverSession::receivedWidth() const {
  std::lock_guard hold(sizeLock_);
  return width_;
}
int WebRTCReceiverSession::receivedHeight() const {
  std::lock_guard hold(sizeLock_);
  return height_;
}

// ---- Sound -------------------------------------------------------------------------------------

void WebRTCReceiverSession::sound(const RemoteTrack& track, const DecodedSound& sound) {
  if (closed_ || &track != audioNow_.load()) return;
  PCMView pcm;
  pcm.format = SampleFormat::float32;
  pcm.rate = sound.rate;
  pcm.channels = sound.channels;
  pcm.interleaved = true;
  pcm.frames = sound.frames;
  pcm.planes[0] = sound.samples;
  tap_->render(pcm);
}

// ---- Watching for a picture --------------------------------------------------------------------

std::vector<int> WebRTCReceiverSession::watchdogMarks() {
  std::vector<int> marks;
  for (int t = 0; t < 60;) {
    t += t < 12 ? 4 : 10;
    marks.push_back(t);
  }
  return marks;
}

void WebRTCReceiverSession::watchForFirstFrame(int mark) {
  const int next = mark + (mark < 12 ? 4 : 10);
  ingestQueue_->asyncAfter(next - mark, [weak = weak_from_this(), next] {
    auto self = weak.lock();
    if (!self || self->closed_ || self->firstFrameSeen_) return;
    self->logInboundVideo("no picture after " + std::to_string(next) + "s");
    if (next < 60) self->watchForFirstFrame(next);
  });
}

void WebRTCReceiverSession::logInboundVideo(const std::string& reason) {
  if (closed_) return;
  peer_->stats([weak = weak_from_this(), reason](std::vector<StatsReport> reports) {
    auto self = weak.lock();
    if (!self) return;
    auto byID = [&](const std::string& id) -> const StatsReport* {
      for (const auto& r : reports)
        if (r.id == id) return &r;
      return nullptr;
    };
    const StatsReport* inbound = nullptr;
    for (const auto& r : reports)
      if (r.type == "inbound-rtp" && isVideo(r, byID(valueOr(&r, "codecId", "")))) inbound = &r;
    const std::string head = cam(self->slot_) + " video stats (" + reason + "): ";
    if (!inbound) return QvnLog::line(head + "no inbound-rtp video entry");
    const StatsReport* codec = byID(valueOr(inbound, "codecId", ""));
    const std::string codecText = codec ? valueOr(codec, "mimeType", "?") +
                                              " pt=" + valueOr(codec, "payloadType", "?") + " " +
                                              valueOr(codec, "sdpFmtpLine", "?")
                                        : "-";
    // What the decoder side knows, the session counts itself.
    const std::string frames = std::to_string(self->framesReceived_.load());
    auto ownOr = [&](const char* key, const std::string& own) {
      const std::string v = valueOr(inbound, key, "");
      return v.empty() ? own : v;
    };
    QvnLog::line(
        head + "packets=" + valueOr(inbound, "packetsReceived", "-") + " bytes=" +
        valueOr(inbound, "bytesReceived", "-") + " lost=" + valueOr(inbound, "packetsLost", "-") +
        " framesReceived=" + ownOr("framesReceived", frames) +
        " framesDecoded=" + ownOr("framesDecoded", frames) +
        " keyFramesDecoded=" + valueOr(inbound, "keyFramesDecoded", "-") +
        " framesDropped=" + ownOr("framesDropped", std::to_string(self->framesReplaced_.load())) +
        " pli=" + valueOr(inbound, "pliCount", "-") + " fir=" + valueOr(inbound, "firCount", "-") +
        " nack=" + valueOr(inbound, "nackCount", "-") + " size=" +
        std::to_string(self->receivedWidth()) + "x" + std::to_string(self->receivedHeight()) +
        " decoder=" + ownOr("decoderImplementation", "avdec_h264") + " codec=" + codecText);
  });
}

}  // namespace qvn
