#include "platform/Cookies/SetCookieParser.h"

#include <gmock/gmock.h>

#include <limits>

#include "platform/Cookies/CookieDate.h"

namespace tallow {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr double kMoment = 1623233894;  // 2021-06-09 10:18:14 UTC

TEST(CookieDate, ReadsWhatServersWriteByTheCalendar) {
  for (const char* text : {
           "Wed, 09 Jun 2021 10:18:14 GMT", "Wednesday, 09-Jun-21 10:18:14 GMT",
           "Wed Jun  9 10:18:14 2021", "Wed, 09-Jun-2021 10:18:14", "10:18:14 2021 jUNE 9",
           "9th=Jun?2021;10:18:14 -0800",        // the zone does not count
           "Wed, 09 Jun 2021 10:18:14.500 GMT",  // a fraction is what follows the time
           "\t09//Junius 21x 10:18:14z",
           "Mon 09 Jun 2021 10:18:14 11:00:00 5 Jan 1999",  // the first of each kind
       }) {
    const auto date = parseCookieDate(text);
    ASSERT_TRUE(date) << text;
    EXPECT_EQ(date->secondsSince1970, kMoment) << text;
  }
  const auto seconds = [](const char* text) {
    return parseCookieDate(text).value().secondsSince1970;
  };
  EXPECT_EQ(seconds("1 Jan 70 0:0:0"), 0);
  EXPECT_EQ(seconds("1 Jan 1970 00:00:01"), 1);
  EXPECT_EQ(seconds("1 Jan 69 00:00:00"), 3124224000);  // 2069
  EXPECT_EQ(seconds("1 Jan 99 00:00:00"), 915148800);   // 1999
  EXPECT_EQ(seconds("29 Feb 2000 00:00:00"), 951782400);
  EXPECT_EQ(seconds("1 Jan 1601 00:00:00"), -11644473600);
  EXPECT_EQ(seconds("31 Dec 9999 23:59:59"), 253402300799);
}

TEST(CookieDate, RefusesTheRest) {
  const char* const kTexts[] = {
      // Something is missing, or is no date.
      "", " ", "GMT", "Wed, 09 Jun 2021", "09 2021 10:18:14", "Jun 2021 10:18:14",
      "09 Jun 10:18:14",
      // A field is out of its bounds.
      "32 Jun 2021 10:18:14", "0 Jun 2021 10:18:14", "31 Jun 2021 10:18:14", "29 Feb 1900 10:18:14",
      "09 Jun 1600 10:18:14", "09 Jun 2021 24:00:00", "09 Jun 2021 10:60:00",
      "09 Jun 2021 10:18:60",
      // A field has another form.
      "09 Jun 2021 10:18", "09 Jun 2021 10:18:014", "09 Jun 20211 10:18:14",
      "009 Jun 2021 10:18:14", "09 Jun 2 10:18:14", "09 Ju 2021 10:18:14", "09 Jun 2021 :18:14",
      "09 Jun 2021 10.18.14", "-1 Jan", "1623233894"};
  for (const char* text : kTexts) EXPECT_FALSE(parseCookieDate(text)) << text;
}

ParsedCookie parse(std::string_view line) {
  const auto cookie = parseSetCookie(line);
  EXPECT_TRUE(cookie) << line;
  return cookie.value_or(ParsedCookie());
}

TEST(SetCookieParser, SplitsNameAndValueWhereThereAreAny) {
  const auto expect = [](std::string_view line, std::string_view name, std::string_view value) {
    const ParsedCookie cookie = parse(line);
    EXPECT_EQ(cookie.name, name) << line;
    EXPECT_EQ(cookie.value, value) << line;
  };
  expect("a=b", "a", "b");
  expect(" \ta =\t b c \t; Secure", "a", "b c");
  expect("a=b=c", "a", "b=c");
  expect("a=\"b; c\"", "a", "\"b");
  expect("a=", "a", "");
  expect("=b", "", "b");
  expect("b", "", "b");
  expect("b; a=c", "", "b");
  expect("\xC3\xA9=\xFF", "\xC3\xA9", "\xFF");
  // Nor is there a cookie in everything.
  for (const std::string_view line : {"", ";", " ", "=", " = ; Path=/", "; a=b"})
    EXPECT_FALSE(parseSetCookie(line)) << line;
  for (int c = 0; c < 256; ++c) {
    const bool refused = (c < 0x20 && c != '\t') || c == 0x7F;
    const std::string inValue = std::string("a=b") + static_cast<char>(c) + "c";
    const std::string inAttribute = std::string("a=b; Path=/") + static_cast<char>(c) + "c";
    EXPECT_EQ(parseSetCookie(inValue).has_value(), !refused) << c;
    EXPECT_EQ(parseSetCookie(inAttribute).has_value(), !refused) << c;
  }
}

TEST(SetCookieParser, ReadsAttributes) {
  const ParsedCookie all = parse(
      "a=b;eXPIRES=Wed, 09 Jun 2021 10:18:14 GMT ;max-age = 60; DOMAIN=.Store.Example;"
      "Path=/x; secure=no; HttpOnly; SameSite=LAX; Partitioned; =; ;");
  EXPECT_EQ(all.expires, Date{1623233894});
  EXPECT_EQ(all.maxAgeSeconds, 60);
  EXPECT_EQ(all.domain, "store.example");
  EXPECT_EQ(all.path, "/x");
  EXPECT_TRUE(all.secure);
  EXPECT_TRUE(all.httpOnly);
  EXPECT_EQ(all.sameSite, Cookie::SameSite::Lax);

  const ParsedCookie none = parse("a=b; Domains=x; Secured; HttpOnl");
  EXPECT_FALSE(none.expires || none.maxAgeSeconds || none.domain || none.path);
  EXPECT_FALSE(none.secure || none.httpOnly);
  EXPECT_EQ(none.sameSite, Cookie::SameSite::Unspecified);
}

TEST(SetCookieParser, LetsTheLastValidAttributeWin) {
  EXPECT_EQ(parse("a=b; Max-Age=5; Max-Age=7; Max-Age=x").maxAgeSeconds, 7);
  EXPECT_EQ(parse("a=b; Expires=1 Jan 1970 00:00:05; Expires=soon").expires, Date{5});
  EXPECT_EQ(parse("a=b; Path=/a; Path=b").path, "");
  EXPECT_EQ(parse("a=b; Path=/a; Path").path, "");
  EXPECT_EQ(parse("a=b; Domain=x.example; Domain=").domain, "");
  EXPECT_EQ(parse("a=b; SameSite=Strict; SameSite=other").sameSite, Cookie::SameSite::Unspecified);

  const std::string longest = "/" + std::string(1023, 'p');
  EXPECT_EQ(parse("a=b; Path=/a; Path=" + longest).path, longest);
  EXPECT_EQ(parse("a=b; Path=/a; Path=" + longest + "p").path, "/a");
}

TEST(SetCookieParser, ReadsMaxAgeAsAWholeNumber) {
  EXPECT_EQ(parse("a=b; Max-Age=-1").maxAgeSeconds, -1);
  EXPECT_EQ(parse("a=b; Max-Age=007").maxAgeSeconds, 7);
  EXPECT_EQ(parse("a=b; Max-Age=99999999999999999999").maxAgeSeconds,
            std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(parse("a=b; Max-Age=-99999999999999999999").maxAgeSeconds,
            std::numeric_limits<std::int64_t>::min());
  for (const char* text :
       {"", "-", "+1", "1.5", "1e3", "0x1", "1 2", "--1", "99999999999999999999x"})
    EXPECT_FALSE(parse(std::string("a=b; Max-Age=") + text).maxAgeSeconds) << text;
}

std::vector<std::string> linesOf(const Dictionary& headers, std::size_t most = 100) {
  const auto lines = setCookieLines(headers, most);
  return {lines.begin(), lines.end()};
}

TEST(SetCookieLines, TakesListsAndJoinedTextAlone) {
  EXPECT_THAT(linesOf({{"Set-Cookie", Array{"a=1; Path=/", "b=2, c=3", 7, Value()}}}),
              ElementsAre("a=1; Path=/", "b=2, c=3"));
  EXPECT_THAT(linesOf({{"set-COOKIE",
                        "a=1; Expires=Wed, 09 Jun 2021 10:18:14 GMT; Path=/, b=x,y;"
                        "Expires=Thu,01-Jan-1970 00:00:00 GMT,c =3 , d=, =,e"}}),
              ElementsAre("a=1; Expires=Wed, 09 Jun 2021 10:18:14 GMT; Path=/",
                          "b=x,y;Expires=Thu,01-Jan-1970 00:00:00 GMT", "c =3", "d=, =,e"));
  EXPECT_THAT(linesOf({{"SET-COOKIE", "a=1"}, {"Set-Cookie", Array{"b=2"}}}),
              ElementsAre("a=1", "b=2"));
  // No more than it is asked for.
  const Dictionary headers{{"SET-COOKIE", "a=1,b=2"}, {"Set-Cookie", Array{"c=3", "d=4"}}};
  EXPECT_THAT(linesOf(headers, 1), ElementsAre("a=1"));
  EXPECT_THAT(linesOf(headers, 2), ElementsAre("a=1", "b=2"));
  EXPECT_THAT(linesOf(headers, 3), ElementsAre("a=1", "b=2", "c=3"));
  // And nothing else.
  EXPECT_THAT(linesOf({}), IsEmpty());
  EXPECT_THAT(linesOf({{"Cookie", "a=1"}, {"Set-Cookie2", "a=1"}}), IsEmpty());
  EXPECT_THAT(linesOf({{"Set-Cookie", 1}, {"set-cookie", Dictionary{{"Set-Cookie", "a=1"}}}}),
              IsEmpty());
}

}  // namespace
}  // namespace tallow
