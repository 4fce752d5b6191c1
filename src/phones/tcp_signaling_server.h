// The phones' side door: listens for phones on TCP (8765 unless told otherwise), pairs each
// with the PIN, gives it a slot and a receiver session, and carries the session's offer,
// answer and ICE candidates and the remote-control commands as JSON lines.
//
// Threads: everything it owns lives on its queue ("io.quorvane.camera.signaling"); the
// network thread only posts there. Callbacks into the studio are called from that queue, and
// the two questions it asks (`isSlotLocallyOccupied`, `openSlotLimit`) block it until the
// studio answers, so the studio's main thread must never wait on this queue.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>

#include "phones/line_client.h"
#include "phones/receiver_session.h"
#include "phones/signaling_server.h"
#include "platform/dispatch.h"
#include "platform/net_connection.h"
#include "platform/service_advert.h"

namespace qvn {

class TCPSignalingServer final : public SignalingServer,
                                 public std::enable_shared_from_this<TCPSignalingServer> {
 public:
  static constexpr int kDefaultOpenSlots = 12;

  // Listens on `address`:`port`; tests use loopback and port 0.
  static std::shared_ptr<TCPSignalingServer> make(ReceiverSessionFactory makeSession,
                                                  std::string address = "0.0.0.0",
                                                  std::uint16_t port = kPort);
  ~TCPSignalingServer() override;

  // ---- SignalingServer
  void setPin(std::string pin) override;
  void setAcceptNewDevices(bool accept) override;
  std::optional<std::string> start() override;
  void setAudioEnabled(int audible, std::set<int> muted) override;

  // Diagnostics of the local-network announcement; standard output unless set.
  std::function<void(const std::string& line)> onDiagnostics;

  // The port listened on, once started.
  std::uint16_t port() const override { return listener_ ? listener_->port() : port_; }
  // A remote-control command to the phone in `slot`.
  void sendControl(int slot, nlohmann::json message);
  // All 16 slots as the studio shows them.
  std::vector<CameraSlot> snapshot() const;  // on the queue

  SerialQueue& queue() { return *queue_; }

 private:
  struct Phone {
    std::shared_ptr<LineClient> client;
    std::optional<int> slot;
  };
  struct Slot {
    std::shared_ptr<ReceiverSession> session;
    std::shared_ptr<LineClient> client;
    std::string name;
    std::string sessionID;
    int number = 0;
  };

  TCPSignalingServer(ReceiverSessionFactory makeSession, std::string address, std::uint16_t port);
  void log(const std::string& text) const;
  void advertise();
  void accept(std::shared_ptr<NetConnection> connection);
  void handle(const std::string& line, LineClient* client);
  void hello(const nlohmann::json& message, LineClient* client);
  void offer(const nlohmann::json& message, LineClient* client);
  void ice(const nlohmann::json& message, LineClient* client);
  void drop(LineClient* client);
  std::optional<int> freeSlot();
  static void sendWelcome(LineClient& client, const Slot& slot);
  void wire(const std::shared_ptr<ReceiverSession>& session, int slot,
            std::shared_ptr<LineClient> client);
  // Whether `slot` is still held by `session`, which may be gone.
  bool heldBy(int slot, const std::weak_ptr<ReceiverSession>& session) const;
  void publishSlots();
  std::optional<int> slotOf(LineClient* client) const;

  ReceiverSessionFactory makeSession_;
  std::string address_;
  std::uint16_t port_;
  std::unique_ptr<SerialQueue> queue_;
  std::shared_ptr<NetListener> listener_;
  std::unique_ptr<ServiceAdvert> advert_;

  // The queue's own.
  std::map<LineClient*, Phone> phones_;
  std::map<int, Slot> slots_;

  mutable std::mutex settingsLock_;
  std::string pin_ = "0000";
  bool acceptNewDevices_ = true;
};

}  // namespace qvn
