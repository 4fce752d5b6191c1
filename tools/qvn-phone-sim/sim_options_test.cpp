// The sim's command line: what it defaults to, and a clear line for what it refuses.
#include "sim_options.h"

#include <gtest/gtest.h>

#include <vector>

namespace qvn {
namespace {

std::variant<SimOptions, SimHelp, std::string> parse(std::vector<const char*> args) {
  args.insert(args.begin(), "qvn-phone-sim");
  return parseSimOptions(int(args.size()), args.data());
}

TEST(SimOptions, DefaultsAroundTheStudioAddress) {
  const auto o = std::get<SimOptions>(parse({"--studio", "127.0.0.1"}));
  EXPECT_EQ(o.studioHost, "127.0.0.1");
  EXPECT_EQ(o.studioPort, 8765);
  EXPECT_EQ(o.width, 1280);
  EXPECT_EQ(o.height, 720);
  EXPECT_EQ(o.fps, 30);
  EXPECT_FALSE(o.pin);
  EXPECT_FALSE(o.forSeconds);
  // A studio on loopback: ICE stays there too.
  EXPECT_EQ(o.localAddress, "127.0.0.1");
  EXPECT_FALSE(std::get<SimOptions>(parse({"--studio", "studio.local:9000"})).localAddress);
}

TEST(SimOptions, ReadsEveryOptionInEitherForm) {
  const auto o = std::get<SimOptions>(
      parse({"--studio=localhost:9000", "--pin", "1234", "--name", "Cam A", "--size=640x480",
             "--fps", "25", "--for", "2.5", "--local-addr", "127.0.0.2", "--loop", "--climb",
             "--frame-log", "/tmp/f.log", "--bitrate", "800000", "--print-offer"}));
  EXPECT_EQ(o.studioHost, "localhost");
  EXPECT_EQ(o.studioPort, 9000);
  EXPECT_EQ(o.pin, "1234");
  EXPECT_EQ(o.name, "Cam A");
  EXPECT_EQ(o.width, 640);
  EXPECT_EQ(o.height, 480);
  EXPECT_EQ(o.fps, 25);
  EXPECT_EQ(o.forSeconds, 2.5);
  EXPECT_EQ(o.localAddress, "127.0.0.2");
  EXPECT_TRUE(o.loop && o.climb && o.printOffer && !o.portrait);
  EXPECT_EQ(o.frameLog, "/tmp/f.log");
  EXPECT_EQ(o.bitrate, 800'000);
}

TEST(SimOptions, PortraitSendsTheSizeTurned) {
  const auto o = std::get<SimOptions>(parse({"--studio", "127.0.0.1", "--portrait"}));
  EXPECT_EQ(o.width, 720);
  EXPECT_EQ(o.height, 1280);
  const auto already =
      std::get<SimOptions>(parse({"--studio", "127.0.0.1", "--portrait", "--size", "720x1280"}));
  EXPECT_EQ(already.width, 720);
}

TEST(SimOptions, RefusesWithOneLine) {
  const std::vector<std::vector<const char*>> bad = {
      {},
      {"--studio", "127.0.0.1:0"},
      {"--studio", "127.0.0.1:http"},
      {"--studio", "127.0.0.1", "--size", "1280"},
      {"--studio", "127.0.0.1", "--size", "1279x720"},
      {"--studio", "127.0.0.1", "--fps", "0"},
      {"--studio", "127.0.0.1", "--for", "-1"},
      {"--studio", "127.0.0.1", "--pin", "12a4"},
      {"--studio", "127.0.0.1", "--local-addr", "::1"},
      {"--studio", "127.0.0.1", "--bitrate", "fast"},
      {"--studio", "127.0.0.1", "--wobble"},
      {"--studio", "127.0.0.1", "--name"},
      {"--studio", "127.0.0.1", "extra"},
  };
  for (const auto& args : bad) {
    const auto result = parse(args);
    ASSERT_TRUE(std::holds_alternative<std::string>(result)) << (args.empty() ? "" : args.back());
    EXPECT_EQ(std::get<std::string>(result).find('\n'), std::string::npos);
  }
  EXPECT_TRUE(std::holds_alternative<SimHelp>(parse({"--studio", "x", "--help"})));
  EXPECT_NE(simUsage().find("--frame-log"), std::string::npos);
}

}  // namespace
}  // namespace qvn
