#include "platform/Base/RegularExpression.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace tallow {
namespace {

using Match = RegularExpression::Match;

Match match(std::string_view pattern, std::string_view text, bool caseInsensitive = true) {
  const auto expression = RegularExpression::compile(pattern, {caseInsensitive});
  EXPECT_TRUE(expression) << description(expression.error());
  return expression->firstMatchIn(text);
}

TEST(RegularExpressionTest, FindsAMatchAnywhere) {
  EXPECT_EQ(match("^https://[^/]+/buy", "HTTPS://store.example/BUYproduct"), Match::Found);
  EXPECT_EQ(match("buy", "https://store.example/BUY", false), Match::NotFound);
  EXPECT_EQ(match("(?<=a)b{2,3}+(?!c)", "xabbbd"), Match::Found);
  EXPECT_EQ(match("\\bSTRA\xC3\x9F"
                  "E\\b",
                  "die stra\xC3\x9F"
                  "e hier"),
            Match::Found);
  EXPECT_EQ(match("^.$", "\xF0\x9F\x98\x80"), Match::Found);
  EXPECT_EQ(match("^a\xEF\xBF\xBD"
                  "b$",
                  "a\xFF"
                  "b"),
            Match::Found);
  EXPECT_EQ(match("a.b", std::string("a\0b", 3)), Match::Found);
  EXPECT_EQ(match("^$", ""), Match::Found);
  EXPECT_EQ(match("x", ""), Match::NotFound);
}

TEST(RegularExpressionTest, BrokenPatternsSayWhere) {
  const auto broken = RegularExpression::compile("abc(def", {});
  ASSERT_FALSE(broken);
  EXPECT_EQ(broken.error().domain, "RegularExpression");
  EXPECT_EQ(broken.error().localizedDescription(), "U_REGEX_MISMATCHED_PAREN at line 1, offset 7");
  for (const std::string& pattern :
       {std::string(), std::string("*"), std::string("[a"), std::string("a{2,1}"),
        std::string("\\"), std::string("(?<n>a)\\k<m>"), std::string(100'000, 'a'),
        std::string(60'000, '(')}) {
    EXPECT_FALSE(RegularExpression::compile(pattern, {})) << pattern.substr(0, 20);
  }
}

TEST(RegularExpressionTest, NoPatternHangsTheService) {
  EXPECT_EQ(match("(a+)+$", std::string(5000, 'a') + "b"), Match::GaveUp);
  EXPECT_EQ(match("(x+x+)+y", std::string(1000, 'x')), Match::GaveUp);
  EXPECT_EQ(match("^(([a-z])+.)+[A-Z]([a-z])+$", std::string(50'000, 'a'), false), Match::GaveUp);
  // Deep recursion of the engine's own stack.
  EXPECT_EQ(match("^(a|b|ab)*c", std::string(1'000'000, 'a')), Match::GaveUp);
  // Much work without ever going back: the square of the text.
  EXPECT_EQ(match("[^b]*+b", std::string(1'000'000, 'a')), Match::GaveUp);
  EXPECT_EQ(match("a", std::string(2'000'000, 'b')), Match::GaveUp);
  EXPECT_EQ(match("a$", std::string(1'000'000, 'b') + "a"), Match::Found);
}

TEST(WildcardTest, StarsAndQuestionMarksCoverTheWholeText) {
  struct Case {
    const char* text;
    const char* pattern;
    bool expected;
  };
  for (const Case& given :
       std::vector<Case>{{"P1.A.STORE.EXAMPLE", "*.store.example", true},
                         {"store.example", "*.store.example", false},
                         {"xstore.example", "*.store.example", false},
                         {"a.store.example.evil", "*.store.example", false},
                         {"p1-buy.example", "p?-buy.example", true},
                         {"p-buy.example", "p?-buy.example", false},
                         {"abcabcabd", "*abd", true},
                         {"aXbXc", "a*x*c", true},
                         {"", "", true},
                         {"", "*", true},
                         {"", "?", false},
                         {"a", "", false},
                         {"a", "**?**", true},
                         {"[a]", "[a]", true},
                         {"b", "[abc]", false},
                         {"\xC3\x84", "\xC3\xA4", true},  // letters beyond ASCII fold
                         {"\xC3\x84", "?", true},         // and are one character
                         {"\xE2\x84\xAA", "k", true},     // KELVIN SIGN
                         {"stra\xC3\x9F"
                          "e",
                          "strasse", false},  // simple folding only
                         {"\xFF\xFE", "??", true},
                         {"*", "?", true},
                         {"ab", "*", true}}) {
    EXPECT_EQ(isLikeIgnoringCase(given.text, given.pattern), given.expected)
        << given.text << " like " << given.pattern;
  }
}

TEST(WildcardTest, ManyStarsCostLittle) {
  std::string pattern;
  for (int star = 0; star < 500; ++star) pattern += "*a";
  EXPECT_FALSE(isLikeIgnoringCase(std::string(20'000, 'a') + "c", pattern + "b"));
}

}  // namespace
}  // namespace tallow
