#include "platform/PropertyList/PropertyList.h"

#include <gmock/gmock.h>

namespace tallow {
namespace {

using PropertyList::Format;

Value everything() {
  return Dictionary{
      {"array", Array{Value(1), Value("two"), Value(Array()), Value(Dictionary())}},
      {"boolean", true},
      {"data", Data(std::string_view("\0\xff", 2))},
      {"date", Date{1772368200}},
      {"distant", Date{64092211200}},
      {"early", Date{-30610224000}},
      {"empty data", Data()},
      {"empty string", ""},
      {"entities <&>\"'", "a <b> & \"c\" 'd' ]]> \xF0\x9F\x98\x80 \xC3\xA9"},
      {"large", 18446744073709551615ull},
      {"minimum", std::numeric_limits<std::int64_t>::min()},
      {"minus one", -1},
      {"real", 0.1},
      {"tiny", 5e-324},
      {"zero", 0},
  };
}

TEST(PropertyListTest, EveryKindOfValueSurvivesBothFormats) {
  for (const Format format : {Format::XML, Format::Binary}) {
    const auto decoded = PropertyList::decode(PropertyList::encode(everything(), format));
    ASSERT_TRUE(decoded) << description(decoded.error());
    EXPECT_EQ(*decoded, everything()) << description(*decoded);
    EXPECT_TRUE((*decoded->dictionary())["large"].isLargeUnsigned());
    EXPECT_NE((*decoded->dictionary())["boolean"].boolean(), nullptr);
  }
}

}  // namespace
}  // namespace tallow
