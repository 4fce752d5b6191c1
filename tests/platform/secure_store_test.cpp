#include "platform/secure_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "platform/files.h"

namespace qvn {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

class SecureStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-secure-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
    file_ = dir_ / "data" / "tokens.json";
  }
  void TearDown() override { fs::remove_all(dir_); }

  SecureStoreLog logger() {
    return [this](const std::string& line) { lines_.push_back(line); };
  }
  json onDisk() const { return json::parse(readFile(file_).value_or("null")); }
  unsigned mode() const {
    struct stat info {};
    EXPECT_EQ(::stat(file_.c_str(), &info), 0);
    return info.st_mode & 07777;
  }

  fs::path dir_;
  fs::path file_;
  std::vector<std::string> lines_;
};

TEST_F(SecureStoreTest, ValuesRoundTripThroughAPrivateFileAndOutliveTheStore) {
  {
    auto store = makeFileSecureStore(file_, logger());
    EXPECT_EQ(store->get("refresh"), std::nullopt);
    EXPECT_FALSE(fs::exists(file_)) << "reading creates nothing";
    store->set("r-1", "refresh");
    store->set("a-1", "access");
    store->set("a-2", "access");
    EXPECT_EQ(store->get("refresh"), "r-1");
    EXPECT_EQ(store->get("access"), "a-2");
    EXPECT_EQ(mode(), 0600u);
    EXPECT_EQ(onDisk(), (json{{"refresh", "r-1"}, {"access", "a-2"}}));

    store->set("", "access");  // empty removes
    EXPECT_EQ(store->get("access"), std::nullopt);
    store->remove("refresh");
    store->remove("never-there");
    EXPECT_EQ(onDisk(), json::object());
    store->set("r-2", "refresh");
  }
  auto again = makeFileSecureStore(file_, logger());
  EXPECT_EQ(again->get("refresh"), "r-2");
  EXPECT_EQ(again->get("access"), std::nullopt);
  EXPECT_TRUE(lines_.empty()) << lines_.front();
}

TEST_F(SecureStoreTest, ReadsAreCachedAndALooseFileIsMadePrivate) {
  fs::create_directories(file_.parent_path());
  std::ofstream(file_) << R"({"access": "old", "odd": 5, "blank": ""})";
  fs::permissions(file_, fs::perms::owner_all | fs::perms::group_read | fs::perms::others_read);

  auto store = makeFileSecureStore(file_, logger());
  EXPECT_EQ(mode(), 0600u) << "closed on opening, not at the next write";
  EXPECT_EQ(store->get("access"), "old");
  EXPECT_EQ(store->get("odd"), std::nullopt);
  EXPECT_EQ(store->get("blank"), std::nullopt);

  // Later changes on disk are not read back: the process keeps what it has.
  std::ofstream(file_) << R"({"access": "changed", "new": "x"})";
  EXPECT_EQ(store->get("access"), "old");
  EXPECT_EQ(store->get("new"), std::nullopt);
}

TEST_F(SecureStoreTest, AFileThatDoesNotDecodeIsKeptAsideAndTheStoreStartsEmpty) {
  fs::create_directories(file_.parent_path());
  const std::string damaged = "{\"access\": \"tok";
  std::ofstream(file_) << damaged;

  auto store = makeFileSecureStore(file_, logger());
  EXPECT_EQ(store->get("access"), std::nullopt);
  std::vector<fs::path> aside;
  for (const auto& entry : fs::directory_iterator(file_.parent_path()))
    if (entry.path().filename().string().starts_with("tokens.json.bad-"))
      aside.push_back(entry.path());
  ASSERT_EQ(aside.size(), 1u);
  EXPECT_EQ(readFile(aside[0]), damaged);
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_NE(lines_[0].find(aside[0].filename().string()), std::string::npos) << lines_[0];

  store->set("fresh", "access");
  EXPECT_EQ(onDisk(), (json{{"access", "fresh"}}));
  EXPECT_EQ(readFile(aside[0]), damaged);
}

TEST_F(SecureStoreTest, WithoutASessionBusTheFileIsUsedAndThatIsLoggedOnce) {
  // Nothing listens there, so the Secret Service can't answer.
  ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + (dir_ / "no-bus").string()).c_str(), 1);
  auto store = makeSecureStore(file_, logger());
  ASSERT_EQ(lines_.size(), 1u);
  EXPECT_NE(lines_[0].find("no Secret Service"), std::string::npos) << lines_[0];
  EXPECT_NE(lines_[0].find(file_.string()), std::string::npos) << lines_[0];

  store->set("t", "access");
  EXPECT_EQ(store->get("access"), "t");
  EXPECT_EQ(onDisk(), (json{{"access", "t"}}));
  EXPECT_EQ(mode(), 0600u);
  EXPECT_EQ(lines_.size(), 1u);
}

}  // namespace
}  // namespace qvn
