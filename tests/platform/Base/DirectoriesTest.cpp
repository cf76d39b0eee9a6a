#include "platform/Base/Directories.h"

#include <gmock/gmock.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <optional>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

namespace fs = std::filesystem;

// Sets the variables that Directories reads, and puts them back.
class DirectoriesTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME",
                             "XDG_STATE_HOME", "XDG_CONFIG_DIRS", "XDG_DATA_DIRS"}) {
      const char* value = std::getenv(name);
      _previous[name] = value != nullptr ? std::optional<std::string>(value) : std::nullopt;
      unsetenv(name);
    }
  }
  void TearDown() override {
    for (const auto& [name, value] : _previous)
      value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
  }

 private:
  std::map<std::string, std::optional<std::string>> _previous;
};

TEST_F(DirectoriesTest, LieWhereTheEnvironmentSaysElseBelowHome) {
  setenv("HOME", "/h", 1);
  Directories directories = Directories::fromEnvironment();
  EXPECT_EQ(directories.configHome, "/h/.config/tallowd");
  EXPECT_EQ(directories.dataHome, "/h/.local/share/tallowd");
  EXPECT_EQ(directories.cacheHome, "/h/.cache/tallowd");
  EXPECT_EQ(directories.stateHome, "/h/.local/state/tallowd");
  EXPECT_THAT(directories.configDirs,
              testing::ElementsAre("/h/.config/tallowd", "/etc/xdg/tallowd"));
  EXPECT_THAT(directories.dataDirs,
              testing::ElementsAre("/h/.local/share/tallowd", "/usr/local/share/tallowd",
                                   "/usr/share/tallowd"));
  // Relative and empty values do not count.
  setenv("XDG_CONFIG_HOME", "relative", 1);
  setenv("XDG_STATE_HOME", "", 1);
  setenv("XDG_CACHE_HOME", "/cache", 1);
  setenv("XDG_CONFIG_DIRS", "relative::/one:./x:/two:", 1);
  setenv("XDG_DATA_DIRS", "relative", 1);
  directories = Directories::fromEnvironment();
  EXPECT_EQ(directories.configHome, "/h/.config/tallowd");
  EXPECT_EQ(directories.stateHome, "/h/.local/state/tallowd");
  EXPECT_EQ(directories.cacheHome, "/cache/tallowd");
  EXPECT_THAT(directories.configDirs,
              testing::ElementsAre("/h/.config/tallowd", "/one/tallowd", "/two/tallowd"));
  EXPECT_THAT(directories.dataDirs, testing::ElementsAre("/h/.local/share/tallowd"));
  // Without a usable home the user database tells.
  unsetenv("XDG_CACHE_HOME");
  const fs::path expected = fs::path(getpwuid(getuid())->pw_dir) / ".cache/tallowd";
  for (const char* home : {"not/absolute", ""}) {
    setenv("HOME", home, 1);
    EXPECT_EQ(Directories::fromEnvironment().cacheHome, expected) << home;
  }
}

TEST(PathComponentTest, NothingThatLeavesTheFolderIsSafe) {
  using Names = std::initializer_list<std::string>;
  for (const std::string& name :
       Names{"com.example.store", "a b", "...", "\u00E9", std::string(200, 'a')})
    EXPECT_TRUE(isSafePathComponent(name)) << name;
  for (const std::string& name : Names{"", ".", "..", "a/b", "/", std::string("a\0b", 3), "a\nb",
                                       "\x7f", std::string(201, 'a')})
    EXPECT_FALSE(isSafePathComponent(name)) << name;
}

TEST(EnsureDirectoryTest, MakesMissingFoldersForTheOwnerOnly) {
  const TemporaryFolder folder;
  const mode_t previous = umask(0);
  EXPECT_TRUE(ensureDirectoryExists(folder / "a/b//c/"));
  umask(previous);
  EXPECT_EQ(fs::status(folder / "a").permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(folder / "a/b/c").permissions(), fs::perms::owner_all);
  EXPECT_TRUE(ensureDirectoryExists(folder / "a/b/c"));
  fs::create_directory_symlink(folder / "a", folder / "link");
  EXPECT_TRUE(ensureDirectoryExists(folder / "link/d"));
  EXPECT_TRUE(fs::is_directory(folder / "a/d"));
  fs::create_symlink(folder / "nowhere", folder / "dangling");
  EXPECT_FALSE(ensureDirectoryExists(folder / "dangling/d"));
  EXPECT_FALSE(ensureDirectoryExists("/proc/self/nothing/here"));
  EXPECT_FALSE(ensureDirectoryExists(""));
}

}  // namespace
}  // namespace tallow
