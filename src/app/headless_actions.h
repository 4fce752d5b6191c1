// What a studio without a window does on its own that the window's buttons would do: an
// e-mail sign-in (finished by the mail's link), and Go Live as soon as it is signed in, with
// the checklist written to the log. Main thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "golive/go_live_check.h"
#include "support/observable.h"

namespace qvn {
class CameraModel;
class CloudAccount;
}  // namespace qvn

class HeadlessActions {
 public:
  HeadlessActions(qvn::CameraModel& model, qvn::CloudAccount& account,
                  std::optional<std::string> signInEmail, bool goLive);

 private:
  void signIn(const std::string& email);
  void signedInNow();
  void logChecks(const std::vector<qvn::GoLiveCheck>& checks);

  qvn::CameraModel& model_;
  qvn::CloudAccount& account_;
  bool goLive_;
  bool started_ = false;
  std::vector<std::string> logged_;
  std::vector<qvn::Subscription> subscriptions_;
};
