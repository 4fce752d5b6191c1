// The secure store in the Secret Service (GNOME Keyring, KWallet, KeePassXC…) through
// libsecret's password calls, with the 0600 file when no service answers.

#include <libsecret/secret.h>

#include <map>
#include <memory>
#include <mutex>

#include "platform/secure_store.h"

namespace qvn {

namespace {

constexpr const char* kService = "io.quorvane.camera";
// An account nothing is stored under: looking it up asks the service to answer and
// nothing else.
constexpr const char* kProbeAccount = "qvn.probe";

const SecretSchema* schema() {
  static const SecretSchema value = {kService,
                                     SECRET_SCHEMA_NONE,
                                     {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
                                      {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}}};
  return &value;
}

std::string messageOf(GError* error) {
  std::string text = error && error->message ? error->message : "no reason given";
  if (error) g_error_free(error);
  return text;
}

// A lookup's outcome: the value or its absence, or the reason the service did not answer.
struct Lookup {
  std::optional<std::string> value;
  std::optional<std::string> failure;
};

Lookup lookUp(const std::string& account) {
  GError* error = nullptr;
  gchar* found = secret_password_lookup_sync(schema(), nullptr, &error, "service", kService,
                                             "account", account.c_str(), nullptr);
  if (error) return {std::nullopt, messageOf(error)};
  Lookup result;
  if (found) {
    if (*found) result.value = std::string(found);
    secret_password_free(found);  // wipes the copy libsecret made
  }
  return result;
}

class SecretServiceStore final : public SecureStore {
 public:
  explicit SecretServiceStore(SecureStoreLog log) : log_(std::move(log)) {}

  std::optional<std::string> get(const std::string& account) override {
    if (auto cached = fromCache(account)) return *cached;
    Lookup found;
    {
      // Calls into the service go one at a time, and the cache is filled inside the same
      // turn, so a slow lookup can never cache a value that a later set replaced.
      std::lock_guard serial(serviceMutex_);
      if (auto cached = fromCache(account)) return *cached;
      found = lookUp(account);
      // A failure is not cached: the service may answer next time.
      if (!found.failure) store(account, found.value);
    }
    if (found.failure)
      say("secure store: could not read " + account + " from the Secret Service (" +
          *found.failure + ")");
    return found.value;
  }

  void set(const std::string& value, const std::string& account) override {
    if (value.empty()) return remove(account);
    GError* error = nullptr;
    {
      std::lock_guard serial(serviceMutex_);
      const std::string label = "Quorvane Studio: " + account;
      secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.c_str(), value.c_str(),
                                 nullptr, &error, "service", kService, "account", account.c_str(),
                                 nullptr);
      // Either way this run goes on with the new value.
      store(account, value);
    }
    if (error)
      say("secure store: could not save " + account + " in the Secret Service (" +
          messageOf(error) + ") — kept for this run only");
  }

  void remove(const std::string& account) override {
    GError* error = nullptr;
    {
      std::lock_guard serial(serviceMutex_);
      secret_password_clear_sync(schema(), nullptr, &error, "service", kService, "account",
                                 account.c_str(), nullptr);
      store(account, std::nullopt);
    }
    if (error)
      say("secure store: could not remove " + account + " from the Secret Service (" +
          messageOf(error) + ")");
  }

 private:
  // Outer: none when the account was never looked up; inner: the cached value or absence.
  std::optional<std::optional<std::string>> fromCache(const std::string& account) {
    std::lock_guard lock(cacheMutex_);
    const auto it = cache_.find(account);
    if (it == cache_.end()) return std::nullopt;
    return it->second;
  }

  void store(const std::string& account, std::optional<std::string> value) {
    std::lock_guard lock(cacheMutex_);
    cache_[account] = std::move(value);
  }

  void say(const std::string& line) const {
    if (log_) log_(line);
  }

  const SecureStoreLog log_;
  std::mutex serviceMutex_;  // one call into the service at a time
  std::mutex cacheMutex_;    // guards cache_, never held across a call out
  std::map<std::string, std::optional<std::string>> cache_;
};

}  // namespace

std::shared_ptr<SecureStore> makeSecureStore(const std::filesystem::path& fallbackFile,
                                             SecureStoreLog log) {
  const Lookup probe = lookUp(kProbeAccount);
  if (!probe.failure) return std::make_shared<SecretServiceStore>(std::move(log));
  if (log)
    log("secure store: no Secret Service (" + *probe.failure + ") — tokens kept in " +
        fallbackFile.string() + " (0600)");
  return makeFileSecureStore(fallbackFile, std::move(log));
}

}  // namespace qvn
