// Going live on this machine as the studio does it, with the real tools: qvn-devcloud and its
// ingest, two destinations on nginx servers of the test's own and one that nobody listens
// on, ffmpeg publishing a test picture and tone with the session's key, and ffprobe reading
// what reached each destination. Also the ingest's end: with the session, and with the
// devcloud itself.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "golive/nginx_ingest.h"
#include "http_test_client.h"
#include "platform/crypto.h"
#include "platform/files.h"
#include "testing/child_process.h"

namespace qvn::devcloud::test {
namespace {

using json = nlohmann::json;
using namespace std::chrono_literals;
using qvn::test::ChildProcess;
using qvn::test::findProgram;
using qvn::test::runProgram;

// Liveness bounds only: a loaded machine is slow, but a stream that isn't live by then
// never will be.
constexpr auto kLiveWithin = 40s;
constexpr auto kGoneWithin = 15s;

// Processes whose command line holds `text`, read from /proc; none is ever signalled.
std::vector<pid_t> processesWith(const std::string& text) {
  std::vector<pid_t> found;
  DIR* proc = opendir("/proc");
  if (!proc) return found;
  while (const dirent* entry = readdir(proc)) {
    const pid_t pid = pid_t(std::atoi(entry->d_name));
    if (pid <= 0 || pid == getpid()) continue;
    std::string line = readFile("/proc/" + std::string(entry->d_name) + "/cmdline").value_or("");
    std::replace(line.begin(), line.end(), '\0', ' ');
    if (line.find(text) != std::string::npos) found.push_back(pid);
  }
  closedir(proc);
  return found;
}

bool isRunning(pid_t pid) {
  const std::string stat = readFile("/proc/" + std::to_string(pid) + "/stat").value_or("");
  const auto close = stat.rfind(')');
  // Gone, or a zombie nobody has reaped yet: either way it no longer runs.
  return close != std::string::npos && stat.size() > close + 2 && stat[close + 2] != 'Z';
}

bool waitFor(std::chrono::steady_clock::duration limit, const std::function<bool()>& done) {
  for (auto deadline = std::chrono::steady_clock::now() + limit;
       std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(100ms))
    if (done()) return true;
  return done();
}

class GoLive : public ::testing::Test {
 protected:
  GoLive() : work(qvn::test::makeTempDir("devcloud-golive")) {
    ffmpeg = findProgram("ffmpeg");
    ffprobe = findProgram("ffprobe");
  }
  ~GoLive() override {
    publisher.reset();
    cloud.reset();
    std::error_code ignored;
    std::filesystem::remove_all(work, ignored);
  }

  // Starts it and reads the lines it prints about where it listens.
  void startCloud(std::vector<std::string> extra = {}) {
    std::vector<std::string> argv = {QVN_DEVCLOUD, "--port", "0", "--db", db()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    cloud = std::make_unique<ChildProcess>(argv, work / "cloud.out", work / "cloud.err");
    const std::regex lines(
        R"(^qvn-devcloud listening on http://127\.0\.0\.1:([0-9]+)\n(qvn-devcloud ingest (on (rtmp://\S+)|unavailable: .*)\n)?)");
    std::smatch m;
    waitFor(10s, [&] {
      stdoutText = readFile(work / "cloud.out").value_or("");
      // With an ingest, its line comes once nginx accepts.
      return std::regex_search(stdoutText, m, lines) &&
             (m[2].matched || extra.end() != std::find(extra.begin(), extra.end(), "--no-ingest"));
    });
    ASSERT_FALSE(m.empty()) << stdoutText << cloudLog();
    client = std::make_unique<TestClient>(std::uint16_t(std::stoi(m[1].str())));
    ingestUrl = m[4].str();
  }

  std::string db() const { return (work / "cloud.sqlite").string(); }
  std::string cloudLog() const { return readFile(work / "cloud.err").value_or(""); }
  // The nginx its log says it started; -1 when it started none.
  pid_t nginxPid() const {
    std::smatch m;
    const std::string log = cloudLog();
    return std::regex_search(log, m, std::regex("ingest: nginx ([0-9]+) on ")) ? std::stoi(m[1])
                                                                               : -1;
  }

  std::string signIn(const std::string& email) {
    const std::string verifier = base64url(randomBytes(32));
    const auto started =
        client->post("/v1/auth/magic/start", {{"email", email},
                                              {"device_id", "desk"},
                                              {"code_challenge", base64url(sha256(verifier))},
                                              {"intent", "signup"}});
    const auto code = client->get("/dev/last-code?email=" + email).json()["code"];
    const auto tokens =
        client->post("/v1/auth/magic/code", {{"request_id", started.json()["request_id"]},
                                             {"code", code},
                                             {"code_verifier", verifier}});
    EXPECT_EQ(tokens.status, 200u) << tokens.body;
    return tokens.json().value("access_token", "");
  }

  std::string addDestination(const std::string& platform, const std::string& name,
                             const std::string& url, const std::string& key) {
    const auto added = client->post("/dev/destinations", {{"email", "ana@example.com"},
                                                          {"platform", platform},
                                                          {"name", name},
                                                          {"url", url},
                                                          {"key", key}});
    EXPECT_EQ(added.status, 201u) << added.body;
    return added.json()["destination"].value("id", "");
  }

  // A test picture and tone, as the studio would send them, for up to a minute.
  void publish(const std::string& url) {
    publisher =
        std::make_unique<ChildProcess>(std::vector<std::string>{ffmpeg,
                                                                "-nostdin",
                                                                "-v",
                                                                "error",
                                                                "-re",
                                                                "-f",
                                                                "lavfi",
                                                                "-i",
                                                                "testsrc2=size=640x360:rate=30",
                                                                "-f",
                                                                "lavfi",
                                                                "-i",
                                                                "sine=frequency=440",
                                                                "-t",
                                                                "60",
                                                                "-c:v",
                                                                "libx264",
                                                                "-preset",
                                                                "veryfast",
                                                                "-g",
                                                                "30",
                                                                "-pix_fmt",
                                                                "yuv420p",
                                                                "-c:a",
                                                                "aac",
                                                                "-f",
                                                                "flv",
                                                                url},
                                       work / "publisher.out", work / "publisher.err");
  }

  // Destination name → status, once `done` holds for them or the time is up.
  std::map<std::string, json> waitForStates(
      const std::string& token, const std::string& session,
      const std::function<bool(const std::map<std::string, json>&)>& done) {
    std::map<std::string, json> states;
    waitFor(kLiveWithin, [&] {
      states.clear();
      const json reply = client->get("/v1/streams/sessions/" + session, token).json();
      for (const auto& d : reply.value("destinations", json::array())) states[d["name"]] = d;
      return done(states);
    });
    return states;
  }

  // The codecs ffprobe finds in a live stream, sorted, one a line.
  std::string codecsAt(const std::string& url, int timeoutSeconds = 20) {
    const auto r = runProgram(
        {ffprobe, "-v", "error", "-rw_timeout", std::to_string(timeoutSeconds * 1'000'000),
         "-show_entries", "stream=codec_name", "-of", "csv=p=0", url},
        timeoutSeconds + 15, work);
    if (!r.succeeded()) return "failed: " + r.describe();
    std::vector<std::string> names;
    std::stringstream lines(r.out);
    for (std::string line; std::getline(lines, line);)
      if (!line.empty()) names.push_back(line);
    std::sort(names.begin(), names.end());
    std::string out;
    for (const auto& n : names) out += n + "\n";
    return out;
  }

  std::filesystem::path work;
  std::string ffmpeg, ffprobe;
  std::unique_ptr<ChildProcess> cloud, publisher;
  std::unique_ptr<TestClient> client;
  std::string stdoutText, ingestUrl;
};

TEST_F(GoLive, OneSessionReachesEveryDestinationUntilItIsDeleted) {
  ASSERT_FALSE(ffmpeg.empty() || ffprobe.empty()) << "ffmpeg is needed: run scripts/setup";
  qvn::test::NginxIngest first, second;
  const auto nobody = qvn::test::freeLoopbackPorts(1)[0];
  startCloud();
  ASSERT_TRUE(ingestUrl.starts_with("rtmp://127.0.0.1:")) << stdoutText;
  const std::string token = signIn("ana@example.com");

  // The person running it adds one by hand, the test the others.
  const auto added = runProgram(
      {QVN_DEVCLOUD, "destination", "add", "--db", db(), "--email", "ana@example.com", "--platform",
       "custom", "--name", "Backup", "--url", first.rtmpURL(), "--key", "to-first"},
      20, work);
  ASSERT_TRUE(added.succeeded()) << added.describe();
  const std::string main = addDestination("youtube", "Main", second.rtmpURL(), "to-second");
  const std::string nowhere = addDestination(
      "twitch", "Nowhere", "rtmp://127.0.0.1:" + std::to_string(nobody) + "/live", "to-nobody");
  json ids = json::array();
  const json listed = client->get("/v1/destinations", token).json();
  for (const auto& d : listed["destinations"]) ids.push_back(d["id"]);
  ASSERT_EQ(ids.size(), 3u) << listed;

  const auto opened = client->post("/v1/streams/sessions",
                                   {{"destination_ids", ids}, {"device_id", "desk"}}, token);
  ASSERT_EQ(opened.status, 201u) << opened.body;
  const std::string session = opened.json()["session"]["id"];
  const std::string key = opened.json()["session"]["stream_key"];
  EXPECT_EQ(opened.json()["session"]["ingest_url"], ingestUrl);

  // A key no session has is turned away at once.
  const auto refused =
      runProgram({ffmpeg, "-nostdin", "-v", "error", "-re", "-f", "lavfi", "-i",
                  "testsrc2=size=320x180:rate=30", "-t", "20", "-c:v", "libx264", "-preset",
                  "ultrafast", "-f", "flv", ingestUrl + "/live_not_a_key"},
                 15, work);
  EXPECT_TRUE(refused.finished && !refused.succeeded()) << refused.describe();
  EXPECT_NE(cloudLog().find("on_publish from 127.0.0.1 refused: no session has that stream key"),
            std::string::npos)
      << cloudLog();

  publish(ingestUrl + "/" + key);
  auto states = waitForStates(token, session, [](const auto& s) {
    return s.size() == 3 && s.at("Backup")["status"] == "live" &&
           s.at("Main")["status"] == "live" && s.at("Nowhere")["status"] == "error";
  });
  ASSERT_EQ(states.size(), 3u);
  EXPECT_EQ(states["Backup"]["status"], "live") << states["Backup"] << cloudLog();
  EXPECT_EQ(states["Main"]["status"], "live") << states["Main"];
  EXPECT_EQ(states["Nowhere"]["status"], "error") << states["Nowhere"];
  EXPECT_EQ(states["Nowhere"]["error_message"], "Connection refused");
  EXPECT_EQ(states["Main"]["destination_id"], main);

  EXPECT_EQ(codecsAt(first.rtmpURL() + "/to-first"), "aac\nh264\n") << first.errorLog();
  EXPECT_EQ(codecsAt(second.rtmpURL() + "/to-second"), "aac\nh264\n") << second.errorLog();
  const json destinations = client->get("/v1/destinations", token).json();
  for (const auto& d : destinations["destinations"])
    EXPECT_EQ(d["last_error"], d["id"] == nowhere ? "Connection refused" : "") << d;
  EXPECT_EQ(client->post("/v1/embed", json::object(), token).json()["studio_live"], true);
  const std::string log = cloudLog();
  for (const std::string& line :
       {"on_publish from 127.0.0.1 allowed: session " + session,
        "relay: session " + session + ", Main (" + main + "): live",
        "relay: session " + session + ", Nowhere (" + nowhere + "): error: Connection refused"})
    EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;

  // Deleted: the publisher is dropped, its relay and the relay's ffmpeg end, and nothing
  // reaches the destinations any more.
  ASSERT_EQ(client->send("DELETE", "/v1/streams/sessions/" + session, "", token).status, 200u);
  EXPECT_TRUE(publisher->wait(std::chrono::duration<double>(kGoneWithin).count()).has_value())
      << "the publisher was not dropped";
  EXPECT_TRUE(waitFor(kGoneWithin, [&] { return processesWith(key).empty(); }))
      << processesWith(key).size() << " relay processes left";
  EXPECT_TRUE(codecsAt(first.rtmpURL() + "/to-first", 3).starts_with("failed"));
  EXPECT_EQ(client->send("DELETE", "/v1/streams/sessions/" + session, "", token).status, 404u);
  EXPECT_EQ(client->get("/v1/embed", token).json()["studio_live"], false);
  EXPECT_NE(cloudLog().find("on_update: dropping the publisher of deleted session " + session),
            std::string::npos);

  const int status = cloud->stop(SIGTERM, 10);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(cloudLog().find("ingest: nginx"), std::string::npos);
}

TEST_F(GoLive, StoppingTheDevcloudMidStreamStopsItsNginxAndEveryRelay) {
  ASSERT_FALSE(ffmpeg.empty()) << "ffmpeg is needed: run scripts/setup";
  qvn::test::NginxIngest destination;
  startCloud();
  const std::string token = signIn("ana@example.com");
  const std::string id = addDestination("custom", "Only", destination.rtmpURL(), "only");
  const auto opened = client->post("/v1/streams/sessions",
                                   {{"destination_ids", {id}}, {"device_id", "desk"}}, token);
  ASSERT_EQ(opened.status, 201u) << opened.body;
  const std::string key = opened.json()["session"]["stream_key"];
  publish(ingestUrl + "/" + key);
  const auto states = waitForStates(token, opened.json()["session"]["id"], [](const auto& s) {
    return s.size() == 1 && s.begin()->second["status"] == "live";
  });
  ASSERT_EQ(states.begin()->second["status"], "live") << cloudLog();
  // The publisher, the relay nginx started for it, and the relay's ffmpeg.
  ASSERT_EQ(processesWith(key).size(), 3u);
  const pid_t nginx = nginxPid();
  ASSERT_TRUE(nginx > 0 && isRunning(nginx)) << cloudLog();

  const int status = cloud->stop(SIGTERM, 10);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(isRunning(nginx));
  EXPECT_TRUE(publisher->wait(std::chrono::duration<double>(kGoneWithin).count()).has_value());
  EXPECT_TRUE(waitFor(kGoneWithin, [&] { return processesWith(key).empty(); }))
      << processesWith(key).size() << " relay processes left";
  EXPECT_NE(cloudLog().find("ingest: nginx " + std::to_string(nginx) + " stopped"),
            std::string::npos)
      << cloudLog();
}

TEST_F(GoLive, WithoutAnIngestSessionsStillOpenAndNameIt) {
  // No RTMP module where nginx would load it from.
  setenv("QVN_NGINX_MODULES", (work / "no-modules").c_str(), 1);
  startCloud({"--ingest-port", "1936"});
  unsetenv("QVN_NGINX_MODULES");
  EXPECT_NE(stdoutText.find("\nqvn-devcloud ingest unavailable: nginx's RTMP module " +
                            (work / "no-modules" / "ngx_rtmp_module.so").string() +
                            " is missing (apt install nginx libnginx-mod-rtmp)\n"),
            std::string::npos)
      << stdoutText;
  const std::string token = signIn("ana@example.com");
  const std::string id = addDestination("custom", "Only", "rtmp://127.0.0.1:1/live", "k");
  const auto opened = client->post("/v1/streams/sessions",
                                   {{"destination_ids", {id}}, {"device_id", "desk"}}, token);
  ASSERT_EQ(opened.status, 201u) << opened.body;
  EXPECT_EQ(opened.json()["session"]["ingest_url"], "rtmp://127.0.0.1:1936/live");
  EXPECT_EQ(cloud->stop(SIGTERM, 10), 0);

  startCloud({"--no-ingest"});
  EXPECT_EQ(stdoutText.find("ingest"), std::string::npos) << stdoutText;
  EXPECT_TRUE(waitFor(5s, [&] {
    return cloudLog().find("ingest off (--no-ingest)") != std::string::npos;
  })) << cloudLog();
  EXPECT_EQ(nginxPid(), -1);
}

}  // namespace
}  // namespace qvn::devcloud::test
