// The phones' side door: advertises the studio, pairs phones over JSON lines on TCP 8765 and
// reports their slots. Runs on its own queue ("io.quorvane.camera.signaling"); callbacks come
// from that queue. The two questions it asks the studio block that queue on the main
// thread, so the main thread must never wait on this server.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/camera_slot.h"

namespace qvn {

class RemoteVideoTrack;  // a phone's decoded video, owned by its receiver session
class PhoneAudioTap;     // a phone's decoded sound, as the audio engine takes it

class SignalingServer {
 public:
  static constexpr std::uint16_t kPort = 8765;

  virtual ~SignalingServer() = default;

  // Callback properties, set once while the studio is built.
  std::function<void(std::vector<CameraSlot>)> onSlotsChanged;
  std::function<bool(int slot)> isSlotLocallyOccupied;  // answered on the main thread
  std::function<int()> openSlotLimit;                   // answered on the main thread
  std::function<void(std::string)> onLog;
  std::function<void(int slot, std::shared_ptr<RemoteVideoTrack>)> onVideo;
  std::function<void(int slot, std::string text, int width, int height)> onResolution;
  std::function<void(int slot, std::shared_ptr<PhoneAudioTap>)> onAudioTap;
  std::function<void(int slot, const nlohmann::json& caps)> onCaps;
  std::function<void(int slot, const nlohmann::json& ack)> onControlAck;

  virtual void setPin(std::string pin) = 0;
  virtual void setAcceptNewDevices(bool accept) = 0;
  // Starts listening and advertising; an error text in the operator's words on failure.
  virtual std::optional<std::string> start() = 0;
  // Playout of each phone's own audio track: on for the `audible` slot (every slot when 0)
  // unless muted. It never touches what the mix hears.
  virtual void setAudioEnabled(int audible, std::set<int> muted) = 0;
  // Where phones reach the studio: kPort unless a test or the command line moved it.
  virtual std::uint16_t port() const { return kPort; }
};

class SignalingServerNotYetAvailable final : public SignalingServer {
 public:
  void setPin(std::string) override {}
  void setAcceptNewDevices(bool) override {}
  std::optional<std::string> start() override {
    return "phone pairing is not part of this build yet";
  }
  void setAudioEnabled(int, std::set<int>) override {}
};

}  // namespace qvn
