#include "platform/files.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

namespace qvn {
namespace {

namespace fs = std::filesystem;

class FilesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qvn-files-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const auto& [name, value] : savedEnv_) {
      if (value)
        ::setenv(name.c_str(), value->c_str(), 1);
      else
        ::unsetenv(name.c_str());
    }
    fs::remove_all(dir_);
  }

  // Changes the environment for this test only.
  void setEnv(const std::string& name, const char* value) {
    if (!savedEnv_.contains(name)) {
      const char* old = std::getenv(name.c_str());
      savedEnv_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value)
      ::setenv(name.c_str(), value, 1);
    else
      ::unsetenv(name.c_str());
  }

  std::vector<std::string> namesIn(const fs::path& folder) const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(folder))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  fs::path dir_;
  std::map<std::string, std::optional<std::string>> savedEnv_;
};

TEST_F(FilesTest, AtomicWriteCreatesFoldersReplacesContentAndLeavesNothingBehind) {
  const fs::path file = dir_ / "a" / "b" / "scenes.json";
  EXPECT_EQ(writeFileAtomically(file, "first, and longer"), std::nullopt);
  EXPECT_EQ(writeFileAtomically(file, std::string("new\0x", 5)), std::nullopt);
  EXPECT_EQ(readFile(file), std::string("new\0x", 5));
  EXPECT_EQ(namesIn(file.parent_path()), std::vector<std::string>{"scenes.json"});
  EXPECT_EQ(writeFileAtomically(file, ""), std::nullopt);
  EXPECT_EQ(readFile(file), "");  // empty, which is not the same as missing
  EXPECT_EQ(readFile(dir_ / "missing"), std::nullopt);

  // A folder in the way: an error text, the folder untouched, no temp file.
  fs::create_directories(dir_ / "c" / "taken");
  const auto error = writeFileAtomically(dir_ / "c" / "taken", "x");
  ASSERT_TRUE(error);
  EXPECT_NE(error->find("taken"), std::string::npos) << *error;
  EXPECT_EQ(namesIn(dir_ / "c"), std::vector<std::string>{"taken"});

  // A file in the way of the parent folder.
  EXPECT_TRUE(writeFileAtomically(file / "child.json", "x"));
}

TEST_F(FilesTest, MoveAsideStampsTheNameAndCountsClashes) {
  const std::regex stamped("settings\\.json\\.bad-([0-9]{8}-[0-9]{6})(-[0-9]+)?");
  const fs::path file = dir_ / "settings.json";
  EXPECT_EQ(moveAside(file), std::nullopt);

  // Three rescues within one second: the first has the plain stamp, then -2, -3. Retried in
  // the rare case the clock ticks over between them.
  bool sameSecond = false;
  for (int attempt = 0; attempt < 5 && !sameSecond; ++attempt) {
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    std::vector<std::string> names;
    for (int i = 1; i <= 3; ++i) {
      std::ofstream(file) << "copy " << i;
      const auto aside = moveAside(file);
      ASSERT_TRUE(aside);
      EXPECT_EQ(aside->parent_path(), dir_);
      EXPECT_EQ(readFile(*aside), "copy " + std::to_string(i));
      names.push_back(aside->filename());
    }
    EXPECT_FALSE(fs::exists(file));
    std::smatch first;
    ASSERT_TRUE(std::regex_match(names[0], first, stamped)) << names[0];
    const std::string base = "settings.json.bad-" + first[1].str();
    sameSecond = names[2].starts_with(base);
    if (sameSecond) {
      EXPECT_EQ(names, (std::vector<std::string>{base, base + "-2", base + "-3"}));
    }
  }
  EXPECT_TRUE(sameSecond);
}

TEST_F(FilesTest, PathsFollowTheXdgEnvironment) {
  const fs::path home = dir_ / "home";
  const fs::path config = dir_ / "cfg";
  fs::create_directories(config);
  std::ofstream(config / "user-dirs.dirs") << "# written by xdg-user-dirs-update\n"
                                              "XDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
                                              "XDG_VIDEOS_DIR=\"$HOME/My \\\"Films\\\"\"\n";
  setEnv("HOME", home.c_str());
  setEnv("XDG_CONFIG_HOME", config.c_str());
  setEnv("XDG_DATA_HOME", "/srv/data");
  setEnv("XDG_STATE_HOME", "relative/state");  // invalid, so the default applies

  AppPaths paths = AppPaths::fromEnvironment();
  EXPECT_EQ(paths.configDir, config / "Quorvane Studio");
  EXPECT_EQ(paths.settingsFile(), config / "Quorvane Studio" / "settings.json");
  EXPECT_EQ(paths.dataDir, fs::path("/srv/data/Quorvane Camera"));
  EXPECT_EQ(paths.stateDir, home / ".local/state/Quorvane Camera");
  EXPECT_EQ(paths.logFile(), home / ".local/state/Quorvane Camera/QuorvaneCamera.log");
  EXPECT_EQ(paths.moviesDir, home / "My \"Films\"");

  std::ofstream(config / "user-dirs.dirs") << "XDG_VIDEOS_DIR=\"/media/clips/\"\n";
  EXPECT_EQ(AppPaths::fromEnvironment().moviesDir, fs::path("/media/clips"));

  // Nothing set but HOME: the XDG defaults, and no user-dirs file to read.
  setEnv("XDG_CONFIG_HOME", nullptr);
  setEnv("XDG_DATA_HOME", "");
  setEnv("XDG_STATE_HOME", nullptr);
  paths = AppPaths::fromEnvironment();
  EXPECT_EQ(paths.configDir, home / ".config/Quorvane Studio");
  EXPECT_EQ(paths.dataDir, home / ".local/share/Quorvane Camera");
  EXPECT_EQ(paths.stateDir, home / ".local/state/Quorvane Camera");
  EXPECT_EQ(paths.moviesDir, home / "Videos");
}

TEST_F(FilesTest, ADataRootHoldsEverythingAndBecomesTheProcessPaths) {
  const AppPaths before = appPaths();
  const AppPaths rooted = AppPaths::underRoot(dir_);
  EXPECT_EQ(rooted.configDir, dir_ / "config");
  EXPECT_EQ(rooted.dataDir, dir_ / "data");
  EXPECT_EQ(rooted.stateDir, dir_ / "state");
  EXPECT_EQ(rooted.moviesDir, dir_ / "Videos");

  setAppPaths(rooted);
  EXPECT_EQ(appPaths().logFile(), dir_ / "state" / "QuorvaneCamera.log");
  setAppPaths(before);
  EXPECT_EQ(appPaths().configDir, before.configDir);
}

}  // namespace
}  // namespace qvn
