#include "phones/tcp_signaling_server.h"

#include <cstdio>
#include <sstream>

#include <nlohmann/json.hpp>

#include "phones/signaling_message.h"
#include "platform/net.h"
#include "support/uuid.h"

namespace qvn {

namespace {

std::vector<std::string> sdpLines(const std::string& sdp) {
  std::vector<std::string> lines;
  std::istringstream in(sdp);
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

std::string firstStarting(const std::vector<std::string>& lines, const std::string& prefix,
                          const std::string& otherwise) {
  for (const auto& line : lines)
    if (line.starts_with(prefix)) return line;
  return otherwise;
}

std::string joined(const std::vector<std::string>& lines, size_t most) {
  std::string out;
  for (size_t i = 0; i < lines.size() && i < most; ++i) out += (i ? " | " : "") + lines[i];
  return out;
}

std::vector<std::string> matching(const std::vector<std::string>& lines, const std::string& prefix,
                                  const std::string& containing = "") {
  std::vector<std::string> out;
  for (const auto& line : lines)
    if (line.starts_with(prefix) && line.find(containing) != std::string::npos) out.push_back(line);
  return out;
}

}  // namespace

std::shared_ptr<TCPSignalingServer> TCPSignalingServer::make(ReceiverSessionFactory makeSession,
                                                             std::string address,
                                                             std::uint16_t port) {
  return std::shared_ptr<TCPSignalingServer>(
      new TCPSignalingServer(std::move(makeSession), std::move(address), port));
}

TCPSignalingServer::TCPSignalingServer(ReceiverSessionFactory makeSession, std::string address,
                                       std::uint16_t port)
    : makeSession_(std::move(makeSession)),
      address_(std::move(address)),
      port_(port),
      queue_(std::make_unique<SerialQueue>("io.quorvane.camera.signaling",
                                           QueuePriority::userInitiated)) {
  if (!makeSession_)
    makeSession_ = [](int, const std::string&, const std::string&) {
      return std::make_shared<ReceiverSessionNotYetAvailable>();
    };
}

TCPSignalingServer::~TCPSignalingServer() {
  if (listener_) listener_->stop();
  advert_.reset();
  queue_->sync([this] {
    for (auto& [client, phone] : phones_) phone.client->close();
    for (auto& [slot, s] : slots_) s.session->close();
  });
  // Jobs hold the server only while they run, so the last reference may go inside one.
  SerialQueue::release(std::move(queue_));
}

void TCPSignalingServer::setPin(std::string pin) {
  std::lock_guard lock(settingsLock_);
  pin_ = std::move(pin);
}

void TCPSignalingServer::setAcceptNewDevices(bool accept) {
  std::lock_guard lock(settingsLock_);
  acceptNewDevices_ = accept;
}

void TCPSignalingServer::log(const std::string& line) const {
  if (onLog) onLog(line);
}

std::optional<std::string> TCPSignalingServer::start() {
  std::string error;
  listener_ = NetListener::listen(
      address_, port_,
      [weak = weak_from_this()](std::shared_ptr<NetConnection> connection) {
        if (auto self = weak.lock())
          self->queue_->async([weak, connection] {
            if (auto server = weak.lock()) server->accept(connection);
          });
      },
      error);
  if (!listener_) return "Can't listen for phones on port " + std::to_string(port_) + ": " + error;
  advertise();
  const std::string portText = std::to_string(port());
  log("Listening on: " + portText + " (Bonjour _quorvane-cam._tcp, TCP JSON)");
  // Bound and listening is as ready as this listener gets: it reports no later state.
  log("Signaling ready: " + portText);
  return std::nullopt;
}

// Phones find the studio by its announcement; the port in it is the one really listened on.
void TCPSignalingServer::advertise() {
  const std::string name = "Quorvane Studio";
  const std::string ip = localIPv4Address();
  const std::string portText = std::to_string(port());
  auto say = [print = onDiagnostics](const std::string& line) {
    if (print) {
      print(line);
    } else {
      std::printf("%s\n", line.c_str());
      std::fflush(stdout);
    }
  };
  say("[Bonjour] publishing " + name + " ip=" + ip + " port=" + portText);
  advert_ = ServiceAdvert::publish(
      {name, "_quorvane-cam._tcp", port(), {{"ip", ip}, {"port", portText}, {"name", name}}},
      [say, name](bool published, const std::string& detail) {
        say(published ? "[Bonjour] published " + name : "[Bonjour] publish failed " + detail);
      });
}

// ---- Connections ----------------------------------------------------------------------------

void TCPSignalingServer::accept(std::shared_ptr<NetConnection> connection) {
  auto client = LineClient::make(std::move(connection));
  LineClient* key = client.get();
  phones_[key] = Phone{client, std::nullopt};
  std::weak_ptr<TCPSignalingServer> weak = weak_from_this();
  // Jobs name the phone by its client's address; once that client is gone a new one may
  // take the same address, so each job checks it still finds the same client.
  std::weak_ptr<LineClient> same = client;
  auto onQueue = [weak, key, same](auto work) {
    if (auto self = weak.lock())
      self->queue_->async([weak, key, same, work] {
        auto server = weak.lock();
        auto c = same.lock();
        if (!server || !c) return;
        if (auto it = server->phones_.find(key);
            it != server->phones_.end() && it->second.client == c)
          work(*server);
      });
  };
  client->onText = [onQueue, key](const std::string& line) {
    onQueue([key, line](TCPSignalingServer& server) { server.handle(line, key); });
  };
  client->onClose = [onQueue, key] {
    onQueue([key](TCPSignalingServer& server) { server.drop(key); });
  };
  client->onState = [weak](const std::string& line) {
    if (auto self = weak.lock()) self->log(line);
  };
  log("TCP ready");
  client->start(*queue_);
  log("Socket opened");
}

std::optional<int> TCPSignalingServer::slotOf(LineClient* client) const {
  auto it = phones_.find(client);
  return it == phones_.end() ? std::nullopt : it->second.slot;
}

void TCPSignalingServer::handle(const std::string& line, LineClient* client) {
  auto phone = phones_.find(client);
  if (phone == phones_.end()) return;
  const auto parsed = parseSignalingLine(line);
  if (!parsed) {
    log("WS ignored " + std::to_string(std::min<size_t>(line.size(), 80)) + " chars");
    return;
  }
  const nlohmann::json& message = *parsed;
  const std::string type = textOf(message, "type");
  if (type == "hello" || type == "offer" || type == "ice") log("TCP " + type);
  if (type == "ping") {
    phone->second.client->send({{"type", "pong"}});
  } else if (type == "hello") {
    hello(message, client);
  } else if (type == "offer") {
    offer(message, client);
  } else if (type == "ice") {
    ice(message, client);
  } else if (type == "bye") {
    drop(client);
  } else if (type == "capabilities") {
    if (auto slot = slotOf(client); slot && onCaps) onCaps(*slot, message);
  } else if (type == "control-ack") {
    if (auto slot = slotOf(client); slot && onControlAck) onControlAck(*slot, message);
  }
}

void TCPSignalingServer::hello(const nlohmann::json& message, LineClient* client) {
  const auto& sender = phones_.at(client).client;
  const std::string role = message.contains("role") ? textOf(message, "role") : "publisher";
  if (role != "publisher") {
    sender->send({{"type", "error"}, {"message", "This computer is the receiver."}});
    return;
  }
  const std::string pin = textOf(message, "pin");
  {
    std::lock_guard lock(settingsLock_);
    if (!pin.empty() && pin != pin_ && !acceptNewDevices_) {
      sender->send({{"type", "pair-fail"}, {"message", "Wrong pairing code"}});
      return;
    }
  }
  if (auto held = slotOf(client)) {  // asked again: the same answer, no second slot
    if (auto it = slots_.find(*held); it != slots_.end()) sendWelcome(*sender, it->second);
    return;
  }
  const auto slot = freeSlot();
  if (!slot) {
    sender->send({{"type", "error"}, {"message", "All camera slots are full"}});
    return;
  }
  phones_[client].slot = *slot;
  const std::string sessionID = makeUUID();
  const std::string name = textOf(message, "name").empty() ? "Phone" : textOf(message, "name");
  auto session = makeSession_(*slot, sessionID, name);
  if (!session) {
    phones_[client].slot.reset();
    sender->send({{"type", "error"}, {"message", "Could not start this camera session."}});
    return;
  }
  wire(session, *slot, sender);
  const Slot& held = slots_[*slot] = Slot{session, sender, name, sessionID, *slot};
  if (onAudioTap) onAudioTap(*slot, session->audioTap());
  sendWelcome(*sender, held);
  sender->send({{"type", "peer-joined"}, {"role", "viewer"}});
  publishSlots();
  log("Cam " + std::to_string(*slot) + " reserved for " + name);
}

void TCPSignalingServer::sendWelcome(LineClient& client, const Slot& slot) {
  client.send({{"type", "welcome"},
               {"v", 1},
               {"role", "publisher"},
               {"session_id", slot.sessionID},
               {"slot", slot.number}});
}

bool TCPSignalingServer::heldBy(int slot, const std::weak_ptr<ReceiverSession>& session) const {
  auto it = slots_.find(slot);
  return it != slots_.end() && it->second.session == session.lock();
}

void TCPSignalingServer::wire(const std::shared_ptr<ReceiverSession>& made, int slot,
                              std::shared_ptr<LineClient> client) {
  ReceiverSession& session = *made;
  std::weak_ptr<TCPSignalingServer> weak = weak_from_this();
  std::weak_ptr<LineClient> weakClient = client;
  // Jobs the session posts may run after it was dropped and another phone took the slot;
  // they act only while the slot is still this session's.
  std::weak_ptr<ReceiverSession> owner = made;
  const std::string cam = "Cam " + std::to_string(slot);
  session.onStatus = [weak, cam](const std::string& status) {
    if (auto self = weak.lock()) self->log(cam + ": " + status);
  };
  session.sendICE = [weakClient](const nlohmann::json& candidate) {
    if (auto c = weakClient.lock()) c->send({{"type", "ice"}, {"v", 1}, {"candidate", candidate}});
  };
  session.onVideoTrack = [weak, slot, cam](std::shared_ptr<RemoteVideoTrack> track) {
    if (auto self = weak.lock()) {
      self->log(cam + ": video track");
      if (self->onVideo) self->onVideo(slot, track);
    }
  };
  session.onPeerGone = [weak, slot, cam, owner] {
    if (auto self = weak.lock())
      self->queue_->async([weak, slot, cam, owner] {
        auto server = weak.lock();
        if (!server || !server->heldBy(slot, owner)) return;
        server->log(cam + " peer connection gone, freeing the slot");
        server->drop(server->slots_[slot].client.get());
      });
  };
  session.onResolution = [weak, slot](const std::string& label, int w, int h) {
    if (auto self = weak.lock(); self && self->onResolution) self->onResolution(slot, label, w, h);
  };
  // A track that went takes its tap with it; a new one brings the session's tap back. A
  // dropped session's slot was detached by `drop` already.
  session.onAudioTrack = [weak, slot, owner](std::shared_ptr<RemoteAudioTrack> track) {
    if (auto self = weak.lock())
      self->queue_->async([weak, slot, owner, present = track != nullptr] {
        auto server = weak.lock();
        if (!server || !server->onAudioTap || !server->heldBy(slot, owner)) return;
        server->onAudioTap(slot, present ? server->slots_[slot].session->audioTap() : nullptr);
      });
  };
}

std::optional<int> TCPSignalingServer::freeSlot() {
  const int ceiling = std::clamp(openSlotLimit ? openSlotLimit() : kDefaultOpenSlots, 1, 16);
  for (int slot = 1; slot <= ceiling; ++slot) {
    if (slots_.contains(slot)) continue;
    if (isSlotLocallyOccupied && isSlotLocallyOccupied(slot)) continue;
    return slot;
  }
  return std::nullopt;
}

void TCPSignalingServer::offer(const nlohmann::json& message, LineClient* client) {
  const auto slot = slotOf(client);
  if (!slot || !slots_.contains(*slot) || !message.contains("sdp") || !message["sdp"].is_string())
    return;
  const std::string sdp = message["sdp"].get<std::string>();
  const auto lines = sdpLines(sdp);
  const std::string cam = "Cam " + std::to_string(*slot);
  log(cam + " offer " + firstStarting(lines, "m=video", "no m=video") + " (" +
      std::to_string(sdp.size()) + " chars)");
  log(cam + " offer codecs " + joined(matching(lines, "a=rtpmap:"), 8));
  log(cam + " offer h264 " + joined(matching(lines, "a=fmtp:", "profile-level-id"), SIZE_MAX));
  std::weak_ptr<LineClient> weakClient = slots_[*slot].client;
  slots_[*slot].session->handleOffer(
      sdp, [weak = weak_from_this(), weakClient, cam](std::optional<std::string> answer) {
        auto self = weak.lock();
        if (!self) return;
        if (!answer) {
          self->log(cam + " no answer (SDP rejected)");
          return;
        }
        const auto answerLines = sdpLines(*answer);
        self->log(cam + " answer " + firstStarting(answerLines, "m=video", "no m=video"));
        self->log(cam + " answer h264 " +
                  joined(matching(answerLines, "a=fmtp:", "profile-level-id"), SIZE_MAX));
        if (auto c = weakClient.lock()) c->send({{"type", "answer"}, {"v", 1}, {"sdp", *answer}});
      });
}

void TCPSignalingServer::ice(const nlohmann::json& message, LineClient* client) {
  const auto slot = slotOf(client);
  if (!slot || !slots_.contains(*slot)) return;
  slots_[*slot].session->addICE(candidateOf(message));
}

void TCPSignalingServer::drop(LineClient* client) {
  auto phone = phones_.find(client);
  if (phone == phones_.end()) return;
  Phone gone = std::move(phone->second);
  phones_.erase(phone);
  if (gone.slot) {
    const int slot = *gone.slot;
    if (auto it = slots_.find(slot); it != slots_.end()) {
      it->second.session->close();
      slots_.erase(it);
    }
    if (onVideo) onVideo(slot, nullptr);
    if (onAudioTap) onAudioTap(slot, nullptr);
    log("Cam " + std::to_string(slot) + " disconnected");
    publishSlots();
  }
  if (!gone.client->closed()) gone.client->close();
}

void TCPSignalingServer::publishSlots() {
  if (onSlotsChanged) onSlotsChanged(snapshot());
}

std::vector<CameraSlot> TCPSignalingServer::snapshot() const {
  std::vector<CameraSlot> rows;
  for (int n = 1; n <= 16; ++n) {
    CameraSlot row = CameraSlot::empty(n);
    row.kind = "phone";
    if (auto it = slots_.find(n); it != slots_.end()) {
      row.live = true;
      row.title = it->second.name;
      row.status = "Live";
      row.resolution = it->second.session->resolutionLabel();
      row.receivedWidth = it->second.session->receivedWidth();
      row.receivedHeight = it->second.session->receivedHeight();
    }
    rows.push_back(row);
  }
  return rows;
}

void TCPSignalingServer::setAudioEnabled(int audible, std::set<int> muted) {
  queue_->async([weak = weak_from_this(), audible, muted = std::move(muted)] {
    auto self = weak.lock();
    if (!self) return;
    for (auto& [slot, s] : self->slots_)
      s.session->setAudioEnabled(!muted.contains(slot) && (audible == 0 || audible == slot));
  });
}

void TCPSignalingServer::sendControl(int slot, nlohmann::json message) {
  std::string line = "control → cam " + std::to_string(slot) + " " +
                     (message.contains("action") && message["action"].is_string()
                          ? message["action"].get<std::string>()
                          : std::string("?"));
  if (message.contains("value")) line += " value=" + message["value"].dump();
  if (message.contains("x") && message.contains("y"))
    line += " @(" + message["x"].dump() + "," + message["y"].dump() + ")";
  log(line);
  queue_->async([weak = weak_from_this(), slot, message = std::move(message)] {
    auto self = weak.lock();
    if (!self) return;
    if (auto it = self->slots_.find(slot); it != self->slots_.end())
      it->second.client->send(message);
  });
}

}  // namespace qvn
