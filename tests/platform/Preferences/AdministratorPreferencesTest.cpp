#include "platform/Preferences/AdministratorPreferences.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

class AdministratorPreferencesTest : public ::testing::Test {
 protected:
  AdministratorPreferencesTest() {
    std::filesystem::create_directories(_folder / "near");
    std::filesystem::create_directories(_folder / "far");
  }
  // Written beside and moved, as editors do, so that each version is another file.
  void write(const std::string& name, const std::string& text) {
    std::ofstream(_folder / "new") << text;
    std::filesystem::rename(_folder / "new", _folder / name);
  }

  CapturedLog _log;
  TemporaryFolder _folder;
  AdministratorPreferences _preferences{{_folder / "near", _folder / "far"}};
};

TEST_F(AdministratorPreferencesTest, TheNearestFolderThatHasTheKeyWins) {
  write("far/domain.toml", "a = 1\nb = 1");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  write("near/domain.toml", "a = 2");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(2));
  EXPECT_EQ(_preferences.value("b", "domain"), Value(1));
  EXPECT_TRUE(_preferences.value("c", "domain").isNil());
  EXPECT_TRUE(_preferences.value("a", "other").isNil());
  std::filesystem::remove(_folder / "near/domain.toml");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
}

TEST_F(AdministratorPreferencesTest, ADamagedFileKeepsWhatItSaidBefore) {
  write("near/domain.toml", "a = 1");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  write("near/domain.toml", "a = ");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  EXPECT_EQ(_log.lines(1).size(), 1u);  // once, not at every read
  EXPECT_TRUE(_log.mentions(1, "domain.toml: line 1"));
  write("near/domain.toml", "a = 3");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(3));
}

TEST_F(AdministratorPreferencesTest, WhatCannotBeReadInPassingIsReadAgain) {
  ManualClock clock{Date{1'800'000'000}};
  const ScopedShared<Clock> sharedClock(clock);
  write("near/domain.toml", "a = 1");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  std::filesystem::create_symlink("/proc/self/mem", _folder / "eio");
  std::filesystem::rename(_folder / "eio", _folder / "near/domain.toml");
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  EXPECT_EQ(_log.lines(1).size(), 1u);
  clock.advance(1);
  EXPECT_EQ(_preferences.value("a", "domain"), Value(1));
  EXPECT_EQ(_log.lines(1).size(), 2u) << "the disk may answer by now";
}

TEST_F(AdministratorPreferencesTest, ADomainIsNoPath) {
  write("near/domain.toml", "a = 1");
  write("domain.toml", "a = 1");
  for (const char* const domain : {"../domain", "..", "", "x/../domain", "/domain"}) {
    EXPECT_TRUE(_preferences.value("a", domain).isNil()) << domain;
  }
}

}  // namespace
}  // namespace tallow
