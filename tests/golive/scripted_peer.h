// A server on loopback that plays a script: the test accepts the one connection, reads what
// the client sent and writes what a server would answer, byte by byte if it likes. Blocking
// calls from the test thread, each bounded for liveness only.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace qvn::test {

class ScriptedPeer {
 public:
  ScriptedPeer() {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener_, 1) != 0)
      throw std::runtime_error("scripted peer: no loopback port");
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
  }
  ~ScriptedPeer() {
    closeClient();
    ::close(listener_);
  }

  int port() const { return port_; }

  bool accept(int timeoutMs = 10000) {
    if (!wait(listener_, timeoutMs)) return false;
    client_ = ::accept(listener_, nullptr, nullptr);
    return client_ >= 0;
  }
  // Exactly `n` bytes, or what came before the client closed or the time ran out.
  std::vector<std::uint8_t> read(size_t n, int timeoutMs = 10000) {
    std::vector<std::uint8_t> got;
    while (got.size() < n && wait(client_, timeoutMs)) {
      std::uint8_t buffer[65536];
      const ssize_t r = ::recv(client_, buffer, std::min(sizeof buffer, n - got.size()), 0);
      if (r <= 0) break;
      got.insert(got.end(), buffer, buffer + r);
    }
    return got;
  }
  // Whatever arrives within `quietMs` of silence.
  std::vector<std::uint8_t> readAvailable(int quietMs = 200) {
    std::vector<std::uint8_t> got;
    while (wait(client_, quietMs)) {
      std::uint8_t buffer[65536];
      const ssize_t r = ::recv(client_, buffer, sizeof buffer, 0);
      if (r <= 0) break;
      got.insert(got.end(), buffer, buffer + r);
    }
    return got;
  }
  // True when the client closed its side.
  bool clientClosed(int timeoutMs = 10000) {
    while (wait(client_, timeoutMs)) {
      std::uint8_t byte;
      const ssize_t r = ::recv(client_, &byte, 1, 0);
      if (r <= 0) return true;
    }
    return false;
  }
  void write(const std::vector<std::uint8_t>& bytes) {
    size_t at = 0;
    while (at < bytes.size()) {
      const ssize_t w = ::send(client_, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (w <= 0) return;
      at += size_t(w);
    }
  }
  void closeClient() {
    if (client_ >= 0) ::close(client_);
    client_ = -1;
  }

 private:
  static bool wait(int fd, int timeoutMs) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) > 0;
  }
  int listener_ = -1;
  int client_ = -1;
  int port_ = 0;
};

}  // namespace qvn::test
