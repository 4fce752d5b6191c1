// Go Live: the sheet, the checklist the operator watches while a stream starts, the size it
// goes out at, and the publisher's news carried to the account. Main thread.
#include <algorithm>

#include "golive/go_live_format.h"
#include "platform/defaults.h"
#include "studio/camera_model.h"
#include "studio/camera_model_hop.h"
#include "support/qvn_log.h"

namespace qvn {

namespace {

using State = GoLiveCheck::State;

std::vector<GoLiveCheck> freshChecklist() {
  return {{"internet", "Internet connection"}, {"destinations", "Destinations"},
          {"output", "Studio output"},         {"audio", "Program audio"},
          {"session", "Stream session"},       {"transport", "Connection to Quorvane"}};
}

std::string sizeDetail(int width, int height, int fps) {
  return std::to_string(width) + " × " + std::to_string(height) + " · " + std::to_string(fps) +
         " fps";
}

}  // namespace

void CameraModel::wirePublisher() {
  auto& p = *hubs_.publisher;
  p.onStatus = hop([](CameraModel& m, std::string text) {
    QvnLog::line(text);
    m.flash(text);
  });
  p.onPublished = hop([](CameraModel& m) { m.hubs_.cloud->markLive(); });
  p.onReconnecting = hop([](CameraModel& m) { m.hubs_.cloud->noteReconnecting(); });
  // A fatal failure ends the session the way a stop does, so the next Go Live starts clean;
  // the phase stays `error` and the ended view says why.
  p.onFatal = hop([](CameraModel& m, std::string text) {
    QvnLog::line("golive fatal: " + text);
    auto& cloud = *m.hubs_.cloud;
    const auto checks = m.goLiveChecks();
    const bool transportRunning = std::any_of(checks.begin(), checks.end(), [](auto& c) {
      return c.id == "transport" && c.state == State::running;
    });
    if (cloud.livePhase() == LivePhase::connecting && transportRunning)
      m.mark("transport", State::failed,
             "Studio couldn't connect to Quorvane's ingest. Check your internet connection, "
             "then try again.");
    if (isStreamRunning(cloud.livePhase())) {
      cloud.failLive(text);
      cloud.endLive([] {});
    }
    m.flash(text);
  });
}

void CameraModel::toggleGoLive() {
  auto& cloud = *hubs_.cloud;
  if (!isStreamRunning(cloud.livePhase())) {
    if (!goLiveStarting()) resetGoLive();
    cloud.loadDestinations();
    cloud.loadEmbedLink();
  }
  showGoLiveSheet = true;
}

void CameraModel::resetGoLive() {
  auto& cloud = *hubs_.cloud;
  goLiveChecks = std::vector<GoLiveCheck>{};
  cloud.error = std::nullopt;
  const auto phase = cloud.livePhase();
  if (phase == LivePhase::ended || phase == LivePhase::error) cloud.livePhase = LivePhase::idle;
}

QvnOutputInfo CameraModel::plannedGoLiveOutput() const {
  const auto canvas = canvasPixels(canvasSize());
  int width = canvas.width, height = canvas.height;
  if (auto chosen = GoLiveFormat::choiceSize(streamOutput())) {
    width = std::min(width, chosen->first);
    height = std::min(height, chosen->second);
  }
  return {width - width % 2, height - height % 2, 30};
}

void CameraModel::setStreamOutput(StreamOutputChoice choice) {
  if (isStreamRunning(hubs_.cloud->livePhase())) {
    flash("End the live stream to change the output size");
    return;
  }
  streamOutput = choice;
  settings_.set("qvn.streamOutput", std::string(enumText(choice)));
  hubs_.publisher->setPreferredSize(GoLiveFormat::choiceSize(choice));
  const auto planned = plannedGoLiveOutput();
  flash("Go Live output " + std::to_string(planned.width) + " × " + std::to_string(planned.height));
}

std::optional<std::string> CameraModel::destinationErrorLimitation() const {
  const auto& cloud = *hubs_.cloud;
  if (cloud.livePhase() != LivePhase::live) return std::nullopt;
  std::vector<QvnCloud::SessionDestination> failed;
  for (const auto& d : cloud.sessionDestinations())
    if ((d.status == "error" || d.status == "failed") && !d.errorMessage.empty())
      failed.push_back(d);
  if (failed.empty()) return std::nullopt;
  if (failed.size() == 1) return failed[0].name + " is not live: " + failed[0].errorMessage;
  return std::to_string(failed.size()) + " destinations failed. " + failed[0].errorMessage;
}

void CameraModel::mark(const std::string& id, State state, const std::string& detail) {
  auto checks = goLiveChecks();
  auto it = std::find_if(checks.begin(), checks.end(), [&](auto& c) { return c.id == id; });
  if (it == checks.end()) return;
  it->state = state;
  if (!(detail.empty() && state == State::running)) it->detail = detail;
  goLiveChecks = std::move(checks);
}

void CameraModel::failGoLiveStart(const std::string& id, const std::string& detail) {
  mark(id, State::failed, detail);
  goLiveStarting = false;
}

void CameraModel::confirmGoLive() {
  auto& cloud = *hubs_.cloud;
  if (!cloud.hasAccessToken() || goLiveStarting() || isStreamRunning(cloud.livePhase())) return;
  goLiveStarting = true;
  cloud.error = std::nullopt;
  cloud.lastLiveSummary = std::nullopt;
  if (cloud.livePhase() == LivePhase::ended || cloud.livePhase() == LivePhase::error)
    cloud.livePhase = LivePhase::idle;
  const auto planned = plannedGoLiveOutput();
  goLiveChecks = freshChecklist();

  mark("internet", State::running);
  if (!cloud.online())
    return failGoLiveStart("internet",
                           "This computer is offline. Connect to the internet, then try again.");
  mark("internet", State::passed, "Online");

  mark("destinations", State::running);
  const auto eligible = QvnCloud::eligibleDestinations(cloud.destinations());
  if (eligible.empty())
    return failGoLiveStart("destinations", QvnCloud::noDestinationMessage(
                                               cloud.destinations(), cloud.dashboardHost(), true));
  std::string names;
  for (const auto& d : eligible) names += (names.empty() ? "" : ", ") + d.name;
  mark("destinations", State::passed, names);
  mark("output", State::passed, sizeDetail(planned.width, planned.height, planned.fps));
  mark("audio", State::passed, "Program audio, AAC stereo. Silence goes out as a silent track.");

  mark("session", State::running);
  const int attempt = ++goLiveAttempt_;
  cloud.startLive(
      [anchor = std::weak_ptr(anchor_), attempt, planned](std::optional<QvnCloud::Session> s) {
        auto alive = anchor.lock();
        if (!alive) return;
        CameraModel& m = *alive->model;
        auto& account = *m.hubs_.cloud;
        if (attempt != m.goLiveAttempt_) {
          // Cancelled while the cloud was opening it: the session goes again at once.
          if (s) account.endLive([] {});
          return;
        }
        if (!s)
          return m.failGoLiveStart(
              "session", account.error().value_or("Quorvane could not start the session."));
        m.goLiveSessionReady(*s, planned);
      });
}

void CameraModel::goLiveSessionReady(const QvnCloud::Session& session,
                                     const QvnOutputInfo& planned) {
  mark("session", State::passed, "Ready");
  const auto& c = session.streamConfig;
  const StreamConfig config{c.width, c.height, c.fps, c.videoBitrate, c.audioBitrate};
  const auto canvas = canvasPixels(canvasSize());
  const auto [width, height] = GoLiveFormat::outputSize(config, {canvas.width, canvas.height},
                                                        GoLiveFormat::choiceSize(streamOutput()));
  if (width != planned.width || height != planned.height || std::min(c.fps, 30) != planned.fps)
    mark("output", State::passed, sizeDetail(width, height, std::min(c.fps, 30)));

  mark("transport", State::running);
  if (!hubs_.publisher->start(session.ingestUrl, session.streamKey, 0, config)) {
    mark("transport", State::failed,
         "Studio could not start sending Program. Try again; if it repeats, restart Studio.");
    hubs_.cloud->failLive("Could not start the encoder");
    hubs_.cloud->endLive([] {});
  }
  goLiveStarting = false;
}

void CameraModel::stopLive() {
  if (!isStreamRunning(hubs_.cloud->livePhase())) return;
  hubs_.cloud->endLive(hop([](CameraModel& m) { m.flash("Live ended"); }));
}

void CameraModel::cancelGoLive() {
  ++goLiveAttempt_;
  goLiveStarting = false;
  hubs_.cloud->endLive(hop([](CameraModel& m) {
    m.resetGoLive();
    m.showGoLiveSheet = false;
  }));
}

}  // namespace qvn
