// One studio per user: the first to start listens on a Unix socket in the state folder; a
// later start (as a browser hands back a "quorvanestudio:" address) passes its message to
// that one and ends. Messages are one line of text each. The listener's thread is its own;
// `onMessage` is called from it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace qvn {

class SingleInstance {
 public:
  using Handler = std::function<void(const std::string& message)>;

  // True when a running studio took `message`.
  static bool sendToRunning(const std::filesystem::path& socket, const std::string& message);
  // Listens at `socket`, replacing a stale one left by a studio that ended without cleaning
  // up; none (with `error`) when another studio is listening there.
  static std::unique_ptr<SingleInstance> listen(const std::filesystem::path& socket,
                                                Handler onMessage, std::string& error);
  ~SingleInstance();

 private:
  SingleInstance() = default;
  void run();
  std::filesystem::path path_;
  Handler onMessage_;
  int socket_ = -1;
  int wake_[2] = {-1, -1};
  std::thread thread_;
};

}  // namespace qvn
