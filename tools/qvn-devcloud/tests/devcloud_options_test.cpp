// The devcloud's command line: defaults that scripts rely on, and one clear line for what
// it refuses.
#include "devcloud_options.h"

#include <gtest/gtest.h>

#include <vector>

namespace qvn::devcloud {
namespace {

std::variant<DevCloudOptions, DevCloudHelp, std::string> parse(std::vector<const char*> args) {
  args.insert(args.begin(), "qvn-devcloud");
  return parseDevCloudOptions(int(args.size()), args.data());
}

TEST(DevCloudOptions, DefaultsAndEveryOptionInEitherForm) {
  const auto d = std::get<DevCloudOptions>(parse({}));
  EXPECT_EQ(d.port, 0);
  EXPECT_TRUE(d.database.empty());
  EXPECT_EQ(d.accessTtlSeconds, 900);
  EXPECT_EQ(d.codeTtlSeconds, 600);
  EXPECT_TRUE(d.site.empty());
  EXPECT_EQ(d.ingestPort, 0);  // picked at start
  EXPECT_TRUE(d.ingest);

  const auto o =
      std::get<DevCloudOptions>(parse({"--port", "8080", "--db=/tmp/c.sqlite", "--access-ttl", "1",
                                       "--code-ttl=2", "--site", "http://cloud.test:9000/"}));
  EXPECT_EQ(o.port, 8080);
  EXPECT_EQ(o.database, "/tmp/c.sqlite");
  EXPECT_EQ(o.accessTtlSeconds, 1);
  EXPECT_EQ(o.codeTtlSeconds, 2);
  EXPECT_EQ(o.site, "http://cloud.test:9000");  // links are built as site + path
  EXPECT_TRUE(o.ingest);

  const auto i =
      std::get<DevCloudOptions>(parse({"--ingest-port=1936", "--no-ingest", "--port", "1"}));
  EXPECT_EQ(i.ingestPort, 1936);
  EXPECT_FALSE(i.ingest);
  EXPECT_EQ(i.port, 1);
  EXPECT_TRUE(std::holds_alternative<DevCloudHelp>(parse({"--port", "1", "--help"})));
}

TEST(DevCloudOptions, RefusesWithOneLine) {
  std::vector<std::vector<const char*>> bad = {
      {"--port", "65536"},
      {"--port", "-1"},
      {"--port", "80x"},
      {"--access-ttl", "0"},
      {"--code-ttl", "-5"},
      {"--code-ttl", "1.5"},
      {"--access-ttl", "86401"},
      {"--site", "ftp://x"},
      {"--site", "http://x/?a=1"},
      {"--db", ""},
      {"--port"},
      {"--verbose", "1"},
  };
  bad.insert(bad.end(), {{"--ingest-port", "70000"}, {"--ingest-port", ""}, {"--no-ingest=yes"}});

  for (const auto& args : bad) {
    const auto result = parse(args);
    ASSERT_TRUE(std::holds_alternative<std::string>(result)) << args[0];
    EXPECT_EQ(std::get<std::string>(result).find('\n'), std::string::npos);
  }
}

}  // namespace
}  // namespace qvn::devcloud
