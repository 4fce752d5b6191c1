// What runs beside the devcloud, without running it: the relay's reading of ffmpeg (lines
// as ffmpeg 5.1 writes them when an output is refused, cut off, or the last one fails), its
// tee list, the ingest's nginx.conf, and the admin's destination command on a real database.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <sys/wait.h>

#include <filesystem>
#include <sstream>

#include "devcloud_admin.h"
#include "devcloud_ingest.h"
#include "devcloud_relay.h"
#include "devcloud_store.h"

namespace qvn::devcloud {
namespace {

using Change = RelayWatch::Change;

constexpr int kExitedCleanly = 0;       // a wait status: exit(0)
constexpr int kExitedWithOne = 1 << 8;  // exit(1)

TEST(RelayTee, OneFlvOutputPerDestinationWithItsSyntaxEscaped) {
  EXPECT_EQ(teeOutputs({"rtmp://127.0.0.1:1936/live/abc"}),
            "[f=flv:onfail=ignore]rtmp://127.0.0.1:1936/live/abc");
  // A bar would start another output and a bracket options, unless escaped.
  EXPECT_EQ(teeOutputs({"rtmp://a/live/k", "rtmps://b:443/app/x|y[1]\\z"}),
            "[f=flv:onfail=ignore]rtmp://a/live/k|"
            "[f=flv:onfail=ignore]rtmps://b:443/app/x\\|y\\[1\\]\\\\z");
}

TEST(RelayWatch, ARefusedDestinationFailsAndTheOtherGoesLiveOnceDataFlows) {
  RelayWatch watch({"rtmp://127.0.0.1:19350/live/k1", "rtmp://127.0.0.1:1/live/k2"},
                   {"ingestkey", "k1", "k2"});
  EXPECT_EQ(watch.start(), (std::vector<Change>{{0, "starting", ""}, {1, "starting", ""}}));
  // The first report comes before any packet is written.
  EXPECT_TRUE(watch.progressLine("frame=0").empty());
  EXPECT_TRUE(watch.progressLine("out_time_us=N/A").empty());
  for (const char* line :
       {"[tcp @ 0x56368e07b900] Connection to tcp://127.0.0.1:1?tcp_nodelay=0 failed: "
        "Connection refused",
        "[rtmp @ 0x56368dfb26c0] Cannot open connection tcp://127.0.0.1:1?tcp_nodelay=0"})
    EXPECT_TRUE(watch.errorLine(line).empty()) << line;
  EXPECT_EQ(watch.errorLine("[tee @ 0x56368dfa7280] Slave "
                            "'[f=flv:onfail=ignore]rtmp://127.0.0.1:1/live/k2': error opening: "
                            "Connection refused"),
            (std::vector<Change>{{1, "error", "Connection refused"}}));
  // The same failure said again changes nothing.
  EXPECT_TRUE(watch
                  .errorLine("[tee @ 0x56368dfa7280] Slave muxer #1 failed: Connection refused, "
                             "continuing with 1/2 slaves.")
                  .empty());
  EXPECT_EQ(watch.progressLine("frame=31"), (std::vector<Change>{{0, "live", ""}}));
  EXPECT_TRUE(watch.progressLine("frame=62").empty());
  // The publish ends: ffmpeg is told to stop, and complains as it does.
  watch.stopping();
  EXPECT_TRUE(watch.errorLine("[tee @ 0x1] All tee outputs failed.").empty());
  EXPECT_TRUE(
      watch.errorLine("rtmp://127.0.0.1:2/live/ingestkey: Immediate exit requested").empty());
  EXPECT_EQ(watch.exited(kExitedWithOne), (std::vector<Change>{{0, "ended", ""}}));
  EXPECT_EQ(watch.status(1), "error");
}

TEST(RelayWatch, CutOffMidStreamOneByOneUntilTheLastTakesTheRelayDown) {
  RelayWatch watch({"rtmp://127.0.0.1:19351/live/a", "rtmp://127.0.0.1:19350/live/b"}, {});
  watch.start();
  EXPECT_EQ(watch.progressLine("out_time_us=1933333").size(), 2u);
  EXPECT_TRUE(
      watch.errorLine("[flv @ 0x559de21b1ac0] Failed to update header with correct duration.")
          .empty());
  EXPECT_EQ(watch.errorLine("[tee @ 0x559de20dc3c0] Slave muxer #0 failed: Broken pipe, "
                            "continuing with 1/2 slaves."),
            (std::vector<Change>{{0, "error", "Broken pipe"}}));
  // For the last one ffmpeg gives up first and says why after.
  EXPECT_TRUE(watch.errorLine("[tee @ 0x559de20dc3c0] All tee outputs failed.").empty());
  EXPECT_TRUE(watch.errorLine("av_interleaved_write_frame(): Connection reset by peer").empty());
  EXPECT_EQ(watch.exited(kExitedWithOne),
            (std::vector<Change>{{1, "error", "Connection reset by peer"}}));
  EXPECT_EQ(watch.status(0), "error");
}

TEST(RelayWatch, AnInputThatFailsKeepsNoSecretInTheMessage) {
  RelayWatch watch({"rtmp://x/live/destkey"}, {"ingestkey", "destkey"});
  watch.start();
  watch.errorLine("[rtmp @ 0x1] Server error: stream ingestkey not found, destkey neither");
  EXPECT_EQ(watch.exited(kExitedWithOne),
            (std::vector<Change>{{0, "error", "stream … not found, … neither"}}));

  // Killed without a word: the signal is the reason. A clean end is just an end.
  RelayWatch killed({"rtmp://x/live/k"}, {});
  killed.start();
  const auto changes = killed.exited(SIGKILL);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].status, "error");
  EXPECT_NE(changes[0].message.find("signal 9"), std::string::npos) << changes[0].message;
  RelayWatch finished({"rtmp://x/live/k"}, {});
  finished.start();
  EXPECT_EQ(finished.exited(kExitedCleanly), (std::vector<Change>{{0, "ended", ""}}));
}

TEST(RelayOptions, LoopbackApiAndAKeyOrOneLineWhy) {
  const auto parse = [](std::vector<const char*> args) {
    args.insert(args.begin(), "relay");
    return parseRelayOptions(int(args.size()), args.data());
  };
  const auto good = parse({"--api", "http://127.0.0.1:8790/", "--key", "live_abc"});
  ASSERT_TRUE(std::holds_alternative<RelayOptions>(good));
  EXPECT_EQ(std::get<RelayOptions>(good).apiPort, 8790);
  EXPECT_EQ(std::get<RelayOptions>(good).key, "live_abc");
  for (const auto& bad :
       std::vector<std::vector<const char*>>{{"--api", "http://example.com:80", "--key", "k"},
                                             {"--api", "http://127.0.0.1:0", "--key", "k"},
                                             {"--api", "http://127.0.0.1:99999", "--key", "k"},
                                             {"--api", "http://127.0.0.1:80"},
                                             {"--key"},
                                             {"--verbose", "1"}})
    EXPECT_TRUE(std::holds_alternative<std::string>(parse(bad))) << bad[0];
}

TEST(IngestConfig, LoopbackOnlyAskingTheDevcloudAndRelayingEveryPublish) {
  const std::string conf = ingestConfig({1935, 8790, "/opt/my tools/qvn-devcloud"},
                                        "/usr/lib/nginx/modules", "/tmp/prefix");
  for (const char* line : {
           "load_module \"/usr/lib/nginx/modules/ngx_rtmp_module.so\";",
           "master_process off;",
           "env PATH;",
           "listen 127.0.0.1:1935;",
           "exec_kill_signal term;",
           "on_publish http://127.0.0.1:8790/dev/rtmp/on_publish;",
           "on_publish_done http://127.0.0.1:8790/dev/rtmp/on_publish_done;",
           "on_update http://127.0.0.1:8790/dev/rtmp/on_update;",
           "notify_update_strict on;",
           "exec_push \"/opt/my tools/qvn-devcloud\" relay --api http://127.0.0.1:8790 --key "
           "$name;",
       })
    EXPECT_NE(conf.find(line), std::string::npos) << line << "\n" << conf;
  // Started with -g 'daemon off;', which nginx refuses twice.
  EXPECT_EQ(conf.find("daemon"), std::string::npos);
}

class DestinationCommand : public ::testing::Test {
 protected:
  DestinationCommand() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qvn-devcloud-XXXXXX");
    if (!mkdtemp(pattern.data())) throw std::runtime_error("no temporary folder");
    dir = pattern;
    db = (dir / "cloud.sqlite").string();
  }
  ~DestinationCommand() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }

  int run(std::vector<const char*> args) {
    args.insert(args.begin(), "destination");
    out.str("");
    err.str("");
    return runDestinationCommand(int(args.size()), args.data(), out, err);
  }

  std::filesystem::path dir;
  std::string db;
  std::ostringstream out, err;
};

TEST_F(DestinationCommand, AddListAndRemoveInTheDatabaseTheDevcloudUses) {
  ASSERT_EQ(run({"add", "--db", db.c_str(), "--email", "Ana@Example.com", "--platform", "custom",
                 "--name", "Backup", "--url", "rtmp://127.0.0.1:1936/live/", "--key", "abc"}),
            0)
      << err.str();
  EXPECT_TRUE(out.str().starts_with("added dst_")) << out.str();
  ASSERT_EQ(run({"add", "--db", db.c_str(), "--email", "bo@example.com", "--platform", "YouTube",
                 "--url=rtmps://a.rtmp.youtube.com/live2", "--off"}),
            0)
      << err.str();

  Store store(db);
  const auto ana = store.account("ana@example.com");
  ASSERT_TRUE(ana);  // made for the destination
  const auto anas = store.destinations(ana->id);
  ASSERT_EQ(anas.size(), 1u);
  EXPECT_EQ(anas[0].url, "rtmp://127.0.0.1:1936/live");
  EXPECT_EQ(anas[0].key, "abc");
  EXPECT_TRUE(anas[0].enabled);
  const auto all = store.destinations(std::nullopt);
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[1].platform, "youtube");
  EXPECT_EQ(all[1].name, "youtube");
  EXPECT_FALSE(all[1].enabled);
  EXPECT_TRUE(all[1].key.empty());

  ASSERT_EQ(run({"list", "--db", db.c_str(), "--email", "ana@example.com"}), 0);
  EXPECT_NE(out.str().find(anas[0].id + "  ana@example.com  custom  \"Backup\"  on  key set"),
            std::string::npos)
      << out.str();
  EXPECT_EQ(out.str().find("bo@example.com"), std::string::npos);
  ASSERT_EQ(run({"list", "--db", db.c_str()}), 0);
  EXPECT_NE(out.str().find("off  no key  rtmps://a.rtmp.youtube.com/live2"), std::string::npos)
      << out.str();

  EXPECT_EQ(run({"remove", "--db", db.c_str(), "--id", anas[0].id.c_str()}), 0);
  EXPECT_EQ(run({"remove", "--db", db.c_str(), "--id", anas[0].id.c_str()}), 1);
  EXPECT_NE(err.str().find("no destination"), std::string::npos);
  EXPECT_EQ(store.destinations(std::nullopt).size(), 1u);
}

TEST_F(DestinationCommand, RefusesWhatCannotBeADestination) {
  const std::string d = db;
  for (const auto& bad : std::vector<std::vector<const char*>>{
           {},
           {"rename", "--db", d.c_str()},
           {"add", "--db", d.c_str(), "--email", "ana@example.com", "--platform", "custom"},
           {"add", "--db", d.c_str(), "--email", "ana", "--platform", "custom", "--url",
            "rtmp://h/live"},
           {"add", "--db", d.c_str(), "--email", "ana@example.com", "--platform", "custom", "--url",
            "http://h/live"},
           {"add", "--db", d.c_str(), "--email", "ana@example.com", "--platform", "custom", "--url",
            "rtmp://h"},
           {"add", "--db", d.c_str(), "--email", "ana@example.com", "--platform", "custom", "--url",
            "rtmp://h/live", "--key", "a b"},
           {"remove", "--db", d.c_str()},
           {"list", "--db", d.c_str(), "--id", "x"},
       }) {
    EXPECT_EQ(run(bad), 2) << (bad.empty() ? "(nothing)" : bad[0]) << " " << out.str();
    EXPECT_NE(err.str().find("usage:"), std::string::npos);
  }
  EXPECT_EQ(run({"list", "--db", d.c_str(), "--email", "nobody@example.com"}), 1);
  EXPECT_EQ(run({"list", "--db", (dir / "no" / "such" / "dir.sqlite").c_str()}), 1);
}

}  // namespace
}  // namespace qvn::devcloud
