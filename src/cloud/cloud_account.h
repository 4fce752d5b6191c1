// The signed-in account and its live session, as the studio needs them: the user's
// destinations, the phase of the stream session, its clock and per-destination states, and
// the embed link. State is observable; operations that reach the cloud answer later, on the
// main queue. Main thread.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cloud/stream_wire.h"
#include "support/observable.h"

namespace qvn {

// Where a stream session stands. A stream counts as running while connecting, live or
// stopping; `error` keeps its words in `liveFailure`.
enum class LivePhase { idle, connecting, live, stopping, ended, error };

inline bool isStreamRunning(LivePhase phase) {
  return phase == LivePhase::connecting || phase == LivePhase::live || phase == LivePhase::stopping;
}

// What the ended view reports of the last stream.
struct LiveSummary {
  int seconds = 0;
  int destinations = 0;
  std::optional<std::string> failure;
  bool operator==(const LiveSummary&) const = default;
};

class QvnCloudAccount {
 public:
  virtual ~QvnCloudAccount() = default;
  // Any observable change of the account.
  std::function<void()> onChange;

  // ---- State
  Observable<std::vector<QvnCloud::Destination>> destinations;
  // The last failure the operator should read, in their words.
  Observable<std::optional<std::string>> error;
  Observable<bool> online{false};
  Observable<bool> signedOutWhileLive{false};
  Observable<LivePhase> livePhase{LivePhase::idle};
  Observable<std::string> liveFailure;  // why the phase is `error`
  Observable<bool> publishing{false};   // the ingest confirmed the stream
  Observable<std::string> liveClock{"00:00"};
  Observable<std::vector<QvnCloud::SessionDestination>> sessionDestinations;
  Observable<bool> destinationStatusUnavailable{false};
  Observable<long> droppedVideoFrames{0};
  Observable<QvnCloud::EmbedLink> embedLink;
  Observable<std::optional<LiveSummary>> lastLiveSummary;

  virtual void restore() = 0;
  virtual bool hasAccessToken() = 0;
  // Where the user manages destinations, as a host name to read ("quorvane.com").
  virtual std::string dashboardHost() const = 0;
  // The dashboard's page for destinations, to open in a browser.
  virtual std::string dashboardURL() const = 0;
  // A text that begins "Permission needed" is shown by the account's banner.
  virtual void setPermissionMessage(std::optional<std::string> text) = 0;

  // ---- Destinations and sessions
  virtual void loadDestinations() = 0;
  virtual void toggle(const std::string& destinationID, bool enabled) = 0;
  // Opens a session for the eligible destinations; none after a failure, with `error` set.
  virtual void startLive(std::function<void(std::optional<QvnCloud::Session>)> done) = 0;
  virtual void markLive() = 0;
  virtual void noteReconnecting() = 0;
  virtual void failLive(const std::string& message) = 0;
  // Stops the publisher and ends and deletes the session; `done` once the phase is `ended`.
  virtual void endLive(std::function<void()> done) = 0;
  virtual void loadEmbedLink() = 0;
  virtual void createEmbedLink() = 0;
  // Ends a running live session at quit, waiting at most `timeoutSeconds`.
  virtual void endLiveBlocking(double timeoutSeconds) = 0;
};

class QvnCloudAccountNotYetAvailable final : public QvnCloudAccount {
 public:
  void restore() override {}
  bool hasAccessToken() override { return false; }
  std::string dashboardHost() const override { return {}; }
  std::string dashboardURL() const override { return {}; }
  void setPermissionMessage(std::optional<std::string>) override {}
  void loadDestinations() override {}
  void toggle(const std::string&, bool) override {}
  void startLive(std::function<void(std::optional<QvnCloud::Session>)> done) override {
    done(std::nullopt);
  }
  void markLive() override {}
  void noteReconnecting() override {}
  void failLive(const std::string&) override {}
  void endLive(std::function<void()> done) override { done(); }
  void loadEmbedLink() override {}
  void createEmbedLink() override {}
  void endLiveBlocking(double) override {}
};

}  // namespace qvn
