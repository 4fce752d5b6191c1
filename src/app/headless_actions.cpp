#include "app/headless_actions.h"

#include <algorithm>
#include <memory>

#include "cloud/account.h"
#include "studio/camera_model.h"
#include "support/qvn_log.h"

HeadlessActions::HeadlessActions(qvn::CameraModel& model, qvn::CloudAccount& account,
                                 std::optional<std::string> signInEmail, bool goLive)
    : model_(model), account_(account), goLive_(goLive) {
  subscriptions_.push_back(account_.user.subscribe([this](const auto&) { signedInNow(); }));
  subscriptions_.push_back(account_.error.subscribe([](const std::optional<std::string>& text) {
    if (text) qvn::QvnLog::line("cloud: " + *text);
  }));
  if (signInEmail && !account_.signedIn()) signIn(*signInEmail);
  signedInNow();
}

void HeadlessActions::signIn(const std::string& email) {
  // An address the cloud doesn't know yet is signed up, named after its mailbox.
  subscriptions_.push_back(account_.magicPhase.subscribe([this, email](qvn::QvnMagicPhase phase) {
    if (phase == qvn::QvnMagicPhase::create) {
      account_.signupName = email.substr(0, email.find('@'));
      account_.startMagic(qvn::QvnMagicIntent::signUp);
    } else if (phase == qvn::QvnMagicPhase::waiting) {
      qvn::QvnLog::line("sign-in: open the link mailed to " + email + " to go on");
    }
  }));
  account_.typedEmail = email;
  account_.startMagic(qvn::QvnMagicIntent::signIn);
}

void HeadlessActions::signedInNow() {
  if (!goLive_ || started_ || !account_.signedIn()) return;
  started_ = true;
  subscriptions_.push_back(
      model_.goLiveChecks.subscribe([this](const auto& checks) { logChecks(checks); }));
  // The start waits for the destinations as the sheet would show them.
  auto loaded = std::make_shared<qvn::Subscription>();
  *loaded = account_.destinations.subscribe([this, loaded](const auto&) {
    loaded->reset();
    model_.confirmGoLive();
  });
  model_.toggleGoLive();
}

void HeadlessActions::logChecks(const std::vector<qvn::GoLiveCheck>& checks) {
  using State = qvn::GoLiveCheck::State;
  for (const auto& c : checks) {
    if (c.state != State::passed && c.state != State::failed) continue;
    const std::string line =
        "go live: " + c.title + (c.state == State::failed ? " failed — " : " — ") + c.detail;
    if (std::find(logged_.begin(), logged_.end(), line) != logged_.end()) continue;
    logged_.push_back(line);
    qvn::QvnLog::line(line);
  }
}
