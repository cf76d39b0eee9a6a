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
  EXPECT_EQ(match("\\bSTRA\u00DFE\\b", "die stra\u00DFe hier"), Match::Found);
  EXPECT_EQ(match("^.$", "\U0001F600"), Match::Found);
  EXPECT_EQ(match("^x\uFFFDy$", "x\xFFy"), Match::Found);
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
       std::initializer_list<std::string>{"", "*", "[a", "a{2,1}", "\\", "(?<n>a)\\k<m>",
                                          std::string(100'000, 'a'), std::string(60'000, '(')})
    EXPECT_FALSE(RegularExpression::compile(pattern, {})) << pattern.substr(0, 20);
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
  const struct {
    const char* pattern;
    std::vector<const char*> like, unlike;
  } cases[] = {
      {"*.store.example",
       {"P1.A.STORE.EXAMPLE"},
       {"store.example", "xstore.example", "a.store.example.evil"}},
      {"p?-buy.example", {"p1-buy.example"}, {"p-buy.example"}},
      {"*abd", {"abcabcabd"}, {}},
      {"a*x*c", {"aXbXc"}, {}},
      {"", {""}, {"a"}},
      {"*", {"", "ab"}, {}},
      {"?", {"*", "\u00C4"}, {""}},  // letters beyond ASCII are one character
      {"**?**", {"a"}, {""}},
      {"??", {"\xFF\xFE"}, {}},
      {"[a]", {"[a]"}, {}},
      {"[abc]", {}, {"b"}},
      {"\u00E4", {"\u00C4"}, {}},        // and fold
      {"k", {"\u212A"}, {}},             // KELVIN SIGN
      {"strasse", {}, {"stra\u00DFe"}},  // simple folding only
  };
  for (const auto& [pattern, like, unlike] : cases) {
    for (const char* text : like)
      EXPECT_TRUE(isLikeIgnoringCase(text, pattern)) << text << " like " << pattern;
    for (const char* text : unlike)
      EXPECT_FALSE(isLikeIgnoringCase(text, pattern)) << text << " like " << pattern;
  }
  // Many stars cost little.
  std::string pattern;
  for (int star = 0; star < 500; ++star) pattern += "*a";
  EXPECT_FALSE(isLikeIgnoringCase(std::string(20'000, 'a') + "c", pattern + "b"));
}

}  // namespace
}  // namespace tallow
