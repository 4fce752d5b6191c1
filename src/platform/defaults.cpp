#include "platform/defaults.h"

#include "platform/base64.h"

#include <limits>
#include <mutex>
#include <nlohmann/json.hpp>

#include "platform/dispatch.h"
#include "platform/files.h"

namespace qvn {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

// JSON has no bytes, so they travel as {"$bytes": "<base64>"}. A dictionary the user stored
// that is exactly {"$bytes": <text>} reads back as bytes (or is dropped if the text is not
// base64); no setting of ours has that shape, and escaping every dict to avoid it would make
// the file harder for people to read.
constexpr const char* kBytesKey = "$bytes";

json toJson(const SettingsValue& value) {
  return std::visit(
      [](const auto& v) -> json {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, SettingsBytes>) {
          return json{{kBytesKey, base64Encode(v)}};
        } else if constexpr (std::is_same_v<T, SettingsList>) {
          json array = json::array();
          for (const auto& item : v) array.push_back(toJson(item));
          return array;
        } else if constexpr (std::is_same_v<T, SettingsDict>) {
          json object = json::object();
          for (const auto& [key, item] : v) object[key] = toJson(item);
          return object;
        } else {
          // NaN and infinities come out as null and are dropped on the next load; no setting
          // of ours holds one.
          return json(v);
        }
      },
      value.value);
}

// None when any part of the value has no settings type (null, a huge unsigned, bad bytes).
std::optional<SettingsValue> fromJson(const json& j) {
  switch (j.type()) {
    case json::value_t::boolean:
      return SettingsValue(j.get<bool>());
    case json::value_t::number_integer:
      return SettingsValue(j.get<std::int64_t>());
    case json::value_t::number_unsigned: {
      // The parser reads every non-negative integer as unsigned.
      const auto u = j.get<std::uint64_t>();
      if (u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
        return std::nullopt;
      return SettingsValue(static_cast<std::int64_t>(u));
    }
    case json::value_t::number_float:
      return SettingsValue(j.get<double>());
    case json::value_t::string:
      return SettingsValue(j.get<std::string>());
    case json::value_t::array: {
      SettingsList list;
      list.reserve(j.size());
      for (const auto& item : j) {
        auto value = fromJson(item);
        if (!value) return std::nullopt;
        list.push_back(std::move(*value));
      }
      return SettingsValue(std::move(list));
    }
    case json::value_t::object: {
      if (j.size() == 1 && j.contains(kBytesKey)) {
        const json& encoded = j[kBytesKey];
        if (!encoded.is_string()) return std::nullopt;
        auto bytes = base64Decode(encoded.get_ref<const std::string&>());
        if (!bytes) return std::nullopt;
        return SettingsValue(std::move(*bytes));
      }
      SettingsDict dict;
      for (const auto& [key, item] : j.items()) {
        auto value = fromJson(item);
        if (!value) return std::nullopt;
        dict.emplace(key, std::move(*value));
      }
      return SettingsValue(std::move(dict));
    }
    default:
      return std::nullopt;
  }
}

}  // namespace

struct Defaults::State {
  fs::path file;
  std::optional<std::string> recoveryNote;

  mutable std::mutex mutex;  // guards the three below
  SettingsDict values;
  bool dirty = false;
  bool flushPending = false;

  std::mutex writeMutex;  // one file write at a time, in snapshot order

  // Last, so it is destroyed (and its thread joined) before anything its jobs touch.
  SerialQueue writer{"io.quorvane.settings", QueuePriority::utility};

  void load();
  bool markDirty();  // with `mutex` held; true when a flush must be posted
  void postFlush();
  bool flush();

  template <typename T, typename Pick>
  std::optional<T> read(const std::string& key, Pick pick) const {
    std::lock_guard lock(mutex);
    const auto it = values.find(key);
    if (it == values.end()) return std::nullopt;
    return pick(it->second);
  }
};

void Defaults::State::load() {
  std::error_code ec;
  const auto content = readFile(file);
  if (!content && !fs::exists(fs::symlink_status(file, ec))) return;  // first run

  json document = content ? json::parse(*content, nullptr, false) : json(json::value_t::discarded);
  if (document.is_object()) {
    for (const auto& [key, item] : document.items()) {
      // One damaged entry costs only itself; the rest of the user's settings survive.
      if (auto value = fromJson(item)) values.emplace(key, std::move(*value));
    }
    return;
  }

  // Unreadable as a whole: keep it for the user before any write can replace it.
  const std::string name = file.filename().string();
  if (const auto aside = moveAside(file)) {
    recoveryNote = "settings: " + name + " could not be read — kept it as " +
                   aside->filename().string() + " and started from the defaults";
  } else {
    recoveryNote = "settings: " + name +
                   " could not be read and could not be moved aside — started from the defaults";
  }
}

bool Defaults::State::flush() {
  std::lock_guard writing(writeMutex);
  SettingsDict snapshot;
  {
    std::lock_guard lock(mutex);
    flushPending = false;
    if (!dirty) return true;
    dirty = false;
    snapshot = values;
  }
  json document = json::object();
  for (const auto& [key, value] : snapshot) document[key] = toJson(value);
  // Text that is not UTF-8 is written with U+FFFD in place of the bad bytes rather than
  // failing the whole file.
  const std::string bytes = document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
  if (!writeFileAtomically(file, bytes)) return true;
  std::lock_guard lock(mutex);
  dirty = true;  // the next change or synchronize() tries again
  return false;
}

Defaults::Defaults(fs::path file) : state_(std::make_unique<State>()) {
  state_->file = std::move(file);
  state_->load();
}

Defaults::~Defaults() {
  synchronize();
}

bool Defaults::contains(const std::string& key) const {
  std::lock_guard lock(state_->mutex);
  return state_->values.contains(key);
}

std::optional<SettingsValue> Defaults::object(const std::string& key) const {
  return state_->read<SettingsValue>(key, [](const SettingsValue& v) { return v; });
}

std::optional<bool> Defaults::boolean(const std::string& key) const {
  return state_->read<bool>(key, [](const SettingsValue& v) { return v.asBool(); });
}

std::optional<std::int64_t> Defaults::integer(const std::string& key) const {
  return state_->read<std::int64_t>(key, [](const SettingsValue& v) { return v.asInt(); });
}

std::optional<double> Defaults::real(const std::string& key) const {
  return state_->read<double>(key, [](const SettingsValue& v) { return v.asReal(); });
}

std::optional<std::string> Defaults::text(const std::string& key) const {
  return state_->read<std::string>(key, [](const SettingsValue& v) { return v.asText(); });
}

std::optional<SettingsBytes> Defaults::bytes(const std::string& key) const {
  return state_->read<SettingsBytes>(key, [](const SettingsValue& v) { return v.asBytes(); });
}

std::optional<SettingsList> Defaults::list(const std::string& key) const {
  return state_->read<SettingsList>(key, [](const SettingsValue& v) -> std::optional<SettingsList> {
    if (const auto* l = v.asList()) return *l;
    return std::nullopt;
  });
}

std::optional<SettingsDict> Defaults::dict(const std::string& key) const {
  return state_->read<SettingsDict>(key, [](const SettingsValue& v) -> std::optional<SettingsDict> {
    if (const auto* d = v.asDict()) return *d;
    return std::nullopt;
  });
}

void Defaults::set(const std::string& key, SettingsValue value) {
  {
    std::lock_guard lock(state_->mutex);
    const auto it = state_->values.find(key);
    if (it == state_->values.end()) {
      state_->values.emplace(key, std::move(value));
    } else if (it->second == value) {
      return;  // nothing to write
    } else {
      it->second = std::move(value);
    }
    if (!state_->markDirty()) return;
  }
  state_->postFlush();
}

void Defaults::remove(const std::string& key) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->values.erase(key) == 0) return;
    if (!state_->markDirty()) return;
  }
  state_->postFlush();
}

bool Defaults::State::markDirty() {
  dirty = true;
  if (flushPending) return false;  // the flush already on its way takes this change along
  flushPending = true;
  return true;
}

void Defaults::State::postFlush() {
  writer.async([this] { flush(); });
}

bool Defaults::synchronize() {
  return state_->flush();
}

const fs::path& Defaults::file() const {
  return state_->file;
}

const std::optional<std::string>& Defaults::recoveryNote() const {
  return state_->recoveryNote;
}

}  // namespace qvn
