#include "platform/single_instance.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace qvn {

namespace {

constexpr size_t kMessageLimit = 16 * 1024;

bool addressOf(const std::filesystem::path& path, sockaddr_un& address) {
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, text.c_str(), text.size());
  return true;
}

int connectTo(const std::filesystem::path& path) {
  sockaddr_un address;
  if (!addressOf(path, address)) return -1;
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

}  // namespace

bool SingleInstance::sendToRunning(const std::filesystem::path& socket,
                                   const std::string& message) {
  const int fd = connectTo(socket);
  if (fd < 0) return false;
  const std::string line = message + "\n";
  size_t sent = 0;
  while (sent < line.size()) {
    const ssize_t n = ::send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += size_t(n);
  }
  ::close(fd);
  return sent == line.size();
}

std::unique_ptr<SingleInstance> SingleInstance::listen(const std::filesystem::path& socket,
                                                       Handler onMessage, std::string& error) {
  if (const int running = connectTo(socket); running >= 0) {
    ::close(running);
    error = "another studio is running";
    return nullptr;
  }
  sockaddr_un address;
  if (!addressOf(socket, address)) {
    error = "the socket path is too long";
    return nullptr;
  }
  std::error_code ignored;
  std::filesystem::create_directories(socket.parent_path(), ignored);
  std::filesystem::remove(socket, ignored);  // left by a studio that ended abruptly
  std::unique_ptr<SingleInstance> self(new SingleInstance);
  self->path_ = socket;
  self->onMessage_ = std::move(onMessage);
  self->socket_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (self->socket_ < 0 ||
      ::bind(self->socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(self->socket_, 4) != 0 || ::pipe2(self->wake_, O_CLOEXEC) != 0) {
    error = std::strerror(errno);
    return nullptr;
  }
  self->thread_ = std::thread([raw = self.get()] { raw->run(); });
  return self;
}

SingleInstance::~SingleInstance() {
  if (wake_[1] >= 0) (void)!::write(wake_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  for (int fd : {socket_, wake_[0], wake_[1]})
    if (fd >= 0) ::close(fd);
  if (socket_ >= 0) {
    std::error_code ignored;
    std::filesystem::remove(path_, ignored);
  }
}

void SingleInstance::run() {
  pthread_setname_np(pthread_self(), "qvn-instance");
  for (;;) {
    pollfd fds[2] = {{socket_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents) return;
    const int client = ::accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    // A sender writes its line and closes; a slow or silent one is given a second.
    std::string text;
    char buffer[4096];
    pollfd readable{client, POLLIN, 0};
    while (text.size() < kMessageLimit && ::poll(&readable, 1, 1000) > 0) {
      const ssize_t n = ::recv(client, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      text.append(buffer, size_t(n));
    }
    ::close(client);
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
      if (end > start && onMessage_) onMessage_(text.substr(start, end - start));
  }
}

}  // namespace qvn
