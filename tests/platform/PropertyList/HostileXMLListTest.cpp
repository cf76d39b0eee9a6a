#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "platform/PropertyList/PropertyList.h"

namespace tallow {
namespace {

bool isAcceptedText(std::string_view text) {
  return static_cast<bool>(PropertyList::decode(Data(text), 32u << 20));
}

std::string repeated(std::string_view text, std::size_t count) {
  std::string result;
  result.reserve(text.size() * count);
  for (std::size_t index = 0; index < count; ++index) result += text;
  return result;
}

TEST(HostileXMLListTest, NestingIsBounded) {
  const auto nested = [](std::size_t depth) {
    return repeated("<array>", depth) + repeated("</array>", depth);
  };
  EXPECT_TRUE(isAcceptedText(nested(PropertyList::kMaxDepth)));
  EXPECT_FALSE(isAcceptedText(nested(PropertyList::kMaxDepth + 1)));
  EXPECT_FALSE(isAcceptedText(nested(100'000)));
  EXPECT_FALSE(isAcceptedText(repeated("<array>", 100'000)));
  EXPECT_FALSE(isAcceptedText(repeated("<dict><key></key>", 100'000)));
  // Closing tags that are none must not hide the depth.
  EXPECT_FALSE(isAcceptedText(repeated("<array><!--</array>-->", 100'000)));
  EXPECT_FALSE(isAcceptedText(repeated("<array><?</array>?>", 100'000)));
  EXPECT_FALSE(isAcceptedText(repeated("<array><string><![CDATA[</array>]]></string>", 100'000)));
}

TEST(HostileXMLListTest, WhatTakesTheLibraryTheSquareOfTheTextIsRefused) {
  // Entities, of which each moves all that follows.
  EXPECT_FALSE(isAcceptedText("<string>" + repeated("&amp;", 100'000) + "</string>"));
  EXPECT_TRUE(isAcceptedText("<string>" + repeated("text &amp; ", 20'000) + "</string>"));
  // Keys made to fall together in a hash table: "Ez" and "FY" have the same hash.
  std::string colliding = "<dict>";
  for (int index = 0; index < (1 << 14); ++index) {
    colliding += "<key>";
    for (int bit = 0; bit < 14; ++bit) colliding += (index >> bit & 1) != 0 ? "Ez" : "FY";
    colliding += "</key><true/>";
  }
  EXPECT_FALSE(isAcceptedText(colliding + "</dict>"));
  // Repeated keys, of which each counts through all entries.
  std::string filled;
  for (int index = 0; index < 12'000; ++index) {
    filled += "<key>" + std::to_string(index) + "</key><true/>";
  }
  EXPECT_TRUE(isAcceptedText("<dict>" + filled + "</dict>"));
  EXPECT_FALSE(
      isAcceptedText("<dict>" + filled + repeated("<key>11999</key><true/>", 12'000) + "</dict>"));
  EXPECT_FALSE(isAcceptedText("<dict>" + filled + repeated("<key>&#49;1999</key><true/>", 12'000) +
                              "</dict>"));
}

TEST(HostileXMLListTest, OnlyOneWholeListIsAList) {
  const std::string list =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key>"
      "<array><string>a&amp;b</string><data>AA==</data></array></dict></plist>";
  ASSERT_TRUE(isAcceptedText(list));
  for (std::size_t length = 0; length < list.size(); ++length) {
    EXPECT_FALSE(isAcceptedText(list.substr(0, length))) << list.substr(0, length);
  }
  for (const char* more :
       {"x", "<dict/>", "</plist>", "<plist><dict/></plist>", "<!DOCTYPE plist>", "\x01"}) {
    EXPECT_FALSE(isAcceptedText(list + more)) << more;
  }
  EXPECT_FALSE(isAcceptedText("<dict/><dict/>"));
  EXPECT_FALSE(isAcceptedText("<string>a</string>b"));
  EXPECT_FALSE(isAcceptedText("<plist><plist><dict/></plist></plist>"));
  EXPECT_FALSE(isAcceptedText("<plist><dict></plist></dict>"));
  EXPECT_FALSE(isAcceptedText("<plist></plist>"));
  EXPECT_FALSE(isAcceptedText("<html><body>404</body></html>"));
  EXPECT_FALSE(isAcceptedText("{\"json\": true}"));
}

TEST(HostileXMLListTest, WrongValuesAreRefusedNotGuessed) {
  const char* const kWrong[] = {
      // Numbers.
      "<integer></integer>", "<integer/>", "<integer>x</integer>", "<integer>1x</integer>",
      "<integer>--1</integer>", "<integer>1 2</integer>", "<integer>010</integer>",
      "<integer>18446744073709551616</integer>", "<integer>-9223372036854775809</integer>",
      "<integer>1<!-- -->2</integer>", "<real>x</real>", "<real/>", "<real>1,5</real>",
      // Dates.
      "<date>yesterday</date>", "<date>2026-03-01</date>", "<date>2026-03-01T12:30:00+01:00</date>",
      "<date>2026-13-01T12:30:00Z</date>", "<date>2026-02-30T12:30:00Z</date>",
      "<date>2026-02-28T24:00:00Z</date>",
      // Texts.
      "<true>no</true>", "<string><b>x</b></string>", "<string>&nbsp;</string>",
      "<string>&#0;</string>", "<string>&#xD800;</string>", "<string>&#x110000;</string>",
      "<string>\xFF</string>", "<string>\xC0\x80</string>", "<string>\xED\xA0\x80</string>",
      // Kinds and structures.
      "<uid>1</uid>", "<set/>", "<null/>", "<Array/>", "<dict><string>k</string><true/></dict>",
      "<dict><key>a</key></dict>", "<dict><key>a</key><key>b</key></dict>", "<dict><true/></dict>",
      "<array><key>a</key></array>", "<key>a</key>", "<dict><key/><true/></dict>",
      "<dict><key>\xFF</key><true/></dict>", "<array x=\"1\"/>", "<array></dict>",
      "<array>x</array>", "</array>", "<!ENTITY x \"y\"><dict/>"};
  for (const char* value : kWrong) EXPECT_FALSE(isAcceptedText(value)) << value;
  EXPECT_FALSE(isAcceptedText(std::string_view("<string>a\0b</string>", 20)));
  EXPECT_FALSE(isAcceptedText("<!DOCTYPE plist [<!ENTITY a \"" + repeated("x", 1000) +
                              "\">]><string>&a;</string>"));
  // Quotes, in which the library does not look for an end.
  EXPECT_FALSE(isAcceptedText("<?a \"?><array>?\"?></array>"));
  EXPECT_FALSE(isAcceptedText("<!DOCTYPE \"><array><\"></array>"));
  EXPECT_FALSE(isAcceptedText("<plist a=\"><array>\"></array></plist>"));
}

}  // namespace
}  // namespace tallow
