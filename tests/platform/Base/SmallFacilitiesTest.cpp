#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <limits>

#include "platform/Base/Base64.h"
#include "platform/Base/Date.h"
#include "platform/Base/Random.h"

namespace tallow {
namespace {

TEST(Base64Test, EveryLengthSurvives) {
  std::string bytes;
  for (int length = 0; length < 300; ++length) {
    EXPECT_EQ(base64Decode(base64Encode(Data(bytes))), Data(bytes));
    bytes += static_cast<char>(length * 89);
  }
  EXPECT_EQ(base64Encode(Data("\xfb\xff")), "+/8=");
}

TEST(Base64Test, OnlyTheExactFormIsDecoded) {
  for (const char* text : {"A", "AA", "AAA", "AA=", "A===", "====", "=AAA", "AA=A",
                           "AAAA=", "AA==AAAA", "AA==\n", " AAA", "AA A", "-_8=", "AAA\xC3"})
    EXPECT_FALSE(base64Decode(text)) << text;
}

TEST(DateTest, DescriptionIsAlwaysUTC) {
  EXPECT_EQ(description(Date{0}), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(description(Date{-0.5}), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(description(Date{951782400}), "2000-02-29 00:00:00 +0000");
  EXPECT_EQ(description(Date{-62135596800}), "0001-01-01 00:00:00 +0000");
  EXPECT_EQ(description(Date{253402300799.9}), "9999-12-31 23:59:59 +0000");
  EXPECT_EQ(description(Date{253402300800}), "253402300800");
  EXPECT_EQ(description(Date{std::numeric_limits<double>::infinity()}), "inf");
  EXPECT_EQ(description(Date{std::numeric_limits<double>::quiet_NaN()}), "nan");
}

class AllOnes final : public Random {
 public:
  void fill(std::span<std::uint8_t> bytes) override { std::ranges::fill(bytes, 0xff); }
};

TEST(RandomTest, FillsAnyLengthAndStaysBelowOne) {
  std::array<std::uint8_t, 1000> bytes{};
  Random::shared().fill(bytes);
  EXPECT_LT(std::ranges::count(bytes, 0), 50);  // 4 expected
  Random::shared().fill({});
  AllOnes ones;
  EXPECT_LT(ones.unit(), 1.0);
  EXPECT_GT(ones.unit(), 0.9999999999999);
}

}  // namespace
}  // namespace tallow
