// The signed-in account and its live session, as the studio needs them. Main thread.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace qvn {

// Where a stream session stands. A stream counts as running while connecting, live or
// stopping.
enum class LivePhase { idle, connecting, live, stopping, ended, error };

class QvnCloudAccount {
 public:
  virtual ~QvnCloudAccount() = default;
  // Any observable change of the account.
  std::function<void()> onChange;

  virtual void restore() = 0;
  virtual LivePhase livePhase() const = 0;
  virtual bool publishing() const = 0;
  // A text that begins "Permission needed" is shown by the account's banner.
  virtual void setPermissionMessage(std::optional<std::string> text) = 0;
  // Ends a running live session at quit, waiting at most `timeoutSeconds`.
  virtual void endLiveBlocking(double timeoutSeconds) = 0;
};

class QvnCloudAccountNotYetAvailable final : public QvnCloudAccount {
 public:
  void restore() override {}
  LivePhase livePhase() const override { return LivePhase::idle; }
  bool publishing() const override { return false; }
  void setPermissionMessage(std::optional<std::string>) override {}
  void endLiveBlocking(double) override {}
};

}  // namespace qvn
