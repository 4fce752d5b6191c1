// A stream session from its creation to its deletion: the strict reading of what the cloud
// returns, the phases the Go Live sheet follows, the clock, the destinations' states polled
// with a growing wait while the cloud doesn't answer, and the end, also at quit.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "cloud/account.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

constexpr double kStatusSeconds = 5;
constexpr int kMostBackoffSteps = 4;

std::string textOf(const nlohmann::json& j, const char* key) {
  auto it = j.is_object() ? j.find(key) : j.end();
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

const nlohmann::json* objectAt(const nlohmann::json& j, const char* key) {
  auto it = j.is_object() ? j.find(key) : j.end();
  return it != j.end() && it->is_object() ? &*it : nullptr;
}

std::string redactedText(const nlohmann::json& reply) {
  try {
    return QvnLog::redacted(reply).dump();
  } catch (const nlohmann::json::exception&) {
    std::vector<std::string> keys;
    if (reply.is_object())
      for (const auto& [key, value] : reply.items()) keys.push_back(key);
    std::sort(keys.begin(), keys.end());
    std::string joined;
    for (const auto& k : keys) joined += (joined.empty() ? "" : ",") + k;
    return "(unserializable) keys=" + joined;
  }
}

std::string clockText(long seconds) {
  char text[32];
  if (seconds < 3600)
    std::snprintf(text, sizeof text, "%02ld:%02ld", seconds / 60, seconds % 60);
  else
    std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", seconds / 3600, seconds / 60 % 60,
                  seconds % 60);
  return text;
}

}  // namespace

std::string CloudAccount::dashboardHost() const {
  std::string host = services_.transport.apiBase;
  if (auto scheme = host.find("://"); scheme != std::string::npos) host.erase(0, scheme + 3);
  if (auto path = host.find('/'); path != std::string::npos) host.erase(path);
  return host;
}

std::string CloudAccount::dashboardURL() const {
  return services_.transport.apiBase + "/dashboard";
}

void CloudAccount::startLive(std::function<void(std::optional<QvnCloud::Session>)> done) {
  const auto chosen = QvnCloud::eligibleDestinations(destinations());
  if (chosen.empty()) {
    error = QvnCloud::noDestinationMessage(destinations(), dashboardHost(), false);
    done(std::nullopt);
    return;
  }
  nlohmann::json ids = nlohmann::json::array();
  for (const auto& d : chosen) ids.push_back(d.id);
  transport_.request("POST", "/v1/streams/sessions",
                     nlohmann::json{{"destination_ids", ids},
                                    {"device_id", transport_.deviceID()},
                                    {"needs_rotation", false}},
                     true, [this, done](CloudResult r) {
                       if (r.error) {
                         error = goLiveMessage(*r.error);
                         done(std::nullopt);
                         return;
                       }
                       done(openSession(r.json));
                     });
}

// Nothing is guessed: a session without its ingest or with settings that can't be read is
// refused and deleted at once, so none stays open on the cloud.
std::optional<QvnCloud::Session> CloudAccount::openSession(const nlohmann::json& reply) {
  QvnLog::line("golive session create JSON " + redactedText(reply));
  const nlohmann::json& object = QvnCloud::sessionObject(reply);
  QvnCloud::Session session{
      textOf(object, "id"), textOf(object, "ingest_url"), textOf(object, "stream_key"), {}};
  if (session.id.empty() || session.ingestUrl.empty() || session.streamKey.empty()) {
    if (!session.id.empty()) deleteLiveSession(session.id);
    error = "The web engine did not return an ingest URL.";
    return std::nullopt;
  }
  const nlohmann::json* config = objectAt(object, "stream_config");
  if (!config) config = objectAt(reply, "stream_config");
  QvnLog::line(config ? "golive stream_config raw " + redactedText(*config)
                      : "golive stream_config raw missing");
  auto parsed = QvnCloud::parseStreamConfig(config);
  if (auto* reason = std::get_if<std::string>(&parsed)) {
    QvnLog::line("golive stream_config rejected: " + *reason + " — deleting session " + session.id);
    deleteLiveSession(session.id);
    error = reason->empty() ? "stream_config could not be parsed." : *reason;
    return std::nullopt;
  }
  session.streamConfig = std::get<QvnCloud::StreamConfig>(parsed);
  const auto& c = session.streamConfig;
  QvnLog::line("golive stream_config parsed " + std::to_string(c.width) + "×" +
               std::to_string(c.height) + " @" + std::to_string(c.fps) +
               "fps video=" + std::to_string(c.videoBitrate / 1000) +
               "kbps audio=" + std::to_string(c.audioBitrate / 1000) + "kbps");

  guard_.hold(session.id, transport_.accessToken());
  liveSession_ = session;
  setLivePhase(LivePhase::connecting);
  publishing = false;
  liveClock = "00:00";
  liveStarted_.reset();
  statusBackoffStep_ = 0;
  startStatusTimer(kStatusSeconds);
  logEvent("stream_start");
  refreshSessionStatus();
  return session;
}

void CloudAccount::setLivePhase(LivePhase phase) {
  if (phase != LivePhase::error) liveFailure = "";
  livePhase = phase;
}

void CloudAccount::markLive() {
  if (!liveSession_) return;
  setLivePhase(LivePhase::live);
  publishing = true;
  if (!liveStarted_) {
    liveStarted_ = transport_.main().now();
    clockTimer_ = RepeatingTimer(transport_.main(), 1.0, [this] { tickClock(); });
  }
  QvnLog::line("golive phase live");
}

void CloudAccount::tickClock() {
  if (!liveStarted_) return;
  liveClock = clockText(long(std::floor(transport_.main().now() - *liveStarted_)));
}

void CloudAccount::noteReconnecting() {
  if (!liveSession_) return;
  setLivePhase(LivePhase::connecting);
  publishing = false;
  QvnLog::line("golive phase connecting (reconnect)");
}

void CloudAccount::failLive(const std::string& message) {
  if (lastLiveSummary()) lastLiveSummary.modify([&](auto& s) { s->failure = message; });
  liveFailure = message;
  livePhase = LivePhase::error;
  QvnLog::line("golive phase error " + message);
}

void CloudAccount::endLive(std::function<void()> done) {
  if (endingLive_) {
    done();
    return;
  }
  endingLive_ = true;
  // A stream that ended in a failure keeps it, so the ended view says it was interrupted.
  std::optional<std::string> failure;
  if (livePhase() == LivePhase::error) failure = liveFailure();
  const int seconds = liveStarted_ ? int(std::floor(transport_.main().now() - *liveStarted_)) : 0;
  lastLiveSummary =
      LiveSummary{seconds, int(QvnCloud::eligibleDestinations(destinations()).size()), failure};
  setLivePhase(LivePhase::stopping);
  logEvent("stream_end");
  statusTimer_.cancel();
  destinationStatusUnavailable = false;
  sessionDestinations = std::vector<QvnCloud::SessionDestination>{};
  clockTimer_.cancel();
  liveStarted_.reset();
  publishing = false;
  services_.stopPublisher();

  auto finish = [this, done, failure] {
    liveSession_.reset();
    guard_.clear();
    signedOutWhileLive = false;
    if (failure) {
      liveFailure = *failure;
      livePhase = LivePhase::error;
    } else {
      livePhase = LivePhase::ended;
    }
    QvnLog::line("golive phase ended");
    endingLive_ = false;
    done();
  };
  if (liveSession_)
    deleteLiveSession(liveSession_->id, finish);
  else
    finish();
}

void CloudAccount::startStatusTimer(double seconds) {
  statusTimer_ = RepeatingTimer(transport_.main(), seconds, [this] { refreshSessionStatus(); });
}

// A failure here never touches the stream itself: the destinations' states are only shown.
void CloudAccount::refreshSessionStatus() {
  if (!liveSession_) return;
  const std::string id = liveSession_->id;
  transport_.request(
      "GET", "/v1/streams/sessions/" + id, std::nullopt, true, [this, id](CloudResult r) {
        if (!liveSession_ || liveSession_->id != id) return;
        if (!r.error) {
          sessionDestinations = QvnCloud::parseSessionDestinations(r.json, destinations());
          destinationStatusUnavailable = false;
          droppedVideoFrames = services_.publisherDrops();
          if (statusBackoffStep_ != 0) {
            statusBackoffStep_ = 0;
            startStatusTimer(kStatusSeconds);
          }
          return;
        }
        QvnLog::line("golive status unavailable: " + r.error->text);
        if (isRefreshRevoked(*r.error)) return;
        destinationStatusUnavailable = true;
        noteAuthUnavailable();
        statusBackoffStep_ = std::min(statusBackoffStep_ + 1, kMostBackoffSteps);
        startStatusTimer(std::min(kStatusSeconds * std::pow(2.0, statusBackoffStep_ - 1), 60.0));
      });
}

void CloudAccount::loadEmbedLink() {
  embedLink = QvnCloud::EmbedLink{QvnCloud::EmbedLink::Kind::loading};
  transport_.request("GET", "/v1/embed", std::nullopt, true,
                     [this](CloudResult r) { embedReplied(r); });
}

void CloudAccount::createEmbedLink() {
  embedLink = QvnCloud::EmbedLink{QvnCloud::EmbedLink::Kind::loading};
  transport_.request("POST", "/v1/embed", nlohmann::json::object(), true,
                     [this](CloudResult r) { embedReplied(r); });
}

void CloudAccount::embedReplied(const CloudResult& r) {
  using Kind = QvnCloud::EmbedLink::Kind;
  if (!r.error) {
    embedLink = QvnCloud::parseEmbedLink(r.json);
  } else if (!r.error->fromAPI()) {
    embedLink = QvnCloud::EmbedLink{
        Kind::failed, {}, false, "Could not reach Quorvane. Check your connection."};
  } else if (const int code = r.error->code; code == 404 || code == 405 || code == 501) {
    embedLink = QvnCloud::EmbedLink{Kind::unavailable};
  } else {
    embedLink = QvnCloud::EmbedLink{
        Kind::failed,
        {},
        false,
        "Quorvane could not load your embed link (" + std::to_string(code) + ")."};
  }
}

// At quit, on the main thread but without its queue: one request, at most `timeoutSeconds`.
// A session not deleted in time stays queued and goes at the next start.
void CloudAccount::endLiveBlocking(double timeoutSeconds) {
  services_.stopPublisher();
  const auto record = guard_.record();
  if (!record) return;
  const std::string what = "golive DELETE /v1/streams/sessions/" + record->sessionID;
  if (!record->token) {
    pendingDeletes_.add(record->sessionID);
    QvnLog::line(what + " queued (no token)");
    return;
  }
  const auto outcome =
      QvnLiveSessionGuard::deleteBlocking(services_.transport.apiBase, *record, timeoutSeconds);
  if (outcome.deleted()) {
    pendingDeletes_.remove(record->sessionID);
    guard_.clear();
    QvnLog::line(what + " succeeded");
    return;
  }
  pendingDeletes_.add(record->sessionID);
  QvnLog::line(what + " failed (blocking code=" + std::to_string(outcome.code) +
               " error=" + outcome.error + ")");
}

}  // namespace qvn
