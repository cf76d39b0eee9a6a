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
  while (count-- > 0) result += text;
  return result;
}

TEST(HostileXMLListTest, NestingIsBounded) {
  const auto nested = [](std::size_t depth) {
    return repeated("<array>", depth) + repeated("</array>", depth);
  };
  EXPECT_TRUE(isAcceptedText(nested(PropertyList::kMaxDepth)));
  EXPECT_FALSE(isAcceptedText(nested(PropertyList::kMaxDepth + 1)));
  EXPECT_FALSE(isAcceptedText(nested(100'000)));
  for (const char* opening : {"<array>", "<dict><key></key>",
                              // Closing tags that are none must not hide the depth.
                              "<array><!--</array>-->", "<array><?</array>?>",
                              "<array><string><![CDATA[</array>]]></string>"})
    EXPECT_FALSE(isAcceptedText(repeated(opening, 100'000))) << opening;
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
  for (int index = 0; index < 12'000; ++index)
    filled += "<key>" + std::to_string(index) + "</key><true/>";
  EXPECT_TRUE(isAcceptedText("<dict>" + filled + "</dict>"));
  for (const char* again : {"<key>11999</key><true/>", "<key>&#49;1999</key><true/>"})
    EXPECT_FALSE(isAcceptedText("<dict>" + filled + repeated(again, 12'000) + "</dict>")) << again;
}

TEST(HostileXMLListTest, OnlyOneWholeListIsAList) {
  const std::string list =
      "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>k</key>"
      "<array><string>a&amp;b</string><data>AA==</data></array></dict></plist>";
  ASSERT_TRUE(isAcceptedText(list));
  for (std::size_t length = 0; length < list.size(); ++length)
    EXPECT_FALSE(isAcceptedText(list.substr(0, length))) << list.substr(0, length);
  for (const char* more :
       {"x", "<dict/>", "</plist>", "<plist><dict/></plist>", "<!DOCTYPE plist>", "\x01"})
    EXPECT_FALSE(isAcceptedText(list + more)) << more;
  for (const char* none : {"<dict/><dict/>", "<string>a</string>b",
                           "<plist><plist><dict/></plist></plist>", "<plist><dict></plist></dict>",
                           "<plist></plist>", "<html><body>404</body></html>", "{\"json\": true}"})
    EXPECT_FALSE(isAcceptedText(none)) << none;
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
      "<array>x</array>", "</array>", "<!ENTITY x \"y\"><dict/>",
      // Quotes, in which the library does not look for an end.
      "<?a \"?><array>?\"?></array>", "<!DOCTYPE \"><array><\"></array>",
      "<plist a=\"><array>\"></array></plist>"};
  for (const char* value : kWrong) EXPECT_FALSE(isAcceptedText(value)) << value;
  EXPECT_FALSE(isAcceptedText(std::string_view("<string>a\0b</string>", 20)));
  EXPECT_FALSE(isAcceptedText("<!DOCTYPE plist [<!ENTITY a \"" + repeated("x", 1000) +
                              "\">]><string>&a;</string>"));
}

// Puts together binary lists that no encoder writes.
class BinaryList {
 public:
  // References and offsets of `width` bytes.
  explicit BinaryList(int width = 1) : _width(width) {}

  int add(std::string_view object) {
    _offsets.push_back(_objects.size());
    _objects += object;
    return static_cast<int>(_offsets.size()) - 1;
  }
  std::string number(std::uint64_t value, int width) const {
    std::string result;
    for (int byte = width - 1; byte >= 0; --byte) result += static_cast<char>(value >> (8 * byte));
    return result;
  }
  // An array or, with keys before values, a dictionary of `count` entries.
  std::string container(char kind, const std::vector<int>& references) const {
    const std::size_t count = kind == '\xD0' ? references.size() / 2 : references.size();
    std::string result(1, static_cast<char>(kind | 0xF));
    result += '\x12' + number(count, 4);
    for (const int reference : references)
      result += number(static_cast<unsigned>(reference), _width);
    return result;
  }
  int addArray(const std::vector<int>& references) { return add(container('\xA0', references)); }

  std::string bytes(int root, std::string_view beforeTrailer = "") const {
    std::string result = _objects;
    for (const std::size_t offset : _offsets) result += number(offset, 4);
    result += beforeTrailer;
    return result + std::string(6, '\0') + '\4' + static_cast<char>(_width) +
           number(_offsets.size(), 8) + number(static_cast<unsigned>(root), 8) +
           number(_objects.size(), 8);
  }

 private:
  int _width;
  std::string _objects = "bplist00";
  std::vector<std::size_t> _offsets;
};

bool isAccepted(std::string_view bytes) {
  return static_cast<bool>(PropertyList::decode(Data(bytes)));
}
bool isAcceptedAlone(std::string_view object) {
  BinaryList list;
  return isAccepted(list.bytes(list.add(object)));
}

TEST(HostileBinaryListTest, TheListsMadeHereAreOtherwiseSound) {
  BinaryList list;
  const int key = list.add("\x51k");
  const int value = list.add("\x61\x04\x10");
  const int dictionary = list.add(list.container('\xD0', {key, value}));
  const auto decoded =
      PropertyList::decode(Data(list.bytes(list.addArray({dictionary, dictionary, key}))));
  ASSERT_TRUE(decoded);
  const Value entry = Dictionary{{"k", "\xD0\x90"}};
  EXPECT_EQ(*decoded, Value(Array{entry, entry, "k"}));
}

TEST(HostileBinaryListTest, NestingAndCyclesAreBounded) {
  for (const std::size_t depth :
       {PropertyList::kMaxDepth, PropertyList::kMaxDepth + 1, std::size_t{50'000}}) {
    BinaryList list(4);
    int inner = list.addArray({});
    for (std::size_t level = 1; level < depth; ++level) inner = list.addArray({inner});
    EXPECT_EQ(isAccepted(list.bytes(inner)), depth == PropertyList::kMaxDepth) << depth;
  }
  BinaryList self;
  EXPECT_FALSE(isAccepted(self.bytes(self.addArray({0, 0, 0}))));
  BinaryList pair;
  pair.addArray({1});
  pair.addArray({0});
  EXPECT_FALSE(isAccepted(pair.bytes(0)));
}

TEST(HostileBinaryListTest, SharedObjectsMustNotUnfoldWithoutEnd) {
  BinaryList doubling;
  int inner = doubling.add("\x09");
  for (int level = 0; level < 100; ++level) inner = doubling.addArray({inner, inner});
  EXPECT_FALSE(isAccepted(doubling.bytes(inner)));

  // A megabyte of text, referred to a hundred times.
  BinaryList text;
  const int shared = text.add("\x5F\x12" + text.number(1 << 20, 4) + std::string(1 << 20, 'x'));
  EXPECT_FALSE(isAccepted(text.bytes(text.addArray(std::vector<int>(100, shared)))));
  EXPECT_TRUE(isAccepted(text.bytes(text.addArray(std::vector<int>(3, shared)))));

  // The library looks at every object's ancestors.
  for (const std::size_t width : {20'000, 250'000}) {
    BinaryList wide(4);
    int bottom = wide.addArray(std::vector<int>(width, wide.add("\x08")));
    for (int level = 0; level < 500; ++level) bottom = wide.addArray({bottom});
    EXPECT_EQ(isAccepted(wide.bytes(bottom)), width == 20'000);
  }
}

TEST(HostileBinaryListTest, OnlyOneWholeListIsAList) {
  const Value value =
      Dictionary{{"a", Array{1, 2.5, "text", "\xC3\xA9", Data("data"), Date{0}}}, {"b", true}};
  const std::string list(PropertyList::encode(value, PropertyList::Format::Binary).view());
  for (std::size_t length = 0; length < list.size(); ++length)
    EXPECT_FALSE(isAccepted(list.substr(0, length)));
  EXPECT_FALSE(isAccepted(list + "x"));
  EXPECT_FALSE(isAccepted(list + list));
  BinaryList padded;
  padded.add("\x08");
  EXPECT_FALSE(isAccepted(padded.bytes(0, "smuggled")));
  EXPECT_FALSE(isAccepted(padded.bytes(1)));
  // Any wrong byte is refused or makes another list, and does no harm.
  for (std::size_t index = 0; index < list.size(); ++index)
    for (const int flip : {1, 0x80, 0xFF, 0x0F, 0xF0}) {
      std::string damaged = list;
      damaged[index] = static_cast<char>(damaged[index] ^ flip);
      isAccepted(damaged);
    }
}

TEST(HostileBinaryListTest, UnsupportedAndMalformedObjectsAreRefused) {
  using namespace std::string_view_literals;
  EXPECT_TRUE(isAcceptedAlone("\x14\0\0\0\0\0\0\0\0\xff\xff\xff\xff\xff\xff\xff\xff"sv));
  for (const std::string_view object :
       {// Null, fill, nothing; UID, set, unknown; numbers of no size, or cut.
        "\x00"sv, "\x0F"sv, "\x01"sv, "\x80\x01"sv, "\xC0"sv, "\x70\x41"sv, "\xF0"sv,
        "\x15\0\0\0\0"sv, "\x1F"sv, "\x13\0\0"sv,
        "\x14\0\0\0\0\0\0\0\1\0\0\0\0\0\0\0\0"sv,  // more than 64 bits
        "\x14\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff"sv,
        // Reals, dates, strings and containers likewise.
        "\x20\0"sv, "\x21\0\0"sv, "\x24"sv, "\x32\0\0\0\0"sv, "\x53xy"sv,
        "\x5F\x13\xff\xff\xff\xff\xff\xff\xff\xff"sv, "\x5F\x21\0\0"sv, "\x5F"sv,
        "\x6F\x13\x80\0\0\0\0\0\0\0"sv, "\xAF\x13\x7f\xff\xff\xff\xff\xff\xff\xff"sv,
        "\xDF\x13\x80\0\0\0\0\0\0\1"sv, "\xA1\x07"sv,
        // NUL, no UTF-8, lone surrogates.
        "\x53x\0y"sv, "\x51\xFF"sv, "\x61\0\0"sv, "\x61\xD8\0"sv, "\x61\xDC\0"sv,
        "\x62\xD8\0\0\x41"sv})
    EXPECT_FALSE(isAcceptedAlone(object)) << testing::PrintToString(object);
  BinaryList keys;
  const int number = keys.add("\x10\x05");
  EXPECT_FALSE(isAccepted(keys.bytes(keys.add(keys.container('\xD0', {number, number})))));
}

}  // namespace
}  // namespace tallow
