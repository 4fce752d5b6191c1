// One phone's WebRTC session as the signaling server drives it: the offer answered, ICE
// candidates both ways, and what it reports back. The server calls it from its queue; the
// callbacks may come from any thread.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

namespace qvn {

class RemoteVideoTrack;
class RemoteAudioTrack;
class PhoneAudioTap;

class ReceiverSession {
 public:
  virtual ~ReceiverSession() = default;

  // Callbacks, set by the server right after the session is made.
  std::function<void(const std::string& text)> onStatus;
  std::function<void(const nlohmann::json& candidate)> sendICE;
  std::function<void(std::shared_ptr<RemoteVideoTrack>)> onVideoTrack;
  std::function<void()> onPeerGone;
  std::function<void(const std::string& label, int width, int height)> onResolution;
  // A new audio track, or none when the track went and the tap is detached.
  std::function<void(std::shared_ptr<RemoteAudioTrack>)> onAudioTrack;

  // The answer SDP, or none when the offer is refused.
  virtual void handleOffer(const std::string& sdp,
                           std::function<void(std::optional<std::string> answer)> done) = 0;
  virtual void addICE(const nlohmann::json& candidate) = 0;
  virtual void close() = 0;
  // Playout of the track on the stack's own output, which the studio never uses: what the
  // buses hear is the audio engine's routing, whatever this says.
  virtual void setAudioEnabled(bool) {}

  virtual std::string resolutionLabel() const { return ""; }
  virtual int receivedWidth() const { return 0; }
  virtual int receivedHeight() const { return 0; }
  virtual std::shared_ptr<PhoneAudioTap> audioTap() const { return nullptr; }
};

// Makes the session of a phone that was given `slot`; none when it can't be made.
using ReceiverSessionFactory = std::function<std::shared_ptr<ReceiverSession>(
    int slot, const std::string& sessionID, const std::string& deviceName)>;

// Answers no offer: a phone pairs and holds its slot with no picture.
class ReceiverSessionNotYetAvailable final : public ReceiverSession {
 public:
  void handleOffer(const std::string&,
                   std::function<void(std::optional<std::string>)> done) override {
    done(std::nullopt);
  }
  void addICE(const nlohmann::json&) override {}
  void close() override {}
};

}  // namespace qvn
