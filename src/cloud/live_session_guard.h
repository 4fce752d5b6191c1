// The running stream session's id and the newest access token, kept apart from the account
// so that the quitting studio can end the session with one blocking request that never
// needs the main queue. Any thread: its own lock.
#pragma once

#include <mutex>
#include <optional>
#include <string>

namespace qvn {

class QvnLiveSessionGuard {
 public:
  struct Record {
    std::string sessionID;
    std::optional<std::string> token;
  };
  // What the blocking delete met: an HTTP status (0 for none) and why it failed.
  struct Outcome {
    int code = 0;
    std::string error;
    bool deleted() const { return code >= 200 && code < 300; }
  };

  void hold(std::string sessionID, std::optional<std::string> token);
  // Every refresh hands the new token over, so a delete at quit never uses a stale one.
  void takeToken(std::optional<std::string> token);
  void clear();
  std::optional<Record> record() const;

  // DELETE {apiBase}/v1/streams/sessions/{id}, waiting at most `timeoutSeconds`. The reply
  // comes on a queue of its own, so the caller may be the main thread.
  static Outcome deleteBlocking(const std::string& apiBase, const Record& record,
                                double timeoutSeconds);

 private:
  mutable std::mutex lock_;
  std::optional<Record> record_;
};

}  // namespace qvn
