// Where streams go: the user's destinations, and the deletion of stream sessions, which
// must outlive a lost network, a lost token and a quit.
#include <algorithm>

#include "cloud/account.h"
#include "support/qvn_log.h"

namespace qvn {

void CloudAccount::loadDestinations() {
  transport_.request("GET", "/v1/destinations", std::nullopt, true, [this](CloudResult r) {
    if (!r.error) destinations = QvnCloud::parseDestinations(r.json);
  });
}

void CloudAccount::toggle(const std::string& destinationID, bool enabled) {
  auto known = std::find_if(destinations().begin(), destinations().end(),
                            [&](auto& d) { return d.id == destinationID; });
  if (known == destinations().end()) return;
  const bool before = known->isEnabled;
  const std::string name = QvnCloud::platformName(known->platform);
  auto set = [this, destinationID](bool on) {
    destinations.modify([&](auto& list) {
      for (auto& d : list)
        if (d.id == destinationID) d.isEnabled = on;
    });
  };
  set(enabled);
  transport_.request("PUT", "/v1/destinations/" + destinationID,
                     nlohmann::json{{"is_enabled", enabled}}, true,
                     [this, set, before, enabled, name](CloudResult r) {
                       if (!r.error) return;
                       set(before);
                       error = name + " could not be turned " + (enabled ? "on" : "off") + ": " +
                               goLiveMessage(*r.error);
                     });
}

void CloudAccount::deleteLiveSession(const std::string& id, std::function<void()> then) {
  const std::string what = "golive DELETE /v1/streams/sessions/" + id;
  if (!then) then = [] {};
  if (!transport_.accessToken()) {
    pendingDeletes_.add(id);
    QvnLog::line(what + " queued (no token)");
    then();
    return;
  }
  transport_.request(
      "DELETE", "/v1/streams/sessions/" + id, std::nullopt, true,
      [this, id, what, then](CloudResult r) {
        if (!r.error) {
          pendingDeletes_.remove(id);
          QvnLog::line(what + " succeeded");
        } else if (transport_.accessToken() && r.error->fromAPI() && r.error->code != 401) {
          // The server has said no for good (it may already be gone).
          QvnLog::line(what + " failed: " + r.error->text);
        } else {
          // No token, a lost sign-in or no network: a later start retries.
          pendingDeletes_.add(id);
          QvnLog::line(what + " queued: " + r.error->text);
        }
        then();
      });
}

void CloudAccount::flushPendingDeletes() {
  if (!transport_.accessToken()) return;
  flushFrom(pendingDeletes_.ids());
}

// One at a time, in order; the first failure ends the pass and leaves the rest queued. The
// running session's own id waits for its stream to end.
void CloudAccount::flushFrom(std::vector<std::string> ids) {
  if (ids.empty()) return;
  const std::string id = ids.front();
  ids.erase(ids.begin());
  if (isStreamRunning(livePhase()) && liveSession_ && liveSession_->id == id) {
    flushFrom(std::move(ids));
    return;
  }
  transport_.request(
      "DELETE", "/v1/streams/sessions/" + id, std::nullopt, true,
      [this, id, rest = std::move(ids)](CloudResult r) {
        if (r.error) {
          QvnLog::line("golive DELETE queued session " + id + " still pending: " + r.error->text);
          return;
        }
        pendingDeletes_.remove(id);
        QvnLog::line("golive DELETE queued session " + id + " succeeded");
        flushFrom(rest);
      });
}

}  // namespace qvn
