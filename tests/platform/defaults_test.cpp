#include "platform/defaults.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>
#include <vector>

#include "platform/files.h"

namespace qvn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class DefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-defaults-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    file_ = dir_ / "config" / "settings.json";
  }
  void TearDown() override { fs::remove_all(dir_); }

  void writeRaw(const std::string& content) {
    fs::create_directories(file_.parent_path());
    std::ofstream(file_) << content;
  }
  json onDisk() const { return json::parse(readFile(file_).value_or("null")); }

  fs::path dir_;
  fs::path file_;
};

TEST_F(DefaultsTest, EveryTypeComesBackAsItselfFromAFreshStore) {
  const SettingsBytes binary{0x00, 0x00, 0xff, 0x10, 0x00};
  const SettingsDict nested{
      {"list", SettingsList{1, "two", 3.0, SettingsList{true}, SettingsDict{{"b", binary}}}},
      {"empty", SettingsDict{}},
      {"real", 0.1}};
  {
    Defaults store(file_);
    EXPECT_FALSE(store.recoveryNote());  // no file yet is a quiet first run
    store.set("qvn.bool", true);
    store.set("qvn.int", std::int64_t{42});
    store.set("qvn.int.max", std::numeric_limits<std::int64_t>::max());
    store.set("qvn.real.whole", 1.0);
    store.set("qvn.real.tiny", 5e-324);
    store.set("qvn.text", "aGk=");  // valid base64, still text
    store.set("qvn.text.broken", "a\xff");
    store.set("qvn.bytes", binary);
    store.set("qvn.bytes.empty", SettingsBytes{});
    store.set("qvn.dict", nested);
    store.set("qvn.gone", "soon");
    store.remove("qvn.gone");
    EXPECT_TRUE(store.synchronize());
  }

  Defaults fresh(file_);
  EXPECT_FALSE(fresh.recoveryNote());
  EXPECT_EQ(fresh.boolean("qvn.bool"), true);
  EXPECT_EQ(fresh.integer("qvn.int"), 42);
  EXPECT_EQ(fresh.integer("qvn.int.max"), std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(fresh.real("qvn.real.whole"), 1.0);
  EXPECT_EQ(fresh.real("qvn.real.tiny"), 5e-324);
  EXPECT_EQ(fresh.text("qvn.text"), "aGk=");
  EXPECT_EQ(fresh.text("qvn.text.broken"), "a\uFFFD");
  EXPECT_EQ(fresh.bytes("qvn.bytes"), binary);
  EXPECT_EQ(fresh.bytes("qvn.bytes.empty"), SettingsBytes{});
  EXPECT_EQ(fresh.dict("qvn.dict"), nested);
  EXPECT_FALSE(fresh.contains("qvn.gone"));

  // Types stay apart: only a real read accepts a whole number.
  EXPECT_FALSE(fresh.integer("qvn.real.whole"));
  EXPECT_EQ(fresh.real("qvn.int"), 42.0);
  EXPECT_FALSE(fresh.text("qvn.int"));
  EXPECT_FALSE(fresh.bytes("qvn.text"));
  EXPECT_FALSE(fresh.text("qvn.bytes"));
  EXPECT_FALSE(fresh.list("qvn.dict"));
}

TEST_F(DefaultsTest, UnreadableFileIsKeptAsideAndTheStoreStartsEmpty) {
  for (const std::string bad : {"{\"qvn.a\": 1,", "[1, 2]", ""}) {
    SCOPED_TRACE(bad);
    fs::remove_all(file_.parent_path());
    writeRaw(bad);

    Defaults store(file_);
    EXPECT_FALSE(store.contains("qvn.a"));
    ASSERT_TRUE(store.recoveryNote());
    std::smatch match;
    ASSERT_TRUE(std::regex_match(
        *store.recoveryNote(), match,
        std::regex("settings: settings\\.json could not be read — kept it as "
                   "(settings\\.json\\.bad-[0-9]{8}-[0-9]{6}) and started from the defaults")));
    EXPECT_EQ(readFile(file_.parent_path() / match[1].str()), bad);

    // The rescued copy survives the store's own writes.
    store.set("qvn.a", 2);
    EXPECT_TRUE(store.synchronize());
    EXPECT_EQ(readFile(file_.parent_path() / match[1].str()), bad);
  }
}

TEST_F(DefaultsTest, ABadEntryCostsOnlyItself) {
  writeRaw(R"({"qvn.good": 3, "qvn.number": {"$bytes": 5}, "qvn.base64": {"$bytes": "a!=="},
               "qvn.null": null, "qvn.deep": [1, [null]], "qvn.huge": 18446744073709551615})");
  Defaults store(file_);
  EXPECT_FALSE(store.recoveryNote());
  EXPECT_EQ(store.integer("qvn.good"), 3);
  for (const char* key : {"qvn.number", "qvn.base64", "qvn.null", "qvn.deep", "qvn.huge"})
    EXPECT_FALSE(store.contains(key)) << key;
}

TEST_F(DefaultsTest, WritesFromManyThreadsAllReachTheFile) {
  constexpr int kThreads = 8, kKeys = 50;
  Defaults store(file_);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&store, t] {
      for (int k = 0; k < kKeys; ++k)
        store.set("qvn.t" + std::to_string(t) + "." + std::to_string(k), t * 1000 + k);
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(store.synchronize());

  const json document = onDisk();
  ASSERT_EQ(document.size(), size_t{kThreads * kKeys});
  EXPECT_EQ(document["qvn.t7.49"], 7049);
}

TEST_F(DefaultsTest, ChangesReachTheDiskWithoutBeingAsked) {
  auto waitForDisk = [this](const json& expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (json::parse(readFile(file_).value_or("null"), nullptr, false) != expected &&
           std::chrono::steady_clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(onDisk(), expected);
  };
  Defaults store(file_);
  store.set("qvn.bytes", SettingsBytes{'h', 'i'});
  store.set("qvn.real", 2.0);
  // The file stays readable by people: bytes as base64 in an envelope, a real with its point.
  waitForDisk(json::parse(R"({"qvn.bytes": {"$bytes": "aGk="}, "qvn.real": 2.0})"));
  EXPECT_NE(readFile(file_).value_or("").find("2.0"), std::string::npos);

  // A change after a finished write starts the next one.
  store.remove("qvn.bytes");
  waitForDisk(json::parse(R"({"qvn.real": 2.0})"));
}

TEST_F(DefaultsTest, AStoreDestroyedRightAfterASetHasWrittenIt) {
  { Defaults(file_).set("qvn.last", "words"); }
  EXPECT_EQ(onDisk(), json::parse(R"({"qvn.last": "words"})"));
}

TEST_F(DefaultsTest, AFailedWriteIsReportedAndMemoryStillAnswers) {
  std::ofstream(dir_ / "blocker") << "a file where a folder should be";
  Defaults store(dir_ / "blocker" / "settings.json");
  store.set("qvn.a", 1);
  EXPECT_FALSE(store.synchronize());
  EXPECT_EQ(store.integer("qvn.a"), 1);
}

}  // namespace
}  // namespace qvn
