#include "platform/VendBase/LogText.h"

#include <gtest/gtest.h>

#include <string>

namespace tallow {
namespace {

TEST(LogTextTest, EscapesWhateverCouldForgeALineOrDriveATerminal) {
  EXPECT_EQ(LogText::escaped("plain % text \\ \"quoted\""), "plain % text \\ \"quoted\"");
  EXPECT_EQ(LogText::escaped("Grüße 世界 🐄"), "Grüße 世界 🐄");
  EXPECT_EQ(LogText::escaped("a\nb\rc\td"), "a\\nb\\rc\\td");
  EXPECT_EQ(LogText::escaped(std::string_view("\0\x1b[2J\x7f", 6)), "\\x00\\x1b[2J\\x7f");
  EXPECT_EQ(LogText::escaped("\u009b31m"), "\\x9b31m");
  EXPECT_EQ(LogText::escaped("x\u2028y\u2029z"), "x\\u{2028}y\\u{2029}z");
  EXPECT_EQ(LogText::escaped("\u202eecilA\u2066"), "\\u{202e}ecilA\\u{2066}");
}

TEST(LogTextTest, EscapesMalformedBytesOneByOne) {
  EXPECT_EQ(LogText::escaped("\xff"), "\\xff");
  EXPECT_EQ(LogText::escaped("a\xc3"), "a\\xc3");
  EXPECT_EQ(LogText::escaped("\xc0\xaf"), "\\xc0\\xaf");             // overlong '/'
  EXPECT_EQ(LogText::escaped("\xed\xa0\x80!"), "\\xed\\xa0\\x80!");  // half a surrogate pair
}

TEST(LogTextTest, CutsLongLinesBetweenCharacters) {
  const std::string fits(LogText::kMaxLineBytes, 'x');
  EXPECT_EQ(LogText::escaped(fits), fits);
  std::string longer = std::string(LogText::kMaxLineBytes - 1, 'x') + "ü" + std::string(1000, 'y');
  EXPECT_EQ(LogText::escaped(longer),
            longer.substr(0, LogText::kMaxLineBytes + 1) + "… (1000 more bytes)");
  // Escapes grow the text; the line stays bounded all the same.
  EXPECT_LT(LogText::escaped(std::string(1u << 20, '\x01')).size(), LogText::kMaxLineBytes + 64);
}

TEST(LogTextTest, NamesFilesByTheirPlaceInTheSystem) {
  EXPECT_EQ(LogText::fileName("/src/AccountService/AccountStore.cpp"),
            "AccountService/AccountStore");
  EXPECT_EQ(LogText::fileName("/home/src/tallowd/src/Bag.cpp"), "Bag");
  EXPECT_EQ(LogText::fileName("platform/VendBase/HSDevice.cpp"), "VendBase/HSDevice");
  EXPECT_EQ(LogText::fileName("/platform/HTTP/HTTPTransport.h"), "HTTP/HTTPTransport");
  EXPECT_EQ(LogText::fileName("xsrc/a.b/file"), "xsrc/a.b/file");
}

}  // namespace
}  // namespace tallow
