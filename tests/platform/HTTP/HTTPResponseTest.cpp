#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <string>

#include "platform/HTTP/HTTPTransport.h"

namespace tallow {
namespace {

HTTPResponse responseWith(HTTPHeaderList headers) {
  HTTPResponse response(*URL::parse("http://store.example.com/"));
  response.headers = std::move(headers);
  return response;
}

std::optional<double> maxAge(std::string cacheControl) {
  return responseWith({{"Cache-Control", std::move(cacheControl)}}).cacheControlMaxAgeSeconds();
}

TEST(HTTPResponseTest, HeaderDictionaryJoinsLinesOfOneName) {
  const Dictionary headers =
      responseWith({{"Vary", "Accept"},
                    {"set-cookie", "a=1; Expires=Thu, 01 Jan 2026 00:00:00 GMT"},
                    {"VARY", "Cookie"},
                    {"Set-Cookie", "b=2"},
                    {"Empty", ""}})
          .headerDictionary();
  EXPECT_EQ(headers,
            (Dictionary{{"Vary", "Accept, Cookie"},
                        {"set-cookie", Array{"a=1; Expires=Thu, 01 Jan 2026 00:00:00 GMT", "b=2"}},
                        {"Empty", ""}}));
  EXPECT_EQ(responseWith({{"Set-Cookie", "a=1"}}).headerDictionary(),
            (Dictionary{{"Set-Cookie", "a=1"}}));
}

TEST(HTTPResponseTest, MaxAgeIsRead) {
  EXPECT_EQ(responseWith({}).cacheControlMaxAgeSeconds(), std::nullopt);
  EXPECT_EQ(maxAge(""), std::nullopt);
  EXPECT_EQ(maxAge("private"), std::nullopt);
  EXPECT_EQ(maxAge("max-age=3600"), 3600);
  EXPECT_EQ(maxAge("private , \tMAX-Age=3600 ,must-revalidate"), 3600);
  EXPECT_EQ(maxAge("max-age=\"3600\""), 3600);
  EXPECT_EQ(maxAge("max-age=007"), 7);
  EXPECT_EQ(maxAge("s-maxage=5, x-max-age=6, max-agent=7"), std::nullopt);
  // What bags and pings go by is how long an answer says that it holds, not whether it may be kept.
  EXPECT_EQ(maxAge("max-age=60, no-store"), 60);
  EXPECT_EQ(maxAge("no-cache=\"Set-Cookie, Via\", max-age=60"), 60);
  EXPECT_EQ(responseWith({{"cache-control", "private"}, {"Cache-Control", "max-age=5"}})
                .cacheControlMaxAgeSeconds(),
            5);
}

TEST(HTTPResponseTest, ExtremeMaxAgesStayDistinguishable) {
  EXPECT_EQ(maxAge("max-age=0"), 0);
  EXPECT_EQ(maxAge("max-age=-5"), -5);
  EXPECT_EQ(maxAge("max-age=2147483648"), 2147483648.0);
  EXPECT_EQ(maxAge("max-age=2147483649"), 2147483648.0);
  EXPECT_EQ(maxAge("max-age=" + std::string(400, '9')), 2147483648.0);
  EXPECT_EQ(maxAge("max-age=-" + std::string(400, '9')), -2147483648.0);
}

TEST(HTTPResponseTest, MalformedDirectivesDoNotCount) {
  for (const char* malformed :
       {"max-age", "max-age=", "max-age=1.5", "max-age=1e3", "max-age=+5", "max-age=5s",
        "max-age=0x5", "max-age =5", "max-age= 5", "max-age=--5", "max-age=\"5", "max-age=5\"",
        "max-age=\"\"", "max-age=5 6", "max-age;5"}) {
    EXPECT_EQ(maxAge(malformed), std::nullopt) << malformed;
    // What follows counts, unless a quotation mark that is never closed has swallowed it.
    const std::string_view text = malformed;
    const bool isOpen = std::count(text.begin(), text.end(), '"') % 2 == 1;
    EXPECT_EQ(maxAge(std::string("\t, ,") + malformed + ", max-age=60"),
              isOpen ? std::nullopt : std::optional(60.0))
        << malformed;
  }
  // The first valid one wins; one inside a quoted string is none.
  EXPECT_EQ(maxAge("max-age=10, max-age=20"), 10);
  EXPECT_EQ(maxAge("community=\"a, max-age=10, \\\", max-age=11\", max-age=12"), 12);
}

}  // namespace
}  // namespace tallow
