// A phone's receive-only WebRTC session in its slot: answers the offer, trades host
// candidates only, turns each decoded picture upright into a BGRA buffer of the studio's own
// and stores it in the frame hub, sends the phone's sound through its tap, and keeps an eye
// on a session that connects but shows no picture.
//
// Threads: `handleOffer`, `addICE` and `close` come from the signaling queue; the peer's
// events from the WebRTC threads. The decoder thread only swaps the newest picture in under
// `ingestLock_`; all picture work runs on the session's own ingest queue, so a slow phone
// costs its own frames and never holds up another. The watchdog runs on that queue too.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "audio/pcm_buffer.h"
#include "phones/phone_audio_tap.h"
#include "phones/receiver_session.h"
#include "platform/dispatch.h"
#include "platform/pixel_buffer.h"
#include "platform/webrtc.h"

namespace qvn {

class FrameHub;

// Where every phone's pictures and sound go; shared by all sessions, set once.
struct PhoneSinks {
  std::shared_ptr<FrameHub> frames;
  std::function<void(int slot)> noteIncoming;               // the mix, told a picture came
  std::function<void(int slot, const PCMView& pcm)> sound;  // the audio mix
  std::function<int()> canvasLongEdge;                      // 1920 when unset
  std::optional<std::string> localAddress;                  // ICE on this address alone
};

class WebRTCReceiverSession final : public ReceiverSession,
                                    public std::enable_shared_from_this<WebRTCReceiverSession> {
 public:
  // None when no peer connection can be made (the reason goes to the log).
  static std::shared_ptr<WebRTCReceiverSession> make(int slot, std::string sessionID,
                                                     std::string deviceName, PhoneSinks sinks);
  static ReceiverSessionFactory factory(PhoneSinks sinks);
  ~WebRTCReceiverSession() override;

  void handleOffer(const std::string& sdp,
                   std::function<void(std::optional<std::string>)> done) override;
  void addICE(const nlohmann::json& candidate) override;
  void close() override;
  void setAudioEnabled(bool on) override;

  std::string resolutionLabel() const override;
  int receivedWidth() const override;
  int receivedHeight() const override;
  std::shared_ptr<PhoneAudioTap> audioTap() const override { return tap_; }

  // ---- The rules, on their own
  // Only candidates on the local network itself: no relayed or reflexive ones.
  static bool isHostCandidate(const std::string& sdpText);
  // "SD", "HD", "FHD" or "4K" by the longer side of the frame as it arrived.
  static std::string labelFor(int width, int height);
  // The longest side a picture keeps on a canvas whose longer side is `canvasLongEdge`.
  static int sizeBound(int canvasLongEdge);
  // Seconds after the video track at which a session still without a picture is reported.
  static std::vector<int> watchdogMarks();

 private:
  WebRTCReceiverSession(int slot, std::string sessionID, std::string deviceName, PhoneSinks sinks);
  WebRTCPeer::Events peerEvents();
  void status(const std::string& text);
  void trackAdded(std::shared_ptr<RemoteTrack> track);
  void peerState(const std::string& state);
  void picture(const RemoteTrack& track, DecodedPictureRef picture);
  void sound(const RemoteTrack& track, const DecodedSound& sound);
  void drain();
  void ingest(const DecodedPicture& picture);
  PixelBufferRef copyOf(const DecodedPicture& picture);
  void noteSize(int width, int height, const PixelBuffer& stored);
  void watchForFirstFrame(int mark);
  void logInboundVideo(const std::string& reason);

  const int slot_;
  const std::string sessionID_;
  const std::string deviceName_;
  const PhoneSinks sinks_;
  std::unique_ptr<WebRTCPeer> peer_;
  std::shared_ptr<PhoneAudioTap> tap_;
  std::atomic<bool> closed_{false};

  std::mutex stateLock_;  // guards the four below
  std::vector<ICECandidate> pendingICE_;
  bool remoteSet_ = false;
  std::shared_ptr<RemoteVideoTrack> videoTrack_;
  std::shared_ptr<RemoteAudioTrack> audioTrack_;
  // The current tracks, for the media threads to recognise theirs without the lock.
  std::atomic<const RemoteTrack*> videoNow_{nullptr};
  std::atomic<const RemoteTrack*> audioNow_{nullptr};

  std::unique_ptr<SerialQueue> ingestQueue_;
  std::mutex ingestLock_;  // held by the decoder thread for two assignments
  DecodedPictureRef latestFrame_;
  bool ingestScheduled_ = false;
  std::atomic<long> framesReceived_{0};
  std::atomic<long> framesReplaced_{0};

  // The ingest queue's own.
  QvnPixelBufferPool i420Pool_{PixelFormat::i420};
  bool loggedFirst_ = false;
  std::atomic<bool> firstFrameSeen_{false};

  mutable std::mutex sizeLock_;  // guards the three below
  std::string label_;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace qvn
