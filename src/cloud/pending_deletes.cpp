#include "cloud/pending_deletes.h"

#include <algorithm>

#include "platform/defaults.h"

namespace qvn {

namespace {
constexpr const char* kKey = "qvn.pendingSessionDeletes";
}

std::vector<std::string> PendingSessionDeletes::ids() const {
  std::vector<std::string> ids;
  if (auto list = settings_.list(kKey))
    for (const auto& item : *list)
      if (auto id = item.asText()) ids.push_back(*id);
  return ids;
}

void PendingSessionDeletes::add(const std::string& id) {
  auto all = ids();
  all.push_back(id);
  store(all);
}

void PendingSessionDeletes::remove(const std::string& id) {
  auto all = ids();
  std::erase(all, id);
  store(all);
}

void PendingSessionDeletes::store(const std::vector<std::string>& ids) {
  SettingsList list;
  for (const auto& id : ids)
    if (std::find(list.begin(), list.end(), SettingsValue(id)) == list.end()) list.emplace_back(id);
  settings_.set(kKey, std::move(list));
}

}  // namespace qvn
