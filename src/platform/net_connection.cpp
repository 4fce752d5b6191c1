#include "platform/net_connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>

#include <utility>  // before Boost.Asio, whose coroutine header forgets it

#include <boost/asio/bind_executor.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <deque>
#include <thread>

namespace qvn {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using boost::system::error_code;

namespace {

// The kernel keeps at most this much unsent data, so a backlog builds in our queue where it
// can be seen, not in a socket buffer of megabytes.
constexpr int kUnsentLowWater = 128 * 1024;
constexpr auto kRetryAfter = std::chrono::seconds(1);

// One thread runs every connection's I/O; it lives as long as the process.
class NetThread {
 public:
  NetThread() : guard_(asio::make_work_guard(io_)), thread_([this] { run(); }) {}
  asio::io_context& io() { return io_; }
  asio::ssl::context& tls() { return tls_; }

 private:
  void run() {
    pthread_setname_np(pthread_self(), "qvn-net");
    io_.run();
  }
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> guard_;
  asio::ssl::context tls_{makeTLS()};
  std::thread thread_;

  static asio::ssl::context makeTLS() {
    asio::ssl::context context(asio::ssl::context::tls_client);
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_2_VERSION);
    context.set_default_verify_paths();  // honours SSL_CERT_FILE and SSL_CERT_DIR
    context.set_verify_mode(asio::ssl::verify_peer);
    return context;
  }
};

NetThread& net() {
  static NetThread* const shared = new NetThread;  // never destroyed: callbacks may be due
  return *shared;
}

bool unreachable(const error_code& ec) {
  return ec == asio::error::network_unreachable || ec == asio::error::host_unreachable ||
         ec == asio::error::network_down;
}

}  // namespace

struct NetConnection::Impl {
  Impl(Endpoint e, StateHandler handler)
      : endpoint(std::move(e)),
        onState(std::move(handler)),
        strand(asio::make_strand(net().io())),
        resolver(strand),
        retry(strand),
        socket(strand) {
    if (endpoint.tls) tls = std::make_unique<asio::ssl::stream<tcp::socket&>>(socket, net().tls());
  }

  struct Outgoing {
    std::vector<std::uint8_t> block;
    SendCompletion done;
  };

  Endpoint endpoint;
  StateHandler onState;
  asio::strand<asio::io_context::executor_type> strand;
  tcp::resolver resolver;
  asio::steady_timer retry;
  tcp::socket socket;
  std::unique_ptr<asio::ssl::stream<tcp::socket&>> tls;
  bool isReady = false;
  bool ended = false;  // failed or cancelled: nothing more is reported
  std::deque<Outgoing> outgoing;
  std::vector<std::uint8_t> reading;

  using Keep = std::shared_ptr<NetConnection>;
  void connectNow(Keep keep);
  void connected(Keep keep, const error_code& ec);
  void writeNext(Keep keep);

  void report(State state, const std::string& error = {}) {
    if (ended) return;
    if (state == State::failed || state == State::cancelled) ended = true;
    if (onState) onState(state, error);
  }

  void fail(const error_code& ec) {
    report(State::failed, ec.message());
    close();
  }

  void close() {
    error_code ignored;
    resolver.cancel();
    retry.cancel();
    socket.shutdown(tcp::socket::shutdown_both, ignored);
    socket.close(ignored);
  }
};

NetConnection::NetConnection(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
NetConnection::~NetConnection() = default;

std::shared_ptr<NetConnection> NetConnection::open(Endpoint endpoint, StateHandler onState) {
  std::shared_ptr<NetConnection> c(
      new NetConnection(std::make_unique<Impl>(std::move(endpoint), std::move(onState))));
  asio::post(c->impl_->strand, [c] { c->impl_->connectNow(c); });
  return c;
}

// Resolves and connects, then agrees TLS when asked for; on the strand. `keep` holds the
// connection while an operation is under way.
void NetConnection::Impl::connectNow(Keep keep) {
  resolver.async_resolve(endpoint.host, std::to_string(endpoint.port),
                         [this, keep](const error_code& ec, const tcp::resolver::results_type& r) {
                           if (ended) return;
                           if (ec) return fail(ec);
                           asio::async_connect(
                               socket, r, [this, keep](const error_code& e, const tcp::endpoint&) {
                                 connected(keep, e);
                               });
                         });
}

void NetConnection::Impl::connected(Keep keep, const error_code& ec) {
  if (ended) return;
  if (unreachable(ec)) {
    // No route yet: say so, and try again while the owner waits.
    report(State::waiting, ec.message());
    retry.expires_after(kRetryAfter);
    retry.async_wait([this, keep](const error_code& e) {
      if (e || ended) return;
      error_code ignored;
      socket.close(ignored);
      connectNow(keep);
    });
    return;
  }
  if (ec) return fail(ec);
  error_code ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  const int lowWater = kUnsentLowWater;
  ::setsockopt(socket.native_handle(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, &lowWater, sizeof lowWater);
  if (!tls) return report(State::ready);
  SSL_set_tlsext_host_name(tls->native_handle(), endpoint.host.c_str());
  tls->set_verify_callback(asio::ssl::host_name_verification(endpoint.host));
  tls->async_handshake(asio::ssl::stream_base::client, [this, keep](const error_code& e) {
    if (ended) return;
    if (e) return fail(e);
    report(State::ready);
  });
}

void NetConnection::send(std::vector<std::uint8_t> block, SendCompletion done) {
  asio::post(impl_->strand, [self = shared_from_this(), block = std::move(block),
                             done = std::move(done)]() mutable {
    Impl& m = *self->impl_;
    m.outgoing.push_back({std::move(block), std::move(done)});
    if (m.outgoing.size() == 1) m.writeNext(self);
  });
}

void NetConnection::Impl::writeNext(Keep keep) {
  if (outgoing.empty()) return;
  auto finished = [this, keep](const error_code& ec, size_t) {
    Outgoing sent = std::move(outgoing.front());
    outgoing.pop_front();
    if (sent.done) sent.done(ec ? std::optional<std::string>(ec.message()) : std::nullopt);
    writeNext(keep);
  };
  const auto buffer = asio::buffer(outgoing.front().block);
  if (tls)
    asio::async_write(*tls, buffer, asio::bind_executor(strand, finished));
  else
    asio::async_write(socket, buffer, asio::bind_executor(strand, finished));
}

void NetConnection::receive(size_t maximum, ReceiveCompletion done) {
  asio::post(impl_->strand, [self = shared_from_this(), maximum, done = std::move(done)]() mutable {
    Impl& m = *self->impl_;
    m.reading.resize(std::max<size_t>(maximum, 1));
    auto got = [self, done = std::move(done)](const error_code& ec, size_t n) {
      const auto& bytes = self->impl_->reading;
      std::vector<std::uint8_t> data(bytes.begin(), bytes.begin() + long(n));
      const bool complete = ec == asio::error::eof || ec == asio::ssl::error::stream_truncated;
      std::optional<std::string> error;
      if (ec && !complete) error = ec.message();
      done(std::move(data), complete, error);
    };
    const auto buffer = asio::buffer(m.reading);
    if (m.tls)
      m.tls->async_read_some(buffer, asio::bind_executor(m.strand, std::move(got)));
    else
      m.socket.async_read_some(buffer, asio::bind_executor(m.strand, std::move(got)));
  });
}

void NetConnection::setStateHandler(StateHandler onState) {
  asio::post(impl_->strand, [self = shared_from_this(), onState = std::move(onState)]() mutable {
    self->impl_->onState = std::move(onState);
  });
}

void NetConnection::cancel() {
  asio::post(impl_->strand, [self = shared_from_this()] {
    Impl& m = *self->impl_;
    m.close();
    m.report(State::cancelled);
  });
}

}  // namespace qvn

namespace qvn {

struct NetListener::Impl {
  explicit Impl(Accept accept) : onAccept(std::move(accept)), acceptor(net().io()) {}
  Accept onAccept;
  tcp::acceptor acceptor;
  std::shared_ptr<NetConnection> next;  // the connection the pending accept fills
};

NetListener::NetListener() = default;
NetListener::~NetListener() {
  stop();
}

std::shared_ptr<NetListener> NetListener::listen(const std::string& address, std::uint16_t port,
                                                 Accept onAccept, std::string& error) {
  std::shared_ptr<NetListener> listener(new NetListener());
  listener->impl_ = std::make_shared<Impl>(std::move(onAccept));
  error_code ec;
  const auto ip = asio::ip::make_address_v4(address, ec);
  auto& acceptor = listener->impl_->acceptor;
  if (!ec) acceptor.open(tcp::v4(), ec);
  if (!ec) acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec) acceptor.bind(tcp::endpoint(ip, port), ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    error = ec.message();
    return nullptr;
  }
  listener->port_ = acceptor.local_endpoint(ec).port();
  asio::post(net().io(), [listener] { listener->acceptNext(); });
  return listener;
}

void NetListener::acceptNext() {
  auto next = std::shared_ptr<NetConnection>(
      new NetConnection(std::make_unique<NetConnection::Impl>(NetConnection::Endpoint{}, nullptr)));
  impl_->next = next;
  impl_->acceptor.async_accept(next->impl_->socket, [weak = weak_from_this(),
                                                     next](const error_code& ec) {
    auto self = weak.lock();
    if (!self || ec == asio::error::operation_aborted || !self->impl_->acceptor.is_open()) return;
    if (ec) {
      // Out of descriptors or the like: a moment's rest rather than a busy loop.
      auto rest = std::make_shared<asio::steady_timer>(net().io(), std::chrono::milliseconds(100));
      rest->async_wait([weak, rest](const error_code&) {
        if (auto again = weak.lock()) again->acceptNext();
      });
      return;
    }
    error_code ignored;
    next->impl_->socket.set_option(tcp::no_delay(true), ignored);
    next->impl_->isReady = true;
    if (self->impl_->onAccept) self->impl_->onAccept(next);
    self->acceptNext();
  });
}

void NetListener::stop() {
  if (!impl_) return;
  asio::post(net().io(), [impl = impl_] {
    error_code ignored;
    impl->acceptor.close(ignored);
  });
}

}  // namespace qvn
