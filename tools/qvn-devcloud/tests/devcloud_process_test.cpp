// qvn-devcloud as scripts start it: a port picked by the system and announced on stdout, the
// code of a sign-in printed as a line a person (or a script) reads, and a clean end on
// SIGTERM with the database left behind.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <regex>
#include <thread>

#include "http_test_client.h"
#include "platform/crypto.h"
#include "platform/files.h"
#include "testing/child_process.h"

namespace qvn::devcloud::test {
namespace {

using namespace std::chrono_literals;

// The first match of `pattern` in the file, waiting up to ten seconds for it to appear.
std::smatch waitForLine(const std::filesystem::path& file, const std::regex& pattern,
                        std::string& text) {
  std::smatch match;
  for (auto deadline = std::chrono::steady_clock::now() + 10s;
       std::chrono::steady_clock::now() < deadline; std::this_thread::sleep_for(20ms)) {
    text = readFile(file).value_or("");
    if (std::regex_search(text, match, pattern)) break;
  }
  return match;
}

TEST(DevCloudProcess, AnnouncesItsPortAndTheCodesItWouldMail) {
  const auto work = qvn::test::makeTempDir("devcloud");
  const auto out = work / "out.log", err = work / "err.log";
  qvn::test::ChildProcess cloud(
      {QVN_DEVCLOUD, "--port", "0", "--db", (work / "cloud.sqlite").string()}, out, err);

  std::string stdoutText;
  const auto listening = waitForLine(
      out, std::regex(R"(^qvn-devcloud listening on http://127\.0\.0\.1:([0-9]+)\n)"), stdoutText);
  ASSERT_FALSE(listening.empty()) << stdoutText << readFile(err).value_or("");
  const TestClient client(std::uint16_t(std::stoi(listening[1].str())));

  const std::string verifier = base64url(randomBytes(32));
  const auto started =
      client.post("/v1/auth/magic/start", {{"email", "jo@example.com"},
                                           {"device_id", "dev-1"},
                                           {"device_name", "Desk"},
                                           {"platform", "mac"},
                                           {"code_challenge", base64url(sha256(verifier))},
                                           {"intent", "signup"},
                                           {"full_name", "Jo"}});
  ASSERT_EQ(started.status, 200u) << started.body;

  const auto code =
      waitForLine(out, std::regex("\ncode for jo@example\\.com: ([0-9]{6})\n"), stdoutText);
  ASSERT_FALSE(code.empty()) << stdoutText;
  EXPECT_NE(stdoutText.find("\nlink for jo@example.com: http://127.0.0.1:"), std::string::npos);
  const auto signedIn =
      client.post("/v1/auth/magic/code", {{"request_id", started.json()["request_id"]},
                                          {"code", code[1].str()},
                                          {"code_verifier", verifier}});
  EXPECT_EQ(signedIn.status, 200u) << signedIn.body;

  const int status = cloud.stop(SIGTERM, 5);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const std::string log = readFile(err).value_or("");
  EXPECT_NE(log.find("POST /v1/auth/magic/code 200"), std::string::npos) << log;
  EXPECT_NE(log.find("code for jo@example.com: " + code[1].str()), std::string::npos) << log;
  EXPECT_TRUE(std::filesystem::exists(work / "cloud.sqlite"));
  std::filesystem::remove_all(work);
}

TEST(DevCloudProcess, SaysWhatIsWrongWithItsCommandLine) {
  const auto work = qvn::test::makeTempDir("devcloud");
  const auto result = qvn::test::runProgram({QVN_DEVCLOUD, "--code-ttl", "0"}, 10, work);
  ASSERT_TRUE(result.finished);
  EXPECT_TRUE(WIFEXITED(result.status) && WEXITSTATUS(result.status) == 2);
  EXPECT_NE(result.err.find("--code-ttl"), std::string::npos) << result.err;
  std::filesystem::remove_all(work);
}

}  // namespace
}  // namespace qvn::devcloud::test
