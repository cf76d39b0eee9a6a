#include "platform/PropertyList/JSON.h"

#include <gmock/gmock.h>

#include <string>

namespace tallow {
namespace {

TEST(JSONTest, ValuesSurviveAsFarAsJSONHasThem) {
  const Value value = Dictionary{
      {"array", Array{1, -1, 2.5, true, "\xC3\xA9\n"}},
      {"large", 18446744073709551615ull},
      {"minimum", std::numeric_limits<std::int64_t>::min()},
  };
  const std::string text = JSON::encode(value);
  EXPECT_EQ(text,
            "{\"array\":[1,-1,2.5,true,\"\xC3\xA9\\n\"],\"large\":18446744073709551615,"
            "\"minimum\":-9223372036854775808}");
  EXPECT_EQ(*JSON::decode(text), value);
  EXPECT_EQ(*JSON::decode(JSON::encode(value, true)), value);
  EXPECT_EQ(JSON::encode(Array{Data("\x01\xff"), Date{1772368200.5}, "a\xFF"}),
            "[\"Af8=\",\"2026-03-01T12:30:00Z\",\"a\xEF\xBF\xBD\"]");
  EXPECT_EQ(*JSON::decode("[null, {\"a\": null, \"b\": 1}]"), Value(Array{Dictionary{{"b", 1}}}));
}

TEST(JSONTest, HostileTextsAreRefusedAndCostLittle) {
  for (const char* text : {"", "{", "[1,]", "{\"a\":1} x", "'a'", "nul", "\"\xFF\"", "[1e999]"})
    EXPECT_FALSE(JSON::decode(text)) << text;
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(JSON::decode(nested(512)));
  EXPECT_FALSE(JSON::decode(nested(513)));
  EXPECT_FALSE(JSON::decode(nested(100'000)));
  EXPECT_FALSE(JSON::decode(std::string(100'000, '[')));
  EXPECT_FALSE(JSON::decode("\"" + std::string(17u << 20, 'a') + "\""));
  std::string manyKeys = "{";
  for (int index = 0; index < 5'000; ++index) manyKeys += "\"" + std::to_string(index) + "\":1,";
  const auto decoded = JSON::decode(manyKeys + "\"last\":1}");
  ASSERT_TRUE(decoded);
  EXPECT_EQ(decoded->dictionary()->count(), 5'001u);
  EXPECT_GT(JSON::encode(*decoded).size(), 30'000u);
}

}  // namespace
}  // namespace tallow
