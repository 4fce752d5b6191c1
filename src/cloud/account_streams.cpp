// Where streams go: the user's destinations, and the deletion of stream sessions, which
// must outlive a lost network, a lost token and a quit.
#include <algorithm>

#include "cloud/account.h"
#include "platform/defaults.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {
constexpr const char* kPendingDeletesKey = "qvn.pendingSessionDeletes";
}

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

std::vector<std::string> CloudAccount::pendingDeletes() {
  std::vector<std::string> ids;
  if (auto list = services_.transport.settings.list(kPendingDeletesKey))
    for (const auto& item : *list)
      if (auto id = item.asText()) ids.push_back(*id);
  return ids;
}

void CloudAccount::setPendingDeletes(const std::vector<std::string>& ids) {
  SettingsList list;
  for (const auto& id : ids)
    if (std::find(list.begin(), list.end(), SettingsValue(id)) == list.end()) list.emplace_back(id);
  services_.transport.settings.set(kPendingDeletesKey, std::move(list));
}

void CloudAccount::deleteLiveSession(const std::string& id) {
  const std::string what = "golive DELETE /v1/streams/sessions/" + id;
  auto queue = [this, id] {
    auto ids = pendingDeletes();
    ids.push_back(id);
    setPendingDeletes(ids);
  };
  if (!transport_.accessToken()) {
    queue();
    QvnLog::line(what + " queued (no token)");
    return;
  }
  transport_.request(
      "DELETE", "/v1/streams/sessions/" + id, std::nullopt, true,
      [this, id, what, queue](CloudResult r) {
        if (!r.error) {
          auto ids = pendingDeletes();
          std::erase(ids, id);
          setPendingDeletes(ids);
          QvnLog::line(what + " succeeded");
        } else if (transport_.accessToken() && r.error->fromAPI() && r.error->code != 401) {
          // The server has said no for good (it may already be gone): nothing to retry.
          QvnLog::line(what + " failed: " + r.error->text);
        } else {
          // No token, a lost sign-in or no network: a later start or reconnection retries.
          queue();
          QvnLog::line(what + " queued: " + r.error->text);
        }
      });
}

void CloudAccount::flushPendingDeletes() {
  if (!transport_.accessToken()) return;
  flushFrom(pendingDeletes());
}

// One at a time, in order; the first failure ends the pass and leaves the rest queued.
void CloudAccount::flushFrom(std::vector<std::string> ids) {
  if (ids.empty()) return;
  const std::string id = ids.front();
  ids.erase(ids.begin());
  transport_.request(
      "DELETE", "/v1/streams/sessions/" + id, std::nullopt, true,
      [this, id, rest = std::move(ids)](CloudResult r) {
        if (r.error) {
          QvnLog::line("golive DELETE queued session " + id + " still pending: " + r.error->text);
          return;
        }
        auto queued = pendingDeletes();
        std::erase(queued, id);
        setPendingDeletes(queued);
        QvnLog::line("golive DELETE queued session " + id + " succeeded");
        flushFrom(rest);
      });
}

}  // namespace qvn
