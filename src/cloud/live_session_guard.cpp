#include "cloud/live_session_guard.h"

#include <chrono>
#include <future>
#include <memory>

#include "platform/dispatch.h"
#include "platform/http.h"

namespace qvn {

void QvnLiveSessionGuard::hold(std::string sessionID, std::optional<std::string> token) {
  std::lock_guard hold(lock_);
  record_ = Record{std::move(sessionID), std::move(token)};
}

void QvnLiveSessionGuard::takeToken(std::optional<std::string> token) {
  std::lock_guard hold(lock_);
  if (record_) record_->token = std::move(token);
}

void QvnLiveSessionGuard::clear() {
  std::lock_guard hold(lock_);
  record_.reset();
}

std::optional<QvnLiveSessionGuard::Record> QvnLiveSessionGuard::record() const {
  std::lock_guard hold(lock_);
  return record_;
}

QvnLiveSessionGuard::Outcome QvnLiveSessionGuard::deleteBlocking(const std::string& apiBase,
                                                                 const Record& record,
                                                                 double timeoutSeconds) {
  HttpRequest request;
  request.method = "DELETE";
  request.url = apiBase + "/v1/streams/sessions/" + record.sessionID;
  request.headers = {{"Accept", "application/json"},
                     {"Content-Type", "application/json"},
                     {"Authorization", "Bearer " + record.token.value_or("")}};
  request.body = "{}";
  request.timeoutSeconds = timeoutSeconds;

  auto answer = std::make_shared<std::promise<Outcome>>();
  auto future = answer->get_future();
  SerialQueue replies("io.quorvane.camera.session-guard");
  {
    auto http = makeHttpClient(replies);
    http->send(std::move(request), [answer](HttpResponse response) {
      answer->set_value({response.status, response.error});
    });
    if (future.wait_for(std::chrono::duration<double>(timeoutSeconds)) != std::future_status::ready)
      return {0, "timed out"};
  }
  return future.get();
}

}  // namespace qvn
