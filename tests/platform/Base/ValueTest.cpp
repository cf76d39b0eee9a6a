#include "platform/Base/Value.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>

namespace tallow {
namespace {

constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t kMostUnsigned = std::numeric_limits<std::uint64_t>::max();

TEST(ValueTest, NumbersCompareByValueAndBooleansOnlyWithBooleans) {
  EXPECT_EQ(Value(5), Value(5u));
  EXPECT_EQ(Value(5), Value(5.0));
  EXPECT_EQ(Value(kMostUnsigned), Value(kMostUnsigned));
  EXPECT_NE(Value(-1), Value(kMostUnsigned));
  EXPECT_NE(Value(true), Value(1));
  EXPECT_NE(Value("1"), Value(1));
  // 2^53 + 1 and 2^63 - 1 have no double of their own.
  EXPECT_NE(Value(9007199254740993), Value(9007199254740992.0));
  EXPECT_NE(Value(kMost), Value(0x1p63));
  EXPECT_EQ(Value(0x1p63), Value(9223372036854775808ull));
  EXPECT_NE(Value(kMostUnsigned), Value(0x1p64));
  EXPECT_NE(Value(std::nan("")), Value(0));
}

TEST(ValueTest, NumbersConvertAsInC) {
  EXPECT_EQ(Value(-1).unsignedValue(), kMostUnsigned);
  EXPECT_EQ(Value(kMostUnsigned).signedValue(), -1);
  EXPECT_TRUE(Value(kMostUnsigned).isLargeUnsigned());
  EXPECT_EQ(Value(1e300).signedValue(), kMost);
  EXPECT_EQ(Value(-1e300).signedValue(), kLeast);
  EXPECT_EQ(Value(-1e300).unsignedValue(), 0u);
  EXPECT_EQ(Value(1e300).unsignedValue(), kMostUnsigned);
  EXPECT_EQ(Value(std::nan("")).signedValue(), 0);
  EXPECT_EQ(Value(-2.9).signedValue(), -2);
  EXPECT_EQ(Value("7").signedValue(), 0);
  EXPECT_EQ(Value(kMostUnsigned).stringValue(), "18446744073709551615");
  EXPECT_EQ(Value(true).stringValue(), "1");
  EXPECT_EQ(Value(0.5).stringValue(), "0.5");
  EXPECT_EQ(Value("7").stringValue(), "");
}

TEST(ValueTest, StringsAndNumbersAnswerToBoolValue) {
  for (const char* text : {"1", "  +0009", "-7", "Yes", "true", "00t", "\t\nY"})
    EXPECT_EQ(Value(text).boolValue(), true) << text;
  for (const char* text : {"", "0", "no", "False", "+-1", "- 1", "0x1", " x1"})
    EXPECT_EQ(Value(text).boolValue(), false) << text;
  EXPECT_EQ(Value(0.25).boolValue(), true);
  EXPECT_EQ(Value(0).boolValue(), false);
  EXPECT_EQ(Value(kMostUnsigned).boolValue(), true);
  EXPECT_EQ(Value(Array{Value(1)}).boolValue(), std::nullopt);
  EXPECT_EQ(Value().boolValue(), std::nullopt);
}

TEST(ValueTest, StringsAndNumbersAnswerToIntegerValues) {
  EXPECT_EQ(Value(" -12abc").longLongValue(), -12);
  EXPECT_EQ(Value("abc").longLongValue(), 0);
  EXPECT_EQ(Value("99999999999999999999999").longLongValue(), kMost);
  EXPECT_EQ(Value("-99999999999999999999999").longLongValue(), kLeast);
  EXPECT_EQ(Value("-9223372036854775808").longLongValue(), kLeast);
  EXPECT_EQ(Value("4294967296").intValue(), std::numeric_limits<std::int32_t>::max());
  EXPECT_EQ(Value(-5000000000).intValue(), std::numeric_limits<std::int32_t>::min());
  EXPECT_EQ(Value(kMostUnsigned).longLongValue(), kMost);
  EXPECT_EQ(Value(Data("1")).intValue(), std::nullopt);
}

TEST(ValueTest, DictionaryKeepsTheLastOfEqualKeysAndNoNil) {
  const Dictionary dictionary{{"b", 1},       {"a", 2}, {"b", 3},
                              {"c", Value()}, {"d", 4}, {"d", Value()}};
  EXPECT_EQ(dictionary.count(), 2u);
  EXPECT_EQ(dictionary.begin()->key, "a");
  EXPECT_EQ(dictionary["b"], Value(3));
  EXPECT_TRUE(dictionary["d"].isNil());
  EXPECT_FALSE(dictionary.contains("c"));
  EXPECT_EQ(dictionary, (Dictionary{{"a", 2}, {"b", 3}}));
}

TEST(ValueTest, DictionaryChangesAreCopies) {
  const Dictionary original{{"a", 1}, {"b", 2}};
  EXPECT_EQ(original.setting("aa", 3), (Dictionary{{"a", 1}, {"aa", 3}, {"b", 2}}));
  EXPECT_EQ(original.setting("b", 3), (Dictionary{{"a", 1}, {"b", 3}}));
  EXPECT_EQ(original.setting("a", Value()), (Dictionary{{"b", 2}}));
  EXPECT_TRUE(original.removing("x").isSameAs(original));
  EXPECT_EQ(original.merging({{"b", 7}, {"c", 8}}), (Dictionary{{"a", 1}, {"b", 7}, {"c", 8}}));
  EXPECT_EQ(original, (Dictionary{{"a", 1}, {"b", 2}}));
}

}  // namespace
}  // namespace tallow
