#include "devcloud_server.h"

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <optional>

#include "devcloud_service.h"

namespace qvn::devcloud {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using namespace std::chrono_literals;

constexpr std::uint64_t kLargestBody = 1 << 20;

std::int64_t systemSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Free at the moment of asking; nginx binds it a moment later, which is close enough for a
// tool on this machine alone.
std::uint16_t freeLoopbackPort() {
  asio::io_context io;
  tcp::acceptor probe(io, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  return probe.local_endpoint().port();
}

void toStdout(const std::string& line) {
  std::fprintf(stdout, "%s\n", line.c_str());
  std::fflush(stdout);
}

void toStderr(const std::string& line) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  std::fprintf(stderr, "%s %s\n", stamp, line.c_str());
}

// One client connection: read a request, answer it, again while it keeps alive.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(tcp::socket socket, DevCloudService& service,
             const std::function<void(const std::string&)>& log)
      : stream_(std::move(socket)), service_(service), log_(log) {}

  void read() {
    parser_.emplace();
    parser_->body_limit(kLargestBody);
    // An idle keep-alive connection is closed after a while rather than kept forever.
    stream_.expires_after(60s);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code error, size_t) { self->answer(error); });
  }

 private:
  void answer(beast::error_code error) {
    if (error) {
      stream_.socket().shutdown(tcp::socket::shutdown_both, error);
      return;
    }
    const auto& request = parser_->get();
    HttpCall call{std::string(request.method_string()), std::string(request.target()),
                  request.body(), std::string(request[http::field::authorization])};
    const HttpReply reply = service_.handle(call);
    // The path alone: a query may carry a code.
    if (!reply.quiet)
      log_(call.method + " " + pathOf(call.target) + " " + std::to_string(reply.status));

    response_ = {};
    response_.version(request.version());
    response_.result(reply.status);
    response_.keep_alive(request.keep_alive());
    response_.set(http::field::server, "qvn-devcloud");
    response_.set(http::field::cache_control, "no-store");
    if (reply.status != 204) response_.set(http::field::content_type, reply.contentType);
    for (const auto& [name, value] : reply.headers) response_.set(name, value);
    response_.body() = reply.body;
    response_.prepare_payload();
    http::async_write(stream_, response_,
                      [self = shared_from_this()](beast::error_code writeError, size_t) {
                        if (writeError || !self->response_.keep_alive()) {
                          self->stream_.socket().shutdown(tcp::socket::shutdown_both, writeError);
                          return;
                        }
                        self->read();
                      });
  }

  beast::tcp_stream stream_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  http::response<http::string_body> response_;
  DevCloudService& service_;
  const std::function<void(const std::string&)>& log_;
};

}  // namespace

struct DevCloudServer::Impl {
  // First, so that it outlives everything that runs on it.
  asio::io_context io{1};
  tcp::acceptor acceptor{io};
  std::optional<asio::signal_set> signals;
  ServerHooks hooks;
  std::unique_ptr<DevCloudService> service;
  // Kept from the bind, so other threads can ask while the acceptor is busy.
  std::uint16_t port = 0;
  std::uint16_t ingestPort = 0;

  void accept() {
    acceptor.async_accept([this](beast::error_code error, tcp::socket socket) {
      if (!acceptor.is_open()) return;
      if (!error) std::make_shared<Connection>(std::move(socket), *service, hooks.log)->read();
      accept();
    });
  }
};

DevCloudServer::DevCloudServer(const DevCloudOptions& options, ServerHooks hooks)
    : impl_(std::make_unique<Impl>()) {
  if (!hooks.clock) hooks.clock = systemSeconds;
  if (!hooks.announce) hooks.announce = toStdout;
  if (!hooks.log) hooks.log = toStderr;
  impl_->hooks = std::move(hooks);

  // Loopback only: the test controls and the printed codes are for this machine.
  const tcp::endpoint endpoint(asio::ip::address_v4::loopback(), options.port);
  beast::error_code error;
  impl_->acceptor.open(endpoint.protocol(), error);
  if (!error) impl_->acceptor.set_option(asio::socket_base::reuse_address(true), error);
  if (!error) impl_->acceptor.bind(endpoint, error);
  if (!error) impl_->acceptor.listen(asio::socket_base::max_listen_connections, error);
  if (error)
    throw std::runtime_error("can't listen on 127.0.0.1:" + std::to_string(options.port) + ": " +
                             error.message());
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->ingestPort = options.ingestPort != 0 ? options.ingestPort : freeLoopbackPort();

  impl_->service = std::make_unique<DevCloudService>(ServiceSettings{
      .database = options.database.empty() ? ":memory:" : options.database,
      .accessTtlSeconds = options.accessTtlSeconds,
      .codeTtlSeconds = options.codeTtlSeconds,
      .site = options.site.empty() ? address() : options.site,
      .ingestUrl = "rtmp://127.0.0.1:" + std::to_string(impl_->ingestPort) + "/live",
      .clock = impl_->hooks.clock,
      .announce = impl_->hooks.announce,
      .log = impl_->hooks.log,
  });
  impl_->accept();
}

DevCloudServer::~DevCloudServer() = default;

std::uint16_t DevCloudServer::port() const {
  return impl_->acceptor.local_endpoint().port();
}

const std::function<void(const std::string&)>& DevCloudServer::logger() const {
  return impl_->hooks.log;
}

std::uint16_t DevCloudServer::ingestPort() const {
  return impl_->ingestPort;
}

std::string DevCloudServer::address() const {
  return "http://127.0.0.1:" + std::to_string(port());
}

void DevCloudServer::stopOnSignals() {
  impl_->signals.emplace(impl_->io, SIGINT, SIGTERM);
  impl_->signals->async_wait([this](beast::error_code error, int) {
    if (!error) stop();
  });
}

void DevCloudServer::run() {
  impl_->io.run();
}

void DevCloudServer::stop() {
  impl_->io.stop();
}

}  // namespace qvn::devcloud
