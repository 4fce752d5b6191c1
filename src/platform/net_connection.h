// A client connection over TCP, or TLS 1.2 and later checked by the system's trust store,
// with the host name checked and sent as SNI. Every callback runs on the one network thread
// ("qvn-net"), one at a time per connection; the operations may be called from any thread.
//
// Sends are queued here and written one after another: a send's completion comes when the
// kernel has taken its bytes, and the kernel keeps only a little unsent data
// (TCP_NOTSENT_LOWAT), so what is still queued here is what the network can't take yet.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qvn {

class NetConnection : public std::enable_shared_from_this<NetConnection> {
 public:
  // waiting: no route to the host yet, tried again every second; failed: over, with why;
  // ready: connected (and TLS agreed); cancelled: ended by `cancel`.
  enum class State { waiting, failed, ready, cancelled };
  struct Endpoint {
    std::string host;
    std::uint16_t port = 0;
    bool tls = false;
  };
  using StateHandler = std::function<void(State state, const std::string& error)>;
  using SendCompletion = std::function<void(const std::optional<std::string>& error)>;
  using ReceiveCompletion = std::function<void(std::vector<std::uint8_t> data, bool complete,
                                               const std::optional<std::string>& error)>;

  // Starts connecting at once; the handler hears every change of state.
  static std::shared_ptr<NetConnection> open(Endpoint endpoint, StateHandler onState);
  ~NetConnection();
  NetConnection(const NetConnection&) = delete;
  NetConnection& operator=(const NetConnection&) = delete;

  void send(std::vector<std::uint8_t> block, SendCompletion done);
  // Between 1 and `maximum` bytes; `complete` when the peer has closed its side.
  void receive(size_t maximum, ReceiveCompletion done);
  void cancel();

 private:
  struct Impl;
  explicit NetConnection(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace qvn
