// The stream side at the service's level, without sockets: an account's destinations and
// nobody else's, sessions that need somewhere to go, each destination's state through a
// publish, its relay and its end, deletion, the embed link, and the questions the ingest
// asks before it lets a publisher on or keeps it.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>

#include <nlohmann/json.hpp>

#include "devcloud_service.h"
#include "platform/crypto.h"

namespace qvn::devcloud {
namespace {

using json = nlohmann::json;

constexpr const char* kIngest = "rtmp://127.0.0.1:1935/live";

struct Answer {
  unsigned status = 0;
  json body;
  bool quiet = false;
};

class Streams : public ::testing::Test {
 protected:
  Streams() { open(":memory:"); }

  void open(const std::string& database) {
    service.reset();
    service = std::make_unique<DevCloudService>(ServiceSettings{
        .database = database,
        .site = "http://127.0.0.1:1",
        .ingestUrl = kIngest,
        .clock = [] { return std::int64_t(1'700'000'000); },
        .announce = [](const std::string&) {},
        .log = [this](const std::string& line) { logged.push_back(line); },
    });
  }

  Answer call(const std::string& method, const std::string& target, const json& body = nullptr,
              const std::string& token = {}) {
    return send({method, target, body.is_null() ? "" : body.dump(),
                 token.empty() ? "" : "Bearer " + token});
  }
  Answer send(const HttpCall& c) {
    const HttpReply reply = service->handle(c);
    return {reply.status, json::parse(reply.body, nullptr, false), reply.quiet};
  }
  // What nginx sends: a form, no token.
  Answer ingest(const std::string& path, const std::string& form) {
    return send({"POST", "/dev/rtmp/" + path, form, ""});
  }

  std::string signIn(const std::string& email) {
    const std::string verifier = base64url(randomBytes(32));
    const auto started = call(
        "POST", "/v1/auth/magic/start",
        {{"email", email}, {"device_id", "desk"}, {"code_challenge", base64url(sha256(verifier))}});
    const auto code = call("GET", "/dev/last-code?email=" + email).body["code"];
    const auto tokens = call(
        "POST", "/v1/auth/magic/code",
        {{"request_id", started.body["request_id"]}, {"code", code}, {"code_verifier", verifier}});
    EXPECT_EQ(tokens.status, 200u) << tokens.body;
    return tokens.body.value("access_token", "");
  }

  std::string addDestination(const std::string& email, const std::string& name,
                             const std::string& key, bool enabled = true) {
    const auto added = call("POST", "/dev/destinations",
                            {{"email", email},
                             {"platform", "custom"},
                             {"name", name},
                             {"url", "rtmp://127.0.0.1:1936/" + name},
                             {"key", key},
                             {"enabled", enabled}});
    EXPECT_EQ(added.status, 201u) << added.body;
    return added.body["destination"].value("id", "");
  }

  Answer openSession(const std::string& token, const json& ids) {
    return call("POST", "/v1/streams/sessions",
                {{"destination_ids", ids}, {"device_id", "desk"}, {"needs_rotation", false}},
                token);
  }

  // Name → status and error, as the studio reads them.
  std::map<std::string, std::pair<std::string, std::string>> states(const std::string& token,
                                                                    const std::string& id) {
    std::map<std::string, std::pair<std::string, std::string>> out;
    const auto reply = call("GET", "/v1/streams/sessions/" + id, nullptr, token);
    EXPECT_EQ(reply.status, 200u) << reply.body;
    for (const auto& d : reply.body["destinations"])
      out[d["name"]] = {d["status"], d["error_message"]};
    return out;
  }

  Answer report(const std::string& key, const std::string& destination, const std::string& status,
                const std::string& message = "") {
    return call("POST", "/dev/relay/status",
                {{"key", key},
                 {"destination_id", destination},
                 {"status", status},
                 {"error_message", message}});
  }

  bool loggedSomething(const std::string& words) const {
    return std::any_of(logged.begin(), logged.end(),
                       [&](const std::string& l) { return l.find(words) != std::string::npos; });
  }

  std::vector<std::string> logged;
  std::unique_ptr<DevCloudService> service;
};

TEST_F(Streams, DestinationsAreTheAccountsOwnAndTurnOnAndOff) {
  const std::string ana = signIn("ana@example.com"), bo = signIn("bo@example.com");
  const std::string backup = addDestination("ana@example.com", "Backup", "abc");
  const std::string keyless = addDestination("Ana@Example.com", "Keyless", "");
  const std::string off = addDestination("ana@example.com", "Off", "k", false);
  const std::string bos = addDestination("bo@example.com", "Bos", "k");

  const auto list = call("GET", "/v1/destinations", nullptr, ana);
  ASSERT_EQ(list.status, 200u);
  EXPECT_EQ(list.body, json({{"destinations",
                              {{{"id", backup},
                                {"platform", "custom"},
                                {"name", "Backup"},
                                {"is_enabled", true},
                                {"has_key", true},
                                {"last_error", ""}},
                               {{"id", keyless},
                                {"platform", "custom"},
                                {"name", "Keyless"},
                                {"is_enabled", true},
                                {"has_key", false},
                                {"last_error", ""}},
                               {{"id", off},
                                {"platform", "custom"},
                                {"name", "Off"},
                                {"is_enabled", false},
                                {"has_key", true},
                                {"last_error", ""}}}}}));
  const auto his = call("GET", "/v1/destinations", nullptr, bo).body["destinations"];
  ASSERT_EQ(his.size(), 1u);
  EXPECT_EQ(his[0]["id"], bos);

  const auto on = call("PUT", "/v1/destinations/" + off, {{"is_enabled", true}}, ana);
  ASSERT_EQ(on.status, 200u) << on.body;
  EXPECT_EQ(on.body["destination"]["is_enabled"], true);
  EXPECT_EQ(call("GET", "/v1/destinations", nullptr, ana).body["destinations"][2]["is_enabled"],
            true);
  EXPECT_EQ(call("PUT", "/v1/destinations/" + backup, {{"is_enabled", false}}, ana)
                .body["destination"]["is_enabled"],
            false);

  // Another account's destination is as unknown as one that never was.
  for (const std::string& id : {bos, std::string("dst_nothing")}) {
    const auto refused = call("PUT", "/v1/destinations/" + id, {{"is_enabled", false}}, ana);
    EXPECT_EQ(refused.status, 404u) << id;
    EXPECT_EQ(refused.body["error"], "not_found");
    EXPECT_FALSE(refused.body.value("message", "").empty());
  }
  EXPECT_EQ(call("GET", "/v1/destinations", nullptr, bo).body["destinations"][0]["is_enabled"],
            true);
  EXPECT_EQ(call("PUT", "/v1/destinations/" + off, {{"is_enabled", "yes"}}, ana).status, 400u);
  EXPECT_EQ(call("PUT", "/v1/destinations/" + off, {{"is_enabled", true}}).status, 401u);
  EXPECT_EQ(call("GET", "/v1/destinations").status, 401u);
  const auto wrongMethod = call("GET", "/v1/destinations/" + off, nullptr, ana);
  EXPECT_EQ(wrongMethod.status, 405u);
  EXPECT_EQ(call("GET", "/v1/destinations/a/b", nullptr, ana).status, 404u);

  for (const json& bad :
       {json{{"email", "ana"}, {"platform", "custom"}, {"url", "rtmp://h/live"}},
        json{{"email", "ana@example.com"}, {"url", "rtmp://h/live"}},
        json{{"email", "ana@example.com"}, {"platform", "custom"}, {"url", "http://h/live"}},
        json{{"email", "ana@example.com"}, {"platform", "my tube"}, {"url", "rtmp://h/live"}},
        json{{"email", "ana@example.com"},
             {"platform", "custom"},
             {"url", "rtmp://h/live"},
             {"enabled", "no"}}})
    EXPECT_EQ(call("POST", "/dev/destinations", bad).status, 400u) << bad;
}

TEST_F(Streams, ASessionNeedsAnEnabledDestinationWithAKeyOfItsOwn) {
  const std::string ana = signIn("ana@example.com");
  signIn("bo@example.com");
  const std::string good = addDestination("ana@example.com", "Good", "k1");
  const std::string keyless = addDestination("ana@example.com", "Keyless", "");
  const std::string off = addDestination("ana@example.com", "Off", "k3", false);
  const std::string bos = addDestination("bo@example.com", "Bos", "k4");

  for (const json& ids : {json::array(), json{off}, json{bos}, json{"dst_nothing", 5}}) {
    const auto refused = openSession(ana, ids);
    EXPECT_EQ(refused.status, 400u) << ids;
    EXPECT_EQ(refused.body["error"], "no_destinations");
    EXPECT_EQ(refused.body["message"], "Turn on at least one destination.");
  }
  const auto notConnected = openSession(ana, {keyless, off});
  EXPECT_EQ(notConnected.status, 400u);
  EXPECT_EQ(notConnected.body["error"], "no_destinations");
  EXPECT_NE(notConnected.body.value("message", "").find("Keyless isn't connected"),
            std::string::npos)
      << notConnected.body;
  EXPECT_EQ(call("POST", "/v1/streams/sessions", {{"device_id", "desk"}}, ana).status, 400u);
  EXPECT_EQ(openSession("", {good}).status, 401u);

  // Whatever can't stream is left out; the rest is the session.
  const auto opened = openSession(ana, {good, keyless, off, bos, good});
  ASSERT_EQ(opened.status, 201u) << opened.body;
  const json session = opened.body["session"];
  EXPECT_EQ(session["ingest_url"], kIngest);
  EXPECT_EQ(session["stream_config"], json({{"resolution", "1080p"},
                                            {"fps", 30},
                                            {"bitrate_kbps", 6000},
                                            {"audio_bitrate_kbps", 128}}));
  const std::string key = session["stream_key"];
  EXPECT_GE(key.size(), 20u);
  const auto read =
      call("GET", "/v1/streams/sessions/" + session["id"].get<std::string>(), nullptr, ana);
  EXPECT_EQ(read.body["session"], session);
  EXPECT_EQ(read.body["destinations"], json({{{"destination_id", good},
                                              {"platform", "custom"},
                                              {"name", "Good"},
                                              {"status", "waiting"},
                                              {"error_message", ""}}}));

  // Each session publishes with a key of its own.
  const auto second = openSession(ana, {good}).body["session"];
  EXPECT_NE(second["id"], session["id"]);
  EXPECT_NE(second["stream_key"], key);
  // The log tells sessions apart without giving their keys away.
  for (const auto& line : logged) EXPECT_EQ(line.find(key), std::string::npos) << line;
}

TEST_F(Streams, StatesFollowThePublishItsRelayAndItsEnd) {
  const std::string ana = signIn("ana@example.com");
  const std::string main = addDestination("ana@example.com", "Main", "k1");
  const std::string dead = addDestination("ana@example.com", "Dead", "k2");
  const auto session = openSession(ana, {main, dead}).body["session"];
  const std::string id = session["id"], key = session["stream_key"];
  ASSERT_EQ(call("POST", "/v1/embed", json::object(), ana).status, 201u);
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["studio_live"], false);
  // Nothing publishes yet: a relay can't claim otherwise.
  EXPECT_EQ(report(key, main, "live").status, 409u);

  const auto wrong = ingest("on_publish", "call=publish&app=live&name=live_wrong&addr=127.0.0.1");
  EXPECT_EQ(wrong.status, 403u);
  EXPECT_TRUE(loggedSomething("on_publish from 127.0.0.1 refused: no session has that"));
  EXPECT_EQ(ingest("on_publish", "call=publish&app=live&addr=127.0.0.1").status, 403u);

  const auto allowed =
      ingest("on_publish", "call=publish&app=live&name=" + key + "&type=live&addr=127.0.0.1");
  EXPECT_EQ(allowed.status, 200u);
  EXPECT_TRUE(loggedSomething("on_publish from 127.0.0.1 allowed: session " + id));
  EXPECT_EQ(states(ana, id), (std::map<std::string, std::pair<std::string, std::string>>{
                                 {"Main", {"starting", ""}}, {"Dead", {"starting", ""}}}));
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["studio_live"], true);
  // nginx would refuse a second publisher of one stream; so does the devcloud, first.
  EXPECT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 403u);

  const auto targets = call("GET", "/dev/relay/targets?key=" + key);
  ASSERT_EQ(targets.status, 200u) << targets.body;
  EXPECT_EQ(targets.body["source"], std::string(kIngest) + "/" + key);
  EXPECT_EQ(
      targets.body["targets"],
      json({{{"destination_id", main}, {"name", "Main"}, {"url", "rtmp://127.0.0.1:1936/Main/k1"}},
            {{"destination_id", dead},
             {"name", "Dead"},
             {"url", "rtmp://127.0.0.1:1936/Dead/k2"}}}));

  EXPECT_EQ(report(key, main, "live").status, 200u);
  EXPECT_EQ(report(key, dead, "error", "Connection refused").status, 200u);
  EXPECT_EQ(states(ana, id),
            (std::map<std::string, std::pair<std::string, std::string>>{
                {"Main", {"live", ""}}, {"Dead", {"error", "Connection refused"}}}));
  const auto list = call("GET", "/v1/destinations", nullptr, ana).body["destinations"];
  EXPECT_EQ(list[0]["last_error"], "");
  EXPECT_EQ(list[1]["last_error"], "Connection refused");
  EXPECT_TRUE(
      loggedSomething("relay: session " + id + ", Dead (" + dead + "): error: Connection refused"));
  EXPECT_EQ(report(key, main, "flying").status, 400u);
  EXPECT_EQ(report(key, "dst_nothing", "live").status, 404u);
  EXPECT_EQ(report("live_wrong", main, "live").status, 404u);

  // Asked every second: yes, quietly, for an open session's publisher and for any player.
  const auto kept = ingest("on_update", "call=update_publish&time=3&name=" + key);
  EXPECT_EQ(kept.status, 200u);
  EXPECT_TRUE(kept.quiet);
  EXPECT_EQ(ingest("on_update", "call=update_play&name=whatever").status, 200u);

  ASSERT_EQ(ingest("on_publish_done", "call=publish_done&app=live&name=" + key).status, 200u);
  // The failure outlives the stream; the rest ended.
  EXPECT_EQ(states(ana, id),
            (std::map<std::string, std::pair<std::string, std::string>>{
                {"Main", {"ended", ""}}, {"Dead", {"error", "Connection refused"}}}));
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["studio_live"], false);
  EXPECT_EQ(report(key, main, "live").status, 409u);
  EXPECT_EQ(report(key, dead, "ended").status, 200u);
  EXPECT_EQ(states(ana, id)["Dead"].first, "error");

  // The studio reconnects with the same key: everything starts again, and a destination
  // that now reaches live sheds its last error. One turned off meanwhile is left out.
  ASSERT_EQ(call("PUT", "/v1/destinations/" + main, {{"is_enabled", false}}, ana).status, 200u);
  ASSERT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 200u);
  EXPECT_EQ(states(ana, id)["Dead"], std::make_pair(std::string("starting"), std::string()));
  const auto again = call("GET", "/dev/relay/targets?key=" + key).body["targets"];
  ASSERT_EQ(again.size(), 1u);
  EXPECT_EQ(again[0]["destination_id"], dead);
  EXPECT_EQ(states(ana, id)["Main"].first, "ended");
  EXPECT_EQ(report(key, dead, "live").status, 200u);
  EXPECT_EQ(call("GET", "/v1/destinations", nullptr, ana).body["destinations"][1]["last_error"],
            "");
}

TEST_F(Streams, DeletingEndsTheKeyOnceAndForAll) {
  const std::string ana = signIn("ana@example.com"), bo = signIn("bo@example.com");
  const std::string main = addDestination("ana@example.com", "Main", "k1");
  const auto session = openSession(ana, {main}).body["session"];
  const std::string id = session["id"], key = session["stream_key"];
  ASSERT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 200u);
  ASSERT_EQ(call("POST", "/v1/embed", json::object(), ana).status, 201u);

  EXPECT_EQ(call("GET", "/v1/streams/sessions/" + id, nullptr, bo).status, 404u);
  EXPECT_EQ(call("DELETE", "/v1/streams/sessions/" + id, nullptr, bo).status, 404u);
  const auto deleted = call("DELETE", "/v1/streams/sessions/" + id, nullptr, ana);
  ASSERT_EQ(deleted.status, 200u);
  EXPECT_EQ(deleted.body, json::object());
  const auto twice = call("DELETE", "/v1/streams/sessions/" + id, nullptr, ana);
  EXPECT_EQ(twice.status, 404u);
  EXPECT_EQ(twice.body["error"], "not_found");
  EXPECT_EQ(call("DELETE", "/v1/streams/sessions/ses_nothing", nullptr, ana).status, 404u);
  EXPECT_EQ(call("DELETE", "/v1/streams/sessions/" + id).status, 401u);

  // Read back, it has ended; the ingest drops its publisher at the next question and lets
  // no new one on; its relay has nowhere left to go.
  EXPECT_EQ(states(ana, id)["Main"].first, "ended");
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["studio_live"], false);
  const auto dropped = ingest("on_update", "call=update_publish&name=" + key);
  EXPECT_EQ(dropped.status, 403u);
  EXPECT_FALSE(dropped.quiet);
  EXPECT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 403u);
  EXPECT_TRUE(loggedSomething("refused: session " + id + " was deleted"));
  EXPECT_EQ(call("GET", "/dev/relay/targets?key=" + key).status, 404u);
  EXPECT_EQ(report(key, main, "ended").status, 404u);
  EXPECT_EQ(ingest("on_publish_done", "call=publish_done&name=" + key).status, 200u);
}

TEST_F(Streams, TheEmbedLinkIsMadeOnceAndStaysTheAccounts) {
  const std::string ana = signIn("ana@example.com"), bo = signIn("bo@example.com");
  const auto none = call("GET", "/v1/embed", nullptr, ana);
  EXPECT_EQ(none.status, 200u);
  EXPECT_EQ(none.body, json::object());
  const auto made = call("POST", "/v1/embed", json::object(), ana);
  ASSERT_EQ(made.status, 201u);
  const std::string url = made.body["embed_url"];
  EXPECT_TRUE(url.starts_with("https://")) << url;
  EXPECT_EQ(made.body["studio_live"], false);
  EXPECT_EQ(call("POST", "/v1/embed", json::object(), ana).body["embed_url"], url);
  EXPECT_EQ(call("POST", "/v1/embed", json::object(), ana).status, 200u);
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["embed_url"], url);
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, bo).body, json::object());
  EXPECT_NE(call("POST", "/v1/embed", json::object(), bo).body["embed_url"], url);
  EXPECT_EQ(call("GET", "/v1/embed").status, 401u);
  EXPECT_EQ(call("PUT", "/v1/embed", json::object(), ana).status, 405u);
}

TEST_F(Streams, TheStreamConfigControlChangesWhatNewSessionsAreGiven) {
  const std::string ana = signIn("ana@example.com");
  const std::string main = addDestination("ana@example.com", "Main", "k1");
  const std::string before = openSession(ana, {main}).body["session"]["id"];

  // Taken as given, a missing key and a wrong type included.
  const json odd = {{"resolution", "720p"}, {"fps", "thirty"}, {"bitrate_kbps", 3000}};
  const auto set = send({"POST", "/dev/stream-config", odd.dump(), ""});
  ASSERT_EQ(set.status, 200u) << set.body;
  EXPECT_EQ(openSession(ana, {main}).body["session"]["stream_config"], odd);
  EXPECT_EQ(call("GET", "/dev/stream-config").body["stream_config"], odd);
  // A session keeps the settings it was opened with.
  EXPECT_EQ(call("GET", "/v1/streams/sessions/" + before, nullptr, ana)
                .body["session"]["stream_config"]["resolution"],
            "1080p");

  ASSERT_EQ(send({"POST", "/dev/stream-config", "null", ""}).status, 200u);
  EXPECT_FALSE(openSession(ana, {main}).body["session"].contains("stream_config"));
  for (const char* bad : {"[1]", "\"720p\"", "{oops"})
    EXPECT_EQ(send({"POST", "/dev/stream-config", bad, ""}).status, 400u) << bad;

  ASSERT_EQ(call("DELETE", "/dev/stream-config").status, 200u);
  EXPECT_EQ(openSession(ana, {main}).body["session"]["stream_config"]["resolution"], "1080p");
}

TEST_F(Streams, AfterARestartEverythingIsKeptButNothingIsPublishing) {
  std::string pattern = (std::filesystem::temp_directory_path() / "qvn-devcloud-XXXXXX");
  ASSERT_TRUE(mkdtemp(pattern.data()));
  const std::filesystem::path dir = pattern;
  open((dir / "cloud.sqlite").string());
  const std::string ana = signIn("ana@example.com");
  const std::string main = addDestination("ana@example.com", "Main", "k1");
  const auto session = openSession(ana, {main}).body["session"];
  const std::string id = session["id"], key = session["stream_key"];
  ASSERT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 200u);
  ASSERT_EQ(report(key, main, "live").status, 200u);
  ASSERT_EQ(call("POST", "/v1/embed", json::object(), ana).status, 201u);

  // A new run starts a new nginx: whoever published to the old one is gone.
  open((dir / "cloud.sqlite").string());
  EXPECT_EQ(states(ana, id)["Main"].first, "ended");
  EXPECT_EQ(call("GET", "/v1/embed", nullptr, ana).body["studio_live"], false);
  EXPECT_EQ(call("GET", "/v1/destinations", nullptr, ana).body["destinations"].size(), 1u);
  EXPECT_EQ(ingest("on_publish", "call=publish&name=" + key).status, 200u);
  service.reset();
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace qvn::devcloud
