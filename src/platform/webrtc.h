// Receive-only WebRTC peer connections: one per phone, answering the phone's offer, trading
// ICE candidates on the local network only, and handing over what it decodes. The stack is
// process-wide: `WebRTCStack::prepare` readies it (and its DTLS certificate) once at start-up,
// so the first phone doesn't wait for a key to be made.
//
// Threads: the operations may be called from any thread. Their completions and the state,
// candidate and track events come on the stack's signaling threads; pictures come on the
// video decoder's thread and sound on the audio decoder's thread, one peer's events of one
// kind in order. A handler must return quickly: a slow one holds up that peer's media.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvn {

// What a peer says about a candidate, as the signaling wire carries it.
struct ICECandidate {
  std::string candidate;
  std::optional<std::string> sdpMid;
  int sdpMLineIndex = 0;
};

enum class MediaKind { audio, video };

// A track the remote side sends. Owned by its peer; listeners hold it to tell tracks apart.
class RemoteTrack {
 public:
  RemoteTrack(MediaKind kind, std::string id) : kind_(kind), id_(std::move(id)) {}
  virtual ~RemoteTrack() = default;
  MediaKind kind() const { return kind_; }
  const std::string& id() const { return id_; }
  // Playout on the stack's own output. The studio never plays a track out itself; its
  // sound reaches the mix through the decoded audio below whatever this says.
  bool enabled() const { return enabled_; }
  void setEnabled(bool on) { enabled_ = on; }

 private:
  MediaKind kind_;
  std::string id_;
  std::atomic<bool> enabled_{true};
};
class RemoteVideoTrack final : public RemoteTrack {
 public:
  explicit RemoteVideoTrack(std::string id) : RemoteTrack(MediaKind::video, std::move(id)) {}
};
class RemoteAudioTrack final : public RemoteTrack {
 public:
  explicit RemoteAudioTrack(std::string id) : RemoteTrack(MediaKind::audio, std::move(id)) {}
};

// One decoded picture, held without a copy until the last reference goes. I420 planes.
class DecodedPicture {
 public:
  virtual ~DecodedPicture() = default;
  virtual int width() const = 0;
  virtual int height() const = 0;
  // Degrees the picture must turn clockwise to stand upright (0 unless the sender tags it).
  virtual int rotation() const = 0;
  virtual const std::uint8_t* plane(int index) const = 0;  // 0 Y, 1 U, 2 V
  virtual int stride(int index) const = 0;
};
using DecodedPictureRef = std::shared_ptr<const DecodedPicture>;

// Decoded sound, interleaved float, borrowed for the call.
struct DecodedSound {
  const float* samples = nullptr;
  int frames = 0;
  int channels = 0;
  int rate = 0;
};

// One report of the peer's statistics, keys and values as text ("inbound-rtp", "codec", ...).
struct StatsReport {
  std::string type;
  std::string id;
  std::map<std::string, std::string> values;
};

class WebRTCPeer {
 public:
  struct Options {
    // When set, ICE gathers on this address alone (tests use 127.0.0.1).
    std::optional<std::string> localAddress;
    std::string name;  // for the stack's own diagnostics
  };
  // State names as the studio logs them: ICE "new", "checking", "connected", "completed",
  // "failed", "disconnected", "closed"; peer "new", "connecting", "connected",
  // "disconnected", "failed", "closed".
  struct Events {
    std::function<void(const std::string& state)> iceState;
    std::function<void(const std::string& state)> peerState;
    std::function<void(const ICECandidate& candidate)> localCandidate;
    std::function<void(std::shared_ptr<RemoteTrack> track)> trackAdded;
    std::function<void(const RemoteTrack& track, DecodedPictureRef picture)> picture;
    std::function<void(const RemoteTrack& track, const DecodedSound& sound)> sound;
  };
  using Done = std::function<void(std::optional<std::string> error)>;
  // The answer's text; or why there is none, and whether it was made and then refused.
  struct Answer {
    std::optional<std::string> sdp;
    std::string error;
    bool made = false;
  };
  using Answered = std::function<void(Answer answer)>;

  // None, with `error` in plain words, when the stack can't make a peer connection.
  static std::unique_ptr<WebRTCPeer> make(Options options, Events events, std::string& error);
  virtual ~WebRTCPeer() = default;

  // The sender's offer as it came: receive-only transceivers for its H.264 (packetization
  // mode 1) and Opus, with the transport-wide congestion-control extension, bundled.
  virtual void setRemoteOffer(const std::string& sdp, Done done) = 0;
  // The answer, already set as the local description (without the video-orientation
  // extension: senders turn their own pixels).
  virtual void answer(Answered done) = 0;
  virtual void addCandidate(const ICECandidate& candidate) = 0;
  virtual void stats(std::function<void(std::vector<StatsReport>)> done) = 0;
  // Stops media and events; no handler runs once it returns. Safe to repeat.
  virtual void close() = 0;
};

namespace WebRTCStack {

// Readies the stack and its certificate; the line for the log, or an error in plain words.
// Any thread; later calls return the first result.
std::string prepare();

}  // namespace WebRTCStack

}  // namespace qvn
