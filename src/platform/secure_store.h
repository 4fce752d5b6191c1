// Secrets of the signed-in user (the cloud tokens, the computer's identity), kept per user
// across restarts: in the Secret Service (libsecret) under the service "io.quorvane.camera",
// or, when no Secret Service answers, in a file readable by the user alone (0600) in the
// app data folder, which is logged once. Reads are cached in the process, absence included.
// Any thread.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace qvn {

class SecureStore {
 public:
  virtual ~SecureStore() = default;
  // None for an absent or empty value.
  virtual std::optional<std::string> get(const std::string& account) = 0;
  // An empty value removes the account.
  virtual void set(const std::string& value, const std::string& account) = 0;
  virtual void remove(const std::string& account) = 0;
};

// Where the store's lines go (the fallback to the file, a damaged file kept aside, a write
// that failed): platform can't reach the studio's log, so the caller passes it in. Called
// on whichever thread made the call that has something to say, never under the store's lock.
using SecureStoreLog = std::function<void(const std::string& line)>;

// The Secret Service when one answers, else the 0600 file `fallbackFile`.
std::shared_ptr<SecureStore> makeSecureStore(const std::filesystem::path& fallbackFile,
                                             SecureStoreLog log = {});
// The 0600 file alone, for tests and machines without a session bus.
std::shared_ptr<SecureStore> makeFileSecureStore(const std::filesystem::path& file,
                                                 SecureStoreLog log = {});

}  // namespace qvn
