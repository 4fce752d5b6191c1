// The phone's side of the studio's pairing talk, one JSON object per line: hello, the slot it
// is given, capabilities and the WebRTC offer once a viewer joins, trickled ICE both ways
// (held until there is somewhere to put it), pings, the studio's camera controls with their
// acknowledgements, and bye.
//
// Main queue only: every method is called there, and `send` and `onEnd` are called from
// there. The session borrows its media, which must outlive it.
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "camera_look.h"
#include "platform/dispatch.h"

namespace qvn {

// What the session drives: the sending side of the peer connection and the camera's look.
class PhoneMedia {
 public:
  virtual ~PhoneMedia() = default;
  // Starts sending and makes the offer; the session hears of it through `offerReady`.
  virtual void start() = 0;
  virtual void setAnswer(const std::string& sdp) = 0;
  virtual void addRemoteCandidate(int mline, const std::string& candidate) = 0;
  virtual void setMuted(bool muted) = 0;
  virtual void setLook(const CameraLook& look) = 0;
};

// Candidates through a relay or found by STUN are dropped both ways: studio and phones meet
// on the local network or not at all.
bool usableCandidate(const std::string& candidate);

class PhoneSession {
 public:
  struct Settings {
    std::string name;
    std::optional<std::string> pin;
    bool printOffer = false;
  };
  using Send = std::function<void(const nlohmann::json& message)>;

  // `queue` is the main queue: it runs the keep-alive pings.
  PhoneSession(Settings settings, PhoneMedia& media, Queue& queue, Send send);

  // The studio refused the phone or said something it can't go on from: the exit code and why.
  std::function<void(int exitCode, const std::string& reason)> onEnd;

  void connected();
  void received(const std::string& line);
  void offerReady(const std::string& sdp);
  void localCandidate(int mline, const std::string& candidate);
  // Says bye, once, when there is a studio to say it to.
  void leave();

  std::optional<int> slot() const { return slot_; }
  const CameraLook& look() const { return look_; }

 private:
  struct RemoteCandidate {
    int mline;
    std::string candidate;
  };
  void welcome(const nlohmann::json& message);
  void peerJoined();
  void answer(const nlohmann::json& message);
  void remoteCandidate(const nlohmann::json& message);
  void control(const nlohmann::json& message);
  void sendCandidate(int mline, const std::string& candidate);

  Settings settings_;
  PhoneMedia& media_;
  Queue& queue_;
  Send send_;
  bool connected_ = false;
  bool started_ = false;
  bool offerSent_ = false;
  bool answered_ = false;
  bool saidBye_ = false;
  std::optional<int> slot_;
  std::vector<std::string> mids_;  // of the offer, by m-line
  std::vector<RemoteCandidate> earlyRemote_;
  std::vector<std::pair<int, std::string>> earlyLocal_;
  CameraLook look_;
  RepeatingTimer pings_;
};

}  // namespace qvn
