// The stream sessions still to delete on the cloud, kept in the settings
// ("qvn.pendingSessionDeletes") so a lost network, a lost token or a quit never leaves one
// open for good. No duplicates; removing takes out every copy. Main thread.
#pragma once

#include <string>
#include <vector>

namespace qvn {

class Defaults;

class PendingSessionDeletes {
 public:
  explicit PendingSessionDeletes(Defaults& settings) : settings_(settings) {}
  std::vector<std::string> ids() const;
  void add(const std::string& id);
  void remove(const std::string& id);

 private:
  void store(const std::vector<std::string>& ids);
  Defaults& settings_;
};

}  // namespace qvn
