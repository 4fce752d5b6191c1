// The per-user settings store: one flat map of "qvn.*" keys to typed values, kept in a JSON
// file that is replaced atomically. Thread-safe: any thread may read or write.
//
// A write updates memory at once and reaches the disk shortly after on the store's own
// writer thread (bursts coalesce into one file write); `synchronize()` writes now. After a
// completed write the file survives a crash of the process.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/settings_value.h"

namespace qvn {

class Defaults {
 public:
  // Loads `file`. A file that does not decode is moved aside as "NAME.bad-<stamp>" and the
  // store starts empty; `recoveryNote()` then says what happened, for the caller to log.
  explicit Defaults(std::filesystem::path file);
  ~Defaults();  // writes what is pending
  Defaults(const Defaults&) = delete;
  Defaults& operator=(const Defaults&) = delete;

  bool contains(const std::string& key) const;
  std::optional<SettingsValue> object(const std::string& key) const;

  // Typed reads: none when the key is absent or holds another type.
  std::optional<bool> boolean(const std::string& key) const;
  std::optional<std::int64_t> integer(const std::string& key) const;
  std::optional<double> real(const std::string& key) const;
  std::optional<std::string> text(const std::string& key) const;
  std::optional<SettingsBytes> bytes(const std::string& key) const;
  std::optional<SettingsList> list(const std::string& key) const;
  std::optional<SettingsDict> dict(const std::string& key) const;

  void set(const std::string& key, SettingsValue value);
  void remove(const std::string& key);

  // Writes pending changes now; returns false when the write failed (the next one retries).
  bool synchronize();

  const std::filesystem::path& file() const;
  const std::optional<std::string>& recoveryNote() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace qvn
