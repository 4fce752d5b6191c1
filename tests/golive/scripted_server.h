// The server's side of an RTMP session for the publishing tests: a scripted peer on
// loopback past the handshake, reading whole messages and writing command replies; and the
// socket's callbacks written down to wait for. Test thread only.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "golive/amf0.h"
#include "golive/rtmp_chunks.h"
#include "golive/rtmp_socket.h"
#include "golive/scripted_peer.h"

namespace qvn::test {

using Bytes = std::vector<std::uint8_t>;

// Callbacks written down, to wait for from the test thread.
struct Outcome {
  std::mutex mutex;
  std::condition_variable changed;
  int ready = 0;
  std::vector<std::string> failures;

  void attach(RTMPSocket& socket) {
    socket.onReady = [this] { note([this] { ++ready; }); };
    socket.onFailed = [this](const std::string& why) { note([&] { failures.push_back(why); }); };
  }
  template <class F>
  void note(F change) {
    std::lock_guard lock(mutex);
    change();
    changed.notify_all();
  }
  bool waitFor(const std::function<bool()>& done) {
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, std::chrono::seconds(10), done);
  }
};

// The server's side of a session: the handshake, then whole messages read and written.
class Server {
 public:
  explicit Server(ScriptedPeer& peer) : peer_(peer) {}
  void handshake() {
    const Bytes c0c1 = peer_.read(1537);
    ASSERT_EQ(c0c1.size(), 1537u);
    ASSERT_EQ(c0c1[0], 0x03);
    Bytes s(1 + 2 * 1536, 0x5A);
    s[0] = 0x03;
    peer_.write(s);
    const Bytes c2 = peer_.read(1536);
    EXPECT_EQ(c2, Bytes(s.begin() + 1, s.begin() + 1537));  // S1 echoed
  }
  // The next message the client sends.
  RTMPMessage next() {
    while (queue_.empty()) {
      Bytes more = peer_.read(1);
      if (more.empty()) return {};
      inbound_.insert(inbound_.end(), more.begin(), more.end());
      const Bytes rest = peer_.readAvailable(20);
      inbound_.insert(inbound_.end(), rest.begin(), rest.end());
      parser_.parse(inbound_, [&](const RTMPMessage& m) {
        if (m.type == 1)
          parser_.setChunkSize(std::uint32_t(m.body[0]) << 24 | m.body[1] << 16 | m.body[2] << 8 |
                               m.body[3]);
        queue_.push_back(m);
      });
    }
    RTMPMessage m = queue_.front();
    queue_.erase(queue_.begin());
    return m;
  }
  std::string nextCommand() {
    RTMPMessage m = next();
    while (m.type != 20 && !m.body.empty()) m = next();
    lastCommand_ = m;
    return amf0::Reader(m.body).string().value_or("");
  }
  void command(const Bytes& body, std::uint8_t csid = 3) {
    peer_.write(chunkMessage(20, 0, 0, body, csid, 128));
  }
  const RTMPMessage& lastCommand() const { return lastCommand_; }

 private:
  ScriptedPeer& peer_;
  ChunkParser parser_;
  Bytes inbound_;
  std::vector<RTMPMessage> queue_;
  RTMPMessage lastCommand_;
};

inline Bytes result(double txn, std::optional<double> id = std::nullopt) {
  amf0::Writer w;
  w.string("_result").number(txn).null();
  if (id) w.number(*id);
  return w.bytes();
}

inline Bytes status(const std::string& code) {
  return amf0::Writer()
      .string("onStatus")
      .number(0)
      .null()
      .object({{"level", std::string("status")}, {"code", code}})
      .bytes();
}

}  // namespace qvn::test
