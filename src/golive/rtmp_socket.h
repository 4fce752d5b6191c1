// One attempt at publishing to an ingest: the TCP or TLS connect, the plain handshake, the
// commands of a publish, then media messages chunked onto the wire, counting what was handed
// to the network and what the peer confirmed. Never reused: after a failure the owner drops
// it and makes a new one.
//
// Threads: network callbacks and time-outs run on the network thread and a timer queue;
// the owner calls `sendMessage`, `noteDrop` and the getters from its own queue. The send
// counters, the delivery tracker and the stream rate each have their own lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "golive/delivery_tracker.h"
#include "golive/rtmp_chunks.h"
#include "golive/rtmp_url.h"
#include "platform/dispatch.h"
#include "platform/net_connection.h"

namespace qvn {

class RTMPSocket : public std::enable_shared_from_this<RTMPSocket> {
 public:
  static constexpr int kOutChunk = 4096;
  static constexpr double kConnectSeconds = 10;
  static constexpr double kPublishSeconds = 15;

  struct SendCounters {
    std::int64_t pending = 0;  // wire bytes queued, not yet taken by the network
    std::int64_t sent = 0;     // wire bytes taken without error
  };

  // Time-outs run on `timers`, the process's own queue unless a test gives its clock.
  static std::shared_ptr<RTMPSocket> make(Queue* timers = nullptr);
  ~RTMPSocket();

  // Callback properties, set before `connect`; called from the network thread or a timer.
  std::function<void()> onReady;                     // publish accepted
  std::function<void(const std::string&)> onFailed;  // over, and why; at most once
  std::function<void()> onDroppedFrame;

  // Parses and starts; every result comes through the callbacks.
  void connect(const std::string& ingestURL, const std::string& streamKey);
  // Orderly end: the stream is unpublished if it was, and `onFailed` never follows.
  void close();
  // Chunks one whole message and hands it to the network without waiting.
  void sendMessage(std::uint8_t type, std::uint32_t streamId, std::uint32_t timestamp,
                   std::span<const std::uint8_t> body, std::uint8_t csid);
  // One video frame dropped under backpressure.
  void noteDrop();

  bool ready() const { return ready_.load(std::memory_order_acquire); }
  std::uint32_t msgStreamId() const { return msgStreamId_.load(std::memory_order_acquire); }
  SendCounters sendCounters() const;
  // Bytes not yet known to have arrived: queued here, or sent beyond half a window unconfirmed.
  std::int64_t queuedBytes() const;
  double backlogSeconds(double now) const;
  void setStreamRate(std::int64_t bitsPerSecond);
  // Runs `read` on the delivery tracker under its lock.
  template <class F>
  auto withDelivery(F read) const {
    std::lock_guard lock(deliveryLock_);
    return read(delivery_);
  }
  const RTMPTarget& target() const { return target_; }

  // The publisher drops non-keyframes while the network can't keep up.
  std::atomic<bool> droppingPFrames{false};

 private:
  explicit RTMPSocket(Queue* timers);
  void onState(NetConnection::State state, const std::string& error);
  void armTimeout(double seconds, const std::string& text);
  void fail(const std::string& text);
  void sendHandshake();
  void receiveNext();
  void pump();
  void startConnectSequence();
  void dispatch(const RTMPMessage& message);
  void onCommand(const RTMPMessage& message);
  // An AMF0 command message: type 20, timestamp 0.
  void sendCommand(const std::vector<std::uint8_t>& body, std::uint8_t csid,
                   std::uint32_t streamId);
  std::shared_ptr<NetConnection> connection() const;
  // Hands one block to the network, counting it as pending until the network took it.
  void sendRaw(std::vector<std::uint8_t> block, std::uint8_t type);
  std::int64_t ackWindow() const;

  Queue& timers_;
  RTMPTarget target_;

  // State of the attempt, behind one lock: written by the network side, the timer and the
  // owner's close.
  mutable std::mutex stateLock_;
  std::shared_ptr<NetConnection> connection_;
  bool failed_ = false;
  bool closing_ = false;
  DelayedWork timeout_;
  std::optional<double> waitingSince_;

  // The receive path's own.
  std::vector<std::uint8_t> inbound_;
  ChunkParser parser_;
  int phase_ = 0;
  std::atomic<int> txn_{1};  // the next transaction number; close() takes one too
  double createTxn_ = 0;
  bool ackSeen_ = false;

  std::atomic<bool> ready_{false};
  std::atomic<std::uint32_t> msgStreamId_{1};
  mutable std::mutex countersLock_;
  SendCounters counters_;
  mutable std::mutex deliveryLock_;
  QvnDeliveryTracker delivery_;
  mutable std::mutex rateLock_;
  std::int64_t streamRate_ = 6'000'000;
  std::atomic<long> droppedLogged_{0};
};

}  // namespace qvn
