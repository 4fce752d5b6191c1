// One phone's TCP connection, speaking one JSON object per line. Lines arrive trimmed, one
// by one, in order; a line that isn't UTF-8 is dropped. Callbacks run on the network
// thread; `send` may be called from any thread. `onClose` fires at most once.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "phones/line_framer.h"
#include "platform/dispatch.h"
#include "platform/net_connection.h"

namespace qvn {

class LineClient : public std::enable_shared_from_this<LineClient> {
 public:
  static std::shared_ptr<LineClient> make(std::shared_ptr<NetConnection> connection);

  std::function<void(const std::string& line)> onText;
  std::function<void()> onClose;
  std::function<void(const std::string& text)> onState;  // for the log

  // Starts reading; 2 s on, a peer that has sent no line yet is noted in the log.
  void start(Queue& timers);
  // Sends an object as one line; a send error closes the connection.
  void send(const nlohmann::json& message);
  void close();
  bool closed() const { return closed_; }

 private:
  explicit LineClient(std::shared_ptr<NetConnection> connection);
  void readNext();
  void take(const std::vector<std::uint8_t>& data);
  void notifyClosed();
  void log(const std::string& text);

  std::shared_ptr<NetConnection> connection_;
  LineFramer framer_;  // the network thread's
  std::atomic<bool> closed_{false};
  std::atomic<bool> sawLine_{false};
  // Guards the callbacks (taken once by whichever thread closes first) and the first bytes.
  std::mutex callbackLock_;
  std::vector<std::uint8_t> firstBytes_;
  DelayedWork silenceCheck_;
};

}  // namespace qvn
