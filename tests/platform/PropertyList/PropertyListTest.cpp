#include "platform/PropertyList/PropertyList.h"

#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <string>

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
      {"", "empty key"},
      {"entities <&>\"'", "a <b> & \"c\" 'd' ]]> \xF0\x9F\x98\x80 \xC3\xA9\r\n\t"},
      {"key \xC3\xA9", 5},
      {"large", 18446744073709551615ull},
      {"long data", Data(std::string(1000, 'x'))},
      {"maximum", std::numeric_limits<std::int64_t>::max()},
      {"minimum", std::numeric_limits<std::int64_t>::min()},
      {"minus one", -1},
      {"real", 0.1},
      {"small", 2147483648},
      {"tiny", 5e-324},
      {"infinity", -std::numeric_limits<double>::infinity()},
      {"zero", 0},
  };
}

Value roundTrip(const Value& value, Format format) {
  const auto decoded = PropertyList::decode(PropertyList::encode(value, format));
  EXPECT_TRUE(decoded) << description(decoded.error());
  return decoded ? *decoded : Value();
}

Value decodedXML(std::string_view body) {
  const auto decoded = PropertyList::decode(
      Data("<?xml version=\"1.0\"?><plist version=\"1.0\">" + std::string(body) + "</plist>\n"));
  return decoded ? *decoded : Value("refused: " + decoded.error().localizedDescription());
}

TEST(PropertyListTest, EveryKindOfValueSurvivesBothFormats) {
  const Value all = everything();
  for (const Format format : {Format::XML, Format::Binary}) {
    const Value decoded = roundTrip(all, format);
    EXPECT_EQ(decoded, all) << description(decoded);
    EXPECT_TRUE((*decoded.dictionary())["large"].isLargeUnsigned());
    EXPECT_NE((*decoded.dictionary())["boolean"].boolean(), nullptr);
    for (const auto& entry : *all.dictionary())
      EXPECT_EQ(roundTrip(entry.value, format), entry.value) << entry.key;
  }
  EXPECT_TRUE(std::isnan(roundTrip(std::nan(""), Format::XML).realValue()));
}

TEST(PropertyListTest, DatesKeepEveryBitInBinaryAndWholeSecondsInXML) {
  for (const double moment :
       {1772368200.1234567, 0.0000001, -0.5, -62135596800.0, 1e300, 978307200.5}) {
    const double kept = (moment - 978307200) + 978307200;  // as the format counts
    EXPECT_EQ(roundTrip(Date{moment}, Format::Binary), Value(Date{kept}));
  }
  EXPECT_EQ(roundTrip(Date{1772368200.999}, Format::XML), Value(Date{1772368200}));
  EXPECT_EQ(roundTrip(Date{-0.5}, Format::XML), Value(Date{-1}));
  // Beyond what four digits of a year can say: the nearest date that they can.
  EXPECT_EQ(roundTrip(Date{1e300}, Format::XML), Value(Date{253402300799}));
  EXPECT_EQ(roundTrip(Date{-1e300}, Format::XML), Value(Date{-30610224000}));
  EXPECT_NE(roundTrip(Date{std::nan("")}, Format::XML).date(), nullptr);
}

TEST(PropertyListTest, WhatAFormatCannotCarryIsReplaced) {
  const std::string text("a\0b\x01\xFF\xC3", 6);
  EXPECT_EQ(roundTrip(text, Format::Binary), Value("a\uFFFDb\x01\uFFFD\uFFFD"));
  EXPECT_EQ(roundTrip(text, Format::XML), Value("a\uFFFDb\uFFFD\uFFFD\uFFFD"));
  EXPECT_EQ(roundTrip(Dictionary{{"\xFF", 1}}, Format::XML), Value(Dictionary{{"\uFFFD", 1}}));
  // In time that grows with the text, whatever is in it.
  EXPECT_EQ(roundTrip(std::string(4u << 20, '\x01'), Format::XML).string()->size(), 12u << 20);
}

TEST(PropertyListTest, XMLIsReadAsItIsMeant) {
  const std::pair<const char*, Value> cases[] = {
      {"<string>a<!-- no -->b<![CDATA[<&>]]>&lt;&#65;&#x1F600;</string>", "ab<&><A\U0001F600"},
      {"<!-- <array> --><array><!--x--> <true/><false ></false><string/></array>",
       Array{true, false, ""}},
      {"<data>\n\tAAEC\n\t/w==\n</data>", Data(std::string_view("\0\1\2\xFF", 4))},
      {"<array><integer> -7 </integer><integer>0x1F</integer><integer>+5</integer></array>",
       Array{-7, 31, 5}},
      {"<array><real>1</real><real>-2.5e3</real></array>", Array{1.0, -2500.0}},
      {"<date>2026-03-01T12:30:00Z</date>", Date{1772368200}},
      {"<date>4001-01-01T00:00:00Z</date>", Date{64092211200}},
      {"<dict><key>a</key><integer>1</integer><key>a</key><integer>2</integer></dict>",
       Dictionary{{"a", 2}}}};
  for (const auto& [text, value] : cases) EXPECT_EQ(decodedXML(text), value) << text;
  EXPECT_TRUE(decodedXML("<real>1</real>").isReal());
  // With a byte order mark, with a document type, and without <plist>.
  EXPECT_EQ(
      *PropertyList::decode(Data("\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!DOCTYPE plist PUBLIC "
                                 "\"-//X//DTD PLIST 1.0//EN\" \"http://x/\">\n<dict/> <!-- -->\n")),
      Value(Dictionary()));
}

TEST(PropertyListTest, BytesBeyondTheLimitAreNotLookedAt) {
  const Data list = PropertyList::encode("0123456789", Format::XML);
  EXPECT_TRUE(PropertyList::decode(list, list.length()));
  EXPECT_FALSE(PropertyList::decode(list, list.length() - 1));
  const auto refused = PropertyList::decode(Data(std::string(17u << 20, ' ')));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().domain, "PropertyList");
}

TEST(PropertyListTest, MegabytesOfHonestContentsAreAccepted) {
  std::vector<Dictionary::Entry> entries;
  std::vector<Value> elements;
  for (int index = 0; index < 5'000; ++index) {
    entries.push_back({"service-key-" + std::to_string(index),
                       "https://store.example.com/a?b=1&c=" + std::string(150, '2')});
    elements.emplace_back(index);
  }
  const Value large = Dictionary{{"array", Array(elements)}, {"dictionary", Dictionary(entries)}};
  ASSERT_GT(PropertyList::encode(large, Format::XML).length(), 1u << 20);
  for (const Format format : {Format::XML, Format::Binary})
    EXPECT_TRUE(roundTrip(large, format) == large);
}

TEST(PropertyListDeathTest, NilIsAProgrammersError) {
  EXPECT_DEATH(PropertyList::encode(Value(), Format::XML), "nil");
}

}  // namespace
}  // namespace tallow
