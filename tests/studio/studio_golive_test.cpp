// Go Live as the operator drives it: the checklist and its words, one session per start,
// cancel, the output size, and the publisher's news reaching the account.
#include "studio/recording_hubs.h"

namespace qvn::test {
namespace {

using State = GoLiveCheck::State;

QvnCloud::Destination destination(std::string id, std::string platform, bool on, bool key) {
  return {id, platform, QvnCloud::platformName(platform), on, key, ""};
}

QvnCloud::Session session(int width, int height) {
  return {"s1", "rtmp://ingest.test/live", "key1", {width, height, 30, 6'000'000, 128'000}};
}

class StudioGoLive : public StudioFixture {
 protected:
  CameraModel& ready() {
    CameraModel& m = start();
    hubs.cloud->online = true;
    hubs.cloud->destinations = std::vector{destination("d1", "youtube", true, true),
                                           destination("d2", "twitch", false, true)};
    trace.calls.clear();
    return m;
  }
  // Each check as "id state detail".
  std::vector<std::string> checklist() {
    std::vector<std::string> out;
    for (const auto& c : model->goLiveChecks())
      out.push_back(c.id + " " + std::to_string(int(c.state)) + " " + c.detail);
    return out;
  }
  void answerSession(std::optional<QvnCloud::Session> s) {
    ASSERT_FALSE(hubs.cloud->starts.empty());
    auto done = hubs.cloud->starts.back();
    if (s) hubs.cloud->livePhase = LivePhase::connecting;
    done(s);
    main.advance(0);
  }
};

TEST_F(StudioGoLive, AStartWalksTheChecklistAndHandsTheSessionToThePublisher) {
  CameraModel& m = ready();
  m.toggleGoLive();
  EXPECT_TRUE(m.showGoLiveSheet());
  EXPECT_TRUE(trace.has("cloud.loadDestinations"));

  m.confirmGoLive();
  m.confirmGoLive();  // a second press while the cloud answers starts nothing
  EXPECT_EQ(trace.count("cloud.startLive"), 1);
  EXPECT_TRUE(m.goLiveStarting());
  EXPECT_EQ(checklist(),
            (std::vector<std::string>{
                "internet 2 Online", "destinations 2 YouTube", "output 2 1920 × 1080 · 30 fps",
                "audio 2 Program audio, AAC stereo. Silence goes out as a silent track.",
                "session 1 ", "transport 0 "}));
  std::vector<std::string> titles;
  for (const auto& c : m.goLiveChecks()) titles.push_back(c.title);
  EXPECT_EQ(titles, (std::vector<std::string>{"Internet connection", "Destinations",
                                              "Studio output", "Program audio", "Stream session",
                                              "Connection to Quorvane"}));

  // The cloud asks for less than the canvas: the output line says what really goes out.
  answerSession(session(1280, 720));
  EXPECT_EQ(checklist()[2], "output 2 1280 × 720 · 30 fps");
  EXPECT_EQ(checklist()[4], "session 2 Ready");
  EXPECT_EQ(checklist()[5], "transport 1 ");
  EXPECT_TRUE(trace.has("publisher.start rtmp://ingest.test/live/key1 0 1280x720"));
  EXPECT_FALSE(m.goLiveStarting());

  // The publisher's news, from its own queue, moves the account's phase.
  hubs.publisher->onPublished();
  main.advance(0);
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::live);
  hubs.publisher->onReconnecting();
  main.advance(0);
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::connecting);
  hubs.publisher->onStatus("ingest lost — reconnecting");
  main.advance(0);
  EXPECT_EQ(m.toast(), "ingest lost — reconnecting");

  // While it runs, the same button shows the same sheet and starts nothing new.
  trace.calls.clear();
  m.toggleGoLive();
  EXPECT_FALSE(trace.has("cloud.loadDestinations"));
  m.stopLive();
  main.advance(0);
  EXPECT_TRUE(trace.has("cloud.endLive"));
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::ended);
  EXPECT_EQ(m.toast(), "Live ended");
}

TEST_F(StudioGoLive, AStartThatCannotGoOnSaysWhyAtTheCheckThatFailed) {
  CameraModel& m = ready();
  auto failedCheck = [&] {
    m.confirmGoLive();
    EXPECT_FALSE(m.goLiveStarting());
    for (const auto& c : m.goLiveChecks())
      if (c.state == State::failed) return c.id + ": " + c.detail;
    return std::string("none failed");
  };
  hubs.cloud->online = false;
  EXPECT_EQ(failedCheck(),
            "internet: This computer is offline. Connect to the internet, then try again.");
  hubs.cloud->online = true;
  hubs.cloud->destinations = std::vector<QvnCloud::Destination>{};
  EXPECT_EQ(failedCheck(), "destinations: Add a destination at cloud.test, then try again.");
  hubs.cloud->destinations = std::vector{destination("d1", "youtube", false, true),
                                         destination("d2", "custom", true, false)};
  EXPECT_EQ(failedCheck(),
            "destinations: Custom RTMP isn't connected. Connect it at cloud.test, or turn it off.");
  hubs.cloud->destinations = std::vector{destination("d1", "youtube", false, true)};
  EXPECT_EQ(failedCheck(), "destinations: Turn on at least one destination.");
  EXPECT_FALSE(trace.has("cloud.startLive"));

  hubs.cloud->destinations = std::vector{destination("d1", "youtube", true, true)};
  m.confirmGoLive();
  hubs.cloud->error = "stream_config is missing resolution — cannot guess an encode size.";
  answerSession(std::nullopt);
  EXPECT_EQ(checklist()[4],
            "session 3 stream_config is missing resolution — cannot guess an encode size.");
  EXPECT_FALSE(m.goLiveStarting());

  // Encoders that can't start: the check fails, and the session ends the way a stop does.
  hubs.publisher->starts = false;
  m.confirmGoLive();
  answerSession(session(1920, 1080));
  EXPECT_EQ(checklist()[5],
            "transport 3 Studio could not start sending Program. Try again; if it repeats, "
            "restart Studio.");
  EXPECT_TRUE(trace.has("cloud.failLive Could not start the encoder"));
  EXPECT_TRUE(trace.has("cloud.endLive"));
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::error);
}

TEST_F(StudioGoLive, CancelWhileTheSessionOpensEndsItAndTheSheetGoesBack) {
  CameraModel& m = ready();
  m.toggleGoLive();
  m.confirmGoLive();
  m.cancelGoLive();
  main.advance(0);
  EXPECT_FALSE(m.showGoLiveSheet());
  EXPECT_TRUE(m.goLiveChecks().empty());
  EXPECT_FALSE(m.goLiveStarting());
  trace.calls.clear();
  // The session the cloud opened meanwhile is ended at once, never published to.
  answerSession(session(1920, 1080));
  EXPECT_TRUE(trace.has("cloud.endLive"));
  EXPECT_FALSE(trace.has("publisher.start rtmp://ingest.test/live/key1 0 1920x1080"));
  // A later press starts clean.
  m.toggleGoLive();
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::idle);
}

TEST_F(StudioGoLive, AFatalFailureWhileConnectingFailsTheTransportAndEndsTheSession) {
  CameraModel& m = ready();
  m.confirmGoLive();
  answerSession(session(1920, 1080));
  hubs.publisher->onFatal("ingest lost");
  main.advance(0);
  EXPECT_EQ(checklist()[5],
            "transport 3 Studio couldn't connect to Quorvane's ingest. Check your internet "
            "connection, then try again.");
  EXPECT_TRUE(trace.has("cloud.failLive ingest lost"));
  EXPECT_TRUE(trace.has("cloud.endLive"));
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::error);
  EXPECT_EQ(m.toast(), "ingest lost");
  m.toggleGoLive();
  EXPECT_EQ(hubs.cloud->livePhase(), LivePhase::idle);
}

TEST_F(StudioGoLive, TheOutputSizeChangesOnlyWhileNoStreamRuns) {
  CameraModel& m = ready();
  m.setStreamOutput(StreamOutputChoice::hd720);
  EXPECT_EQ(m.toast(), "Go Live output 1280 × 720");
  EXPECT_TRUE(trace.has("publisher.setPreferredSize 1280x720"));
  EXPECT_EQ(store->text("qvn.streamOutput"), "hd720");
  EXPECT_EQ(m.plannedGoLiveOutput(), (QvnOutputInfo{1280, 720, 30}));
  // A choice above the canvas is held to the canvas.
  m.setStreamOutput(StreamOutputChoice::uhd2160);
  EXPECT_EQ(m.plannedGoLiveOutput(), (QvnOutputInfo{1920, 1080, 30}));

  hubs.cloud->livePhase = LivePhase::live;
  trace.calls.clear();
  m.setStreamOutput(StreamOutputChoice::hd720);
  EXPECT_EQ(m.toast(), "End the live stream to change the output size");
  EXPECT_EQ(m.streamOutput(), StreamOutputChoice::uhd2160);
  EXPECT_TRUE(trace.calls.empty());
}

TEST_F(StudioGoLive, FailedDestinationsAreSummedUpOnlyWhileLive) {
  CameraModel& m = ready();
  auto at = [](std::string name, std::string status, std::string message) {
    return QvnCloud::SessionDestination{name, "custom", name, status, message};
  };
  hubs.cloud->sessionDestinations =
      std::vector{at("A", "live", ""), at("B", "error", "connection refused")};
  EXPECT_EQ(m.destinationErrorLimitation(), std::nullopt);
  hubs.cloud->livePhase = LivePhase::live;
  EXPECT_EQ(m.destinationErrorLimitation(), "B is not live: connection refused");
  hubs.cloud->sessionDestinations.modify([&](auto& list) {
    list.push_back(at("C", "failed", "key refused"));
    list.push_back(at("D", "failed", ""));  // no words: not counted
  });
  EXPECT_EQ(m.destinationErrorLimitation(), "2 destinations failed. connection refused");
}

}  // namespace
}  // namespace qvn::test
