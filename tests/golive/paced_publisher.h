// Publishing through RTMPSocket as a camera would, for the tests and the bench: one attempt
// with its callbacks turned into something a thread can wait on, and a clip sent in real
// time, each message when its timestamp comes due, passes looped end to end.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>

#include "golive/flv_tags.h"
#include "golive/rtmp_socket.h"

namespace qvn::test {

class Publication {
 public:
  enum class Outcome { ready, failed, undecided };

  // Makes the socket, hooks its callbacks and connects.
  Publication(const std::string& url, const std::string& key);
  // Closes the socket: an orderly end, after which no callback comes.
  ~Publication();
  Publication(const Publication&) = delete;
  Publication& operator=(const Publication&) = delete;

  // Ready or failed, whichever came first; undecided when `seconds` passed without either.
  Outcome waitUntilDecided(double seconds);
  // True once `onFailed` has come, waiting at most `seconds` for it.
  bool waitForFailure(double seconds);

  int readyCount() const;
  int failureCount() const;
  std::string failure() const;  // the first failure's text
  RTMPSocket& socket() { return *socket_; }
  void close();

 private:
  // Shared with the callbacks, which may outlive this object on the network thread.
  struct State {
    mutable std::mutex lock;
    std::condition_variable changed;
    int ready = 0;
    int failed = 0;
    std::string failure;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
  std::shared_ptr<RTMPSocket> socket_;
};

struct PaceTick {
  const FlvTag& tag;
  std::uint32_t timestamp;  // as sent: the tag's own plus the passes before it
  double lagSeconds;        // how late against the clock it goes out
};

struct PaceOptions {
  double maxSeconds = 60;  // of stream
  // Before each media message; false ends the publish.
  std::function<bool(const PaceTick&)> beforeSend;
  // The body to send in place of the tag's own; none: the tag's.
  std::function<std::span<const std::uint8_t>(const FlvTag&)> bodyFor;
};

struct PaceResult {
  std::int64_t messages = 0;
  std::int64_t bodyBytes = 0;
  double streamSeconds = 0;
  double maxLagSeconds = 0;
};

// Sends the clip's sequence headers, then its media paced by timestamps on the calling
// thread, which owns the socket meanwhile. The socket must be ready.
PaceResult publishPaced(RTMPSocket& socket, const FlvClip& clip, const PaceOptions& options);

}  // namespace qvn::test
