#include "platform/Preferences/AdministratorPreferences.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "platform/Base/Clock.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/TOML.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/TemporaryFolder.h"

namespace tallow {
namespace {

TEST(TOMLTest, ReadsEveryKindOfValue) {
  const auto decoded = TOML::decode(R"(
    text = "a\u00fc\n"
    whole = -9223372036854775808
    hex = 0xff
    real = 1.5
    flag = true
    moment = 2026-03-01T13:30:00.25+01:00
    local = 2026-03-01T12:30:00
    day = 1969-12-31
    list = [1, "two", [3.0]]
    "quoted key" = 1
    [table.inner]
    key = 1
    [[tables]]
    n = 1
    [[tables]]
    n = 2
  )");
  ASSERT_TRUE(decoded);
  const Dictionary expected{
      {"text", "aü\n"},
      {"whole", std::int64_t{-9223372036854775807} - 1},
      {"hex", 255},
      {"real", 1.5},
      {"flag", true},
      {"moment", Date{1772368200.25}},
      {"local", Date{1772368200}},
      {"day", Date{-86400}},
      {"list", Array{1, "two", Array{3.0}}},
      {"quoted key", 1},
      {"table", Dictionary{{"inner", Dictionary{{"key", 1}}}}},
      {"tables", Array{Dictionary{{"n", 1}}, Dictionary{{"n", 2}}}},
  };
  EXPECT_EQ(*decoded, expected) << description(Value(*decoded));
}

TEST(TOMLTest, RefusesHostileAndUnusableFilesAndSaysWhere) {
  const auto decoded = TOML::decode("fine = 1\nwrong = \n");
  ASSERT_FALSE(decoded);
  EXPECT_EQ(decoded.error().domain, "TOML");
  EXPECT_EQ(decoded.error().localizedDescription().substr(0, 7), "line 2,");
  EXPECT_FALSE(TOML::decode("x = " + std::string(1u << 19, '[')));
  EXPECT_FALSE(TOML::decode("x = \"\xff\xfe\""));
  EXPECT_FALSE(TOML::decode("x = [{y = 12:30:00}]"));
  EXPECT_FALSE(TOML::decode("x = 1\nx = 2"));
  TemporaryFolder folder;
  std::ofstream(folder / "large.toml") << "x = \"" << std::string(TOML::kMaxFileBytes, 'x') << '"';
  EXPECT_FALSE(TOML::decodeFile(folder / "large.toml"));
  EXPECT_EQ(TOML::decodeFile(folder / "absent.toml").error().domain, "File");
  // A link, as configuration managers make them, is followed.
  std::ofstream(folder / "file.toml") << "x = 1";
  std::filesystem::create_symlink("file.toml", folder / "link.toml");
  EXPECT_TRUE(TOML::decodeFile(folder / "link.toml"));
}

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
  for (const char* const domain : {"../domain", "..", "", "x/../domain", "/domain"})
    EXPECT_TRUE(_preferences.value("a", domain).isNil()) << domain;
}

}  // namespace
}  // namespace tallow
