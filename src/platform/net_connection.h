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

  // For a connection a listener accepted: it is ready already; the handler hears how it
  // ends (failed or cancelled).
  void setStateHandler(StateHandler onState);

  void send(std::vector<std::uint8_t> block, SendCompletion done);
  // Between 1 and `maximum` bytes; `complete` when the peer has closed its side.
  void receive(size_t maximum, ReceiveCompletion done);
  void cancel();

 private:
  friend class NetListener;
  struct Impl;
  explicit NetConnection(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

// Takes TCP connections on an IPv4 address and port, with the address reusable and
// no-delay on every connection. Callbacks run on the network thread.
class NetListener : public std::enable_shared_from_this<NetListener> {
 public:
  using Accept = std::function<void(std::shared_ptr<NetConnection>)>;

  // Port 0 takes any free one. None, with `error` in plain words, when it can't listen.
  static std::shared_ptr<NetListener> listen(const std::string& address, std::uint16_t port,
                                             Accept onAccept, std::string& error);
  ~NetListener();
  std::uint16_t port() const { return port_; }
  void stop();

 private:
  struct Impl;
  NetListener();
  void acceptNext();
  std::shared_ptr<Impl> impl_;
  std::uint16_t port_ = 0;
};

}  // namespace qvn
