// RTMPSocket against a real ingest on loopback: nginx with its RTMP module, a TLS front with
// a certificate from a test authority, and a second front whose authority nobody trusts.
// What was published is read back by ffprobe as a player would.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "golive/flv_tags.h"
#include "golive/nginx_ingest.h"
#include "golive/paced_publisher.h"
#include "testing/child_process.h"

namespace qvn::test {
namespace {

namespace fs = std::filesystem;
using ::testing::AnyOf;
using ::testing::HasSubstr;
using ::testing::IsSupersetOf;

// Liveness bounds only, never a measure of speed. Deciding covers the socket's own connect
// and publish time-outs.
constexpr double kDecideSeconds = 60;
constexpr double kProgramSeconds = 60;
constexpr double kPublishLimitSeconds = 120;

struct Shared {
  std::unique_ptr<NginxIngest> ingest;
  fs::path work;
  FlvClip clip;
  std::string ffprobe;
  ~Shared() {
    ingest.reset();
    std::error_code ignored;
    if (!work.empty()) fs::remove_all(work, ignored);
  }
};
Shared* gShared = nullptr;

// One nginx and one clip for the whole program, made before any test: the client reads the
// trust store once per process, at its first connection of any kind, so the test authority
// must be in place by then.
class IngestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    auto shared = std::make_unique<Shared>();
    try {
      shared->ingest =
          std::make_unique<NginxIngest>(NginxIngest::Options{.tls = true, .untrustedTLS = true});
    } catch (const std::exception& e) {
      FAIL() << "can't start the test ingest: " << e.what();
    }
    setenv("SSL_CERT_FILE", shared->ingest->caFile().c_str(), 1);

    const std::string ffmpeg = findProgram("ffmpeg");
    shared->ffprobe = findProgram("ffprobe");
    ASSERT_FALSE(ffmpeg.empty() || shared->ffprobe.empty())
        << "ffmpeg and ffprobe are needed: install ffmpeg (scripts/setup does)";
    shared->work = makeTempDir("rtmp-test");
    // Three seconds of H.264 (a keyframe a second, no B-frames) and AAC, looped when sent.
    const fs::path flv = shared->work / "clip.flv";
    const RunResult made =
        runProgram({ffmpeg,    "-nostdin",  "-v",        "error",
                    "-f",      "lavfi",     "-i",        "testsrc=size=320x180:rate=30",
                    "-f",      "lavfi",     "-i",        "sine=frequency=440:sample_rate=48000",
                    "-t",      "3",         "-c:v",      "libx264",
                    "-preset", "ultrafast", "-bf",       "0",
                    "-g",      "30",        "-pix_fmt",  "yuv420p",
                    "-c:a",    "aac",       "-b:a",      "96k",
                    "-f",      "flv",       flv.string()},
                   kProgramSeconds, shared->work);
    ASSERT_TRUE(made.succeeded()) << "ffmpeg couldn't make the test clip: " << made.describe();
    try {
      shared->clip = clipOf(readFlvFile(flv));
    } catch (const std::exception& e) {
      FAIL() << "the test clip doesn't read: " << e.what();
    }
    gShared = shared.release();
  }

  void TearDown() override {
    delete gShared;
    gShared = nullptr;
  }
};

[[maybe_unused]] ::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new IngestEnvironment);

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) out.push_back(line);
  return out;
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return char(std::tolower(c)); });
  return text;
}

struct ProbedPublish {
  Publication::Outcome outcome = Publication::Outcome::undecided;
  int failures = 0;
  std::string failure;
  RunResult probe;
  PaceResult paced;
  std::int64_t pendingBytes = 0;
  std::int64_t sentBytes = 0;
};

// Publishes the clip to `url`/`key` in real time from a worker thread until ffprobe, playing
// the key from the plain RTMP port, has told which codecs it found.
ProbedPublish publishAndProbe(const std::string& url, const std::string& key) {
  ProbedPublish result;
  Publication publication(url, key);
  result.outcome = publication.waitUntilDecided(kDecideSeconds);
  if (result.outcome != Publication::Outcome::ready) {
    result.failures = publication.failureCount();
    result.failure = publication.failure();
    return result;
  }
  std::atomic<bool> stop{false};
  std::thread publisher([&] {
    PaceOptions options;
    options.maxSeconds = kPublishLimitSeconds;
    options.beforeSend = [&](const PaceTick&) {
      return !stop.load() && publication.failureCount() == 0;
    };
    result.paced = publishPaced(publication.socket(), gShared->clip, options);
  });
  result.probe =
      runProgram({gShared->ffprobe, "-v", "error", "-rw_timeout", "30000000", "-show_entries",
                  "stream=codec_name", "-of", "csv=p=0", gShared->ingest->rtmpURL() + "/" + key},
                 kProgramSeconds, gShared->work);
  stop = true;
  publisher.join();
  // Everything queued goes out while nginx reads; waiting on it is bounded for liveness.
  for (int i = 0; i < 3000 && publication.socket().sendCounters().pending > 0; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  result.pendingBytes = publication.socket().sendCounters().pending;
  result.sentBytes = publication.socket().sendCounters().sent;
  publication.close();
  result.failures = publication.failureCount();
  result.failure = publication.failure();
  return result;
}

TEST(RtmpIngest, PublishedH264AndAacPlayBack) {
  const ProbedPublish run = publishAndProbe(gShared->ingest->rtmpURL(), "cam-plain");
  ASSERT_EQ(run.outcome, Publication::Outcome::ready) << run.failure << "\nnginx log:\n"
                                                      << gShared->ingest->errorLog();
  EXPECT_TRUE(run.probe.succeeded()) << "ffprobe: " << run.probe.describe();
  EXPECT_THAT(lines(run.probe.out), IsSupersetOf({"h264", "aac"}));
  EXPECT_EQ(run.failures, 0) << run.failure;
  EXPECT_GT(run.paced.messages, 0);
  // Once drained, the wire carried every body and the chunk headers around them.
  EXPECT_EQ(run.pendingBytes, 0);
  EXPECT_GT(run.sentBytes, run.paced.bodyBytes);
}

TEST(RtmpIngest, PublishedOverTlsToATrustedCertificatePlaysBack) {
  const ProbedPublish run = publishAndProbe(gShared->ingest->rtmpsURL(), "cam-tls");
  ASSERT_EQ(run.outcome, Publication::Outcome::ready) << run.failure << "\nnginx log:\n"
                                                      << gShared->ingest->errorLog();
  EXPECT_TRUE(run.probe.succeeded()) << "ffprobe: " << run.probe.describe();
  EXPECT_THAT(lines(run.probe.out), IsSupersetOf({"h264", "aac"}));
  EXPECT_EQ(run.failures, 0) << run.failure;
  EXPECT_GT(run.paced.messages, 0);
}

// Fails once and, unless the ingest announced the publish before dropping it, is never
// ready; after `close` nothing more may come.
void expectFailsOnce(Publication& publication, bool announcedFirst = false) {
  ASSERT_TRUE(publication.waitForFailure(kDecideSeconds)) << "no failure reported";
  publication.close();
  EXPECT_EQ(publication.failureCount(), 1) << publication.failure();
  if (announcedFirst) {
    EXPECT_LE(publication.readyCount(), 1);
  } else {
    EXPECT_EQ(publication.readyCount(), 0);
  }
  EXPECT_FALSE(publication.socket().ready());
}

TEST(RtmpIngest, CertificateFromAnUntrustedAuthorityIsRefused) {
  Publication publication(gShared->ingest->untrustedRtmpsURL(), "cam-rogue");
  expectFailsOnce(publication);
  EXPECT_THAT(lower(publication.failure()), AnyOf(HasSubstr("certificate"), HasSubstr("verif")));
}

// nginx says the publish started, then its access rule closes the connection.
TEST(RtmpIngest, PublishDroppedByTheIngestFailsOnce) {
  Publication publication(gShared->ingest->lockedURL(), "cam-locked");
  expectFailsOnce(publication, /*announcedFirst=*/true);
}

}  // namespace
}  // namespace qvn::test
