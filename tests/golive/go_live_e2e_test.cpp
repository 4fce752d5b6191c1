// Go Live end to end, every part real: qvn-devcloud with its nginx ingest, two "Custom
// RTMP" destinations on two more nginx servers, the headless studio signing in by the mail's
// link and going live with a simulated phone on Program. Both destinations receive the
// stream; a stranger's key is refused; a studio ended while live deletes its session on the
// way out, or, with the cloud gone, at its next start.
#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <future>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "cloud/devcloud_process.h"
#include "golive/nginx_ingest.h"
#include "platform/dispatch.h"
#include "platform/files.h"
#include "platform/http.h"
#include "testing/child_process.h"

namespace qvn::test {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kEmail = "ana@example.com";

// Waits until `file` holds a match of `pattern`; its first group, or the whole match.
std::string waitFor(const std::filesystem::path& file, const std::string& pattern, double seconds) {
  const std::regex re(pattern);
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < until) {
    const std::string text = readFile(file).value_or("");
    std::smatch m;
    if (std::regex_search(text, m, re)) return m.size() > 1 ? m[1].str() : m[0].str();
    std::this_thread::sleep_for(50ms);
  }
  return {};
}

// One request on the real HTTP client, waited for.
HttpResponse request(const std::string& method, const std::string& url, const json& body = {}) {
  SerialQueue replies("go-live-test");
  auto http = makeHttpClient(replies);
  std::promise<HttpResponse> answer;
  HttpRequest r{
      method, url, {{"Content-Type", "application/json"}}, body.is_null() ? "" : body.dump()};
  r.timeoutSeconds = 10;
  http->send(r, [&answer](HttpResponse response) { answer.set_value(std::move(response)); });
  return answer.get_future().get();
}

class GoLiveEndToEnd : public ::testing::Test {
 protected:
  GoLiveEndToEnd() : work(makeTempDir("golive")) {
    // Tokens go to the studio's own file, never to a keyring of the machine.
    setenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    cloudPort = freeLoopbackPorts(1)[0];
  }
  ~GoLiveEndToEnd() override {
    studio.reset();
    phone.reset();
    cloud.reset();
    std::filesystem::remove_all(work);
  }

  void startCloud() {
    cloud.reset();
    cloud = std::make_unique<DevCloudProcess>(
        work, std::vector<std::string>{"--port", std::to_string(cloudPort)}, true);
    ASSERT_FALSE(cloud->apiBase().empty()) << readFile(work / "cloud.err").value_or("");
    ingest = waitFor(work / "cloud.out", "ingest on (rtmp://\\S+)", 10);
  }
  void addDestination(const std::string& name, const std::string& url, const std::string& key) {
    auto r = request("POST", cloud->apiBase() + "/dev/destinations",
                     {{"email", kEmail},
                      {"platform", "custom"},
                      {"name", name},
                      {"url", url},
                      {"key", key},
                      {"enabled", true}});
    ASSERT_LT(r.status, 300) << r.body << r.error;
  }
  // The studio's output so far goes to a file of its own per run.
  void startStudio(const std::string& run, std::vector<std::string> extra) {
    studioOut = work / ("studio-" + run + ".out");
    std::vector<std::string> argv{QVN_STUDIO,
                                  "--headless",
                                  "--data-root",
                                  (work / "studio").string(),
                                  "--api-base",
                                  cloud->apiBase(),
                                  "--phones",
                                  "--phone-port",
                                  std::to_string(phonePort),
                                  "--phone-local-addr",
                                  "127.0.0.1"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    studio = std::make_unique<ChildProcess>(argv, studioOut, work / ("studio-" + run + ".err"));
  }
  void startPhone() {
    phone = std::make_unique<ChildProcess>(
        std::vector<std::string>{
            QVN_PHONE_SIM, "--studio", "127.0.0.1:" + std::to_string(phonePort), "--name", "Phone",
            "--size", "640x360", "--loop", "--for", "120", "--local-addr", "127.0.0.1"},
        work / "phone.out", work / "phone.err");
  }
  std::string studioLog() { return readFile(studioOut).value_or(""); }
  // The streams ffprobe finds at `url`, as "h264" and "aac". The relay reaches a destination
  // some seconds after the studio is live (it probes the stream first), so ask until both
  // are there, for at most half a minute.
  std::vector<std::string> codecsAt(const std::string& url) {
    std::vector<std::string> codecs;
    const auto until = std::chrono::steady_clock::now() + 30s;
    while (codecs.size() < 2 && std::chrono::steady_clock::now() < until) {
      auto r = runProgram({findProgram("ffprobe"), "-v", "error", "-rw_timeout", "8000000",
                           "-show_entries", "stream=codec_name", "-of", "csv=p=0", url},
                          20, work);
      codecs.clear();
      std::istringstream lines(r.out);
      for (std::string line; std::getline(lines, line);)
        if (!line.empty()) codecs.push_back(line);
      std::sort(codecs.begin(), codecs.end());
    }
    return codecs;
  }

  std::filesystem::path work;
  std::uint16_t cloudPort = 0;
  std::uint16_t phonePort = freeLoopbackPorts(1)[0];
  std::unique_ptr<DevCloudProcess> cloud;
  std::string ingest;
  std::unique_ptr<ChildProcess> studio, phone;
  std::filesystem::path studioOut;
};

TEST_F(GoLiveEndToEnd, ASignedInStudioGoesLiveToTwoDestinationsAndEndsItsSessionWhenItQuits) {
  NginxIngest first, second;
  ASSERT_NO_FATAL_FAILURE(startCloud());
  ASSERT_FALSE(ingest.empty()) << "qvn-devcloud started no ingest: "
                               << readFile(work / "cloud.out").value_or("");
  addDestination("First", first.rtmpURL(), "first");
  addDestination("Second", second.rtmpURL(), "second");

  startStudio("live", {"--sign-in", kEmail, "--go-live"});
  const std::string link = waitFor(work / "cloud.out", "link for [^:]+: (\\S+)", 20);
  ASSERT_FALSE(link.empty()) << studioLog();
  EXPECT_LT(request("GET", link).status, 400);
  startPhone();

  ASSERT_FALSE(waitFor(studioOut, "golive phase live", 40).empty()) << studioLog();
  const std::string session = waitFor(studioOut, "session create JSON .*\"id\":\"([^\"]+)\"", 1);
  ASSERT_FALSE(session.empty());
  EXPECT_THAT(studioLog(), ::testing::HasSubstr("go live: Destinations — First, Second"));
  // Both relays carry what the studio sends.
  EXPECT_EQ(codecsAt(first.rtmpURL() + "/first"), (std::vector<std::string>{"aac", "h264"}));
  EXPECT_EQ(codecsAt(second.rtmpURL() + "/second"), (std::vector<std::string>{"aac", "h264"}));

  // A key that belongs to no session is turned away by the ingest.
  auto stranger = runProgram(
      {findProgram("ffmpeg"), "-v", "error", "-f", "lavfi", "-i", "testsrc2=size=320x180:rate=30",
       "-t", "2", "-c:v", "libx264", "-f", "flv", ingest + "/not-a-session-key"},
      20, work);
  EXPECT_FALSE(stranger.succeeded());
  EXPECT_FALSE(
      waitFor(work / "cloud.err", "on_publish from \\S+ refused: no session has that stream key", 5)
          .empty())
      << readFile(work / "cloud.err").value_or("");

  // Quit while live: the session is deleted on the way out, well within two seconds; the
  // cloud's own log says when the delete reached it.
  const auto quitAt = std::chrono::steady_clock::now();
  kill(studio->pid(), SIGTERM);
  EXPECT_FALSE(
      waitFor(work / "cloud.err", "DELETE /v1/streams/sessions/" + session + " 2[0-9][0-9]", 2)
          .empty())
      << readFile(work / "cloud.err").value_or("");
  ASSERT_TRUE(studio->wait(10));
  EXPECT_THAT(studioLog(),
              ::testing::HasSubstr("golive DELETE /v1/streams/sessions/" + session + " succeeded"));
  EXPECT_LT(std::chrono::steady_clock::now() - quitAt, 4s);
}

TEST_F(GoLiveEndToEnd, ASessionTheStudioCouldNotDeleteAtQuitIsDeletedAtItsNextStart) {
  NginxIngest destination;
  ASSERT_NO_FATAL_FAILURE(startCloud());
  addDestination("Only", destination.rtmpURL(), "only");
  startStudio("live", {"--sign-in", kEmail, "--go-live"});
  const std::string link = waitFor(work / "cloud.out", "link for [^:]+: (\\S+)", 20);
  ASSERT_FALSE(link.empty()) << studioLog();
  request("GET", link);
  startPhone();
  ASSERT_FALSE(waitFor(studioOut, "golive phase live", 40).empty()) << studioLog();
  const std::string session = waitFor(studioOut, "session create JSON .*\"id\":\"([^\"]+)\"", 1);

  // The cloud is gone when the studio quits: the delete waits in the settings.
  cloud.reset();
  kill(studio->pid(), SIGTERM);
  ASSERT_TRUE(studio->wait(10));
  EXPECT_THAT(studioLog(), ::testing::HasSubstr("golive DELETE /v1/streams/sessions/" + session +
                                                " failed (blocking"));

  // Back with the cloud, the next start deletes it.
  ASSERT_NO_FATAL_FAILURE(startCloud());
  startStudio("again", {});
  EXPECT_FALSE(
      waitFor(studioOut, "golive DELETE queued session " + session + " succeeded", 20).empty())
      << studioLog();
}

}  // namespace
}  // namespace qvn::test
