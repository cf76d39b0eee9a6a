#include "platform/Preferences/TOML.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

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

TEST(TOMLTest, SaysWhereAFileIsWrong) {
  const auto decoded = TOML::decode("fine = 1\nwrong = \n");
  ASSERT_FALSE(decoded);
  EXPECT_EQ(decoded.error().domain, "TOML");
  EXPECT_EQ(decoded.error().localizedDescription().substr(0, 7), "line 2,");
}

TEST(TOMLTest, RefusesHostileAndUnusableFiles) {
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

}  // namespace
}  // namespace tallow
