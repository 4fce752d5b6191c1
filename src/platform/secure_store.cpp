// The file half of the secure store: a JSON object of account → secret, readable by the
// user alone, held in memory after the first load.

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <system_error>
#include <vector>

#include "platform/files.h"
#include "platform/secure_store.h"

namespace qvn {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr fs::perms kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;

class FileSecureStore final : public SecureStore {
 public:
  FileSecureStore(fs::path file, SecureStoreLog log)
      : file_(std::move(file)), log_(std::move(log)) {
    std::vector<std::string> lines;
    {
      std::lock_guard lock(mutex_);
      load(lines);
    }
    say(lines);
  }

  std::optional<std::string> get(const std::string& account) override {
    std::lock_guard lock(mutex_);
    const auto it = values_.find(account);
    if (it == values_.end()) return std::nullopt;
    return it->second;
  }

  void set(const std::string& value, const std::string& account) override {
    if (value.empty()) return remove(account);
    std::vector<std::string> lines;
    {
      std::lock_guard lock(mutex_);
      auto [it, added] = values_.try_emplace(account, value);
      if (!added && it->second == value && !dirty_) return;
      it->second = value;
      save(lines);
    }
    say(lines);
  }

  void remove(const std::string& account) override {
    std::vector<std::string> lines;
    {
      std::lock_guard lock(mutex_);
      if (values_.erase(account) == 0 && !dirty_) return;
      save(lines);
    }
    say(lines);
  }

 private:
  // With `mutex_` held. Lines to log are collected and said after the lock is let go.
  void load(std::vector<std::string>& lines) {
    std::error_code ec;
    const auto status = fs::symlink_status(file_, ec);
    if (!fs::exists(status)) return;  // nothing stored yet

    // A file others could read is closed to them now, not at the next write.
    if (fs::is_regular_file(status) && (status.permissions() & ~kOwnerOnly) != fs::perms::none) {
      fs::permissions(file_, kOwnerOnly, fs::perm_options::replace, ec);
      if (ec)
        lines.push_back("secure store: could not make " + file_.string() +
                        " private: " + ec.message());
    }

    const auto content = readFile(file_);
    json document =
        content ? json::parse(*content, nullptr, false) : json(json::value_t::discarded);
    if (document.is_object()) {
      for (const auto& [account, value] : document.items()) {
        if (value.is_string() && !value.get_ref<const std::string&>().empty())
          values_.emplace(account, value.get<std::string>());
      }
      return;
    }

    // Kept for the user before any write replaces it; the store starts empty.
    const std::string name = file_.filename().string();
    if (const auto aside = moveAside(file_)) {
      lines.push_back("secure store: " + name + " could not be read — kept it as " +
                      aside->filename().string() + " and started empty");
    } else {
      lines.push_back("secure store: " + name +
                      " could not be read and could not be moved aside — started empty");
      // Nothing may overwrite it, so nothing is written this run.
      readOnly_ = true;
    }
  }

  // With `mutex_` held: the file is written under the lock so writes land in order.
  void save(std::vector<std::string>& lines) {
    if (readOnly_) {
      dirty_ = true;
      return;
    }
    json document = json::object();
    for (const auto& [account, value] : values_) document[account] = value;
    const std::string bytes = document.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
    if (const auto failure = writeFileAtomically(file_, bytes, kOwnerOnly)) {
      // Memory keeps the value for this run; the next change tries the file again.
      dirty_ = true;
      lines.push_back("secure store: " + *failure);
      return;
    }
    dirty_ = false;
  }

  void say(const std::vector<std::string>& lines) const {
    if (!log_) return;
    for (const auto& line : lines) log_(line);
  }

  const fs::path file_;
  const SecureStoreLog log_;
  std::mutex mutex_;  // guards the three below
  std::map<std::string, std::string> values_;
  bool dirty_ = false;     // memory holds what the file doesn't
  bool readOnly_ = false;  // a damaged file that could not be moved aside is left alone
};

}  // namespace

std::shared_ptr<SecureStore> makeFileSecureStore(const fs::path& file, SecureStoreLog log) {
  return std::make_shared<FileSecureStore>(file, std::move(log));
}

}  // namespace qvn
