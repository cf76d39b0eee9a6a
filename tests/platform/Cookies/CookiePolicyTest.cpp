#include "platform/Cookies/CookiePolicy.h"

#include <gtest/gtest.h>

#include "tests/platform/Cookies/JarFixture.h"

namespace tallow {
namespace {

constexpr Date kNow{1'700'000'000};

CookiePolicy::Judgement judge(std::string_view line, std::string_view from) {
  const auto parsed = parseSetCookie(line);
  EXPECT_TRUE(parsed) << line;
  return CookiePolicy::judge(parsed.value_or(ParsedCookie()), url(from), kNow);
}

TEST(CookiePolicy, LimitsWhoMaySetADomain) {
  using enum CookieDecision;
  struct Case {
    CookieDecision decision;
    bool hostOnly;
    std::vector<std::string> hostsAndDomains;
  };
  for (const auto& [decision, hostOnly, hostsAndDomains] : {
           Case{Stored,
                false,
                {"www.store.example store.example", "WWW.Store.Example. .STORE.example",
                 "store.example store.example", "a.store.co.uk store.co.uk"}},
           Case{Stored,
                true,
                {"store.example ", "store.example .", "co.uk co.uk", "localhost localhost",
                 "localhost ", "127.0.0.1 ", "127.0.0.1 127.0.0.1", "[::1] [::1]", "[::1] ::1"}},
           Case{DomainMismatch,
                false,
                {"store.example www.store.example", "bookstore.example store.example",
                 "store.example store.example.", "store.example ..store.example",
                 "store.example st\xC3\xB6re.example", "127.0.0.1 0.0.1",
                 "www.store.example 127.0.0.1"}},
           Case{PublicSuffix,
                false,
                {"store.example example", "store.co.uk co.uk", "me.github.io github.io",
                 "a.localhost localhost"}},
       })
    for (const std::string& each : hostsAndDomains) {
      const std::size_t space = each.find(' ');
      const auto judged =
          judge("a=b; Domain=" + each.substr(space + 1), "http://" + each.substr(0, space) + "/");
      EXPECT_EQ(judged.decision, decision) << each;
      EXPECT_EQ(judged.decision == Stored && judged.cookie.hostOnly, hostOnly) << each;
    }
  EXPECT_EQ(judge("a=b", "data:text/plain,x").decision, DomainMismatch);
}

TEST(CookiePolicy, DerivesAndMatchesThePath) {
  const auto path = [](std::string_view line, std::string_view from) {
    return judge(line, from).cookie.path;
  };
  EXPECT_EQ(path("a=b", "http://store.example"), "/");
  EXPECT_EQ(path("a=b", "http://store.example/shop"), "/");
  EXPECT_EQ(path("a=b", "http://store.example/shop/"), "/shop");
  EXPECT_EQ(path("a=b", "http://store.example/shop/item?q=/x/"), "/shop");
  EXPECT_EQ(path("a=b; Path=/x/", "http://store.example/shop/item"), "/x/");
  EXPECT_EQ(path("a=b; Path=x", "http://store.example/shop/item"), "/shop");
  EXPECT_EQ(judge("a=b", "http://store.example/" + std::string(1030, 'p') + "/").decision,
            CookieDecision::TooLarge);
  // Paths match at segments.
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop", "/shop"));
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop/item", "/shop"));
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop/item", "/shop/"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/shop", "/shop/"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/shopping", "/shop"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/Shop", "/shop"));
}

TEST(CookiePolicy, HoldsPrefixesToTheirPromise) {
  const std::pair<CookieDecision, std::vector<const char*>> cases[] = {
      {CookieDecision::Stored,
       {"__Secure-a=b; Secure; Domain=store.example", "__Host-a=b; Secure; Path=/",
        "__HOST-a=b; Secure; Path=/", "a__Host-=b"}},
      {CookieDecision::PrefixRule,
       {"__Secure-a=b", "__sEcUrE-a=b", "__Host-a=b; Path=/", "__host-a=b; Secure",
        "__Host-a=b; Secure; Path=/shop", "__Host-a=b; Secure; Path=/; Domain=store.example",
        "=__Host-a=b; Secure; Path=/", "__Secure-a; Secure"}}};
  for (const auto& [decision, lines] : cases)
    for (const char* line : lines)
      EXPECT_EQ(judge(line, "https://store.example/shop/item").decision, decision) << line;
}

TEST(CookiePolicy, AsksForASecureOrigin) {
  using enum CookieDecision;
  EXPECT_EQ(judge("a=b; Secure", "https://store.example/").decision, Stored);
  EXPECT_EQ(judge("a=b; Secure", "http://store.example/").decision, InsecureOrigin);
  // Schemes are compared as they are written.
  EXPECT_EQ(judge("a=b; Secure", "HTTPS://store.example/").decision, InsecureOrigin);
  EXPECT_EQ(judge("a=b; SameSite=None", "https://store.example/").decision, SameSiteRule);
  EXPECT_EQ(judge("a=b; SameSite=None; Secure", "https://store.example/").cookie.sameSite,
            Cookie::SameSite::None);
}

TEST(CookiePolicy, LimitsSizeAndLifetime) {
  const std::string value(4095, 'v');
  EXPECT_EQ(judge("a=" + value, "http://store.example/").decision, CookieDecision::Stored);
  EXPECT_EQ(judge("ab=" + value, "http://store.example/").decision, CookieDecision::TooLarge);

  const auto lifetime = [](std::string_view line) {
    return judge(line, "http://store.example/").cookie.expiresDate.value().secondsSince(kNow);
  };
  constexpr double kLongest = 400.0 * 24 * 60 * 60;
  EXPECT_EQ(lifetime("a=b; Max-Age=60; Expires=Thu, 01 Jan 1970 00:00:00 GMT"), 60);
  EXPECT_EQ(lifetime("a=b; Max-Age=9223372036854775807"), kLongest);
  EXPECT_EQ(lifetime("a=b; Expires=Fri, 31 Dec 9999 23:59:59 GMT"), kLongest);
  EXPECT_EQ(lifetime("a=b; Expires=Tue, 14 Nov 2023 22:13:30 GMT"), 10);
  EXPECT_FALSE(
      judge("a=b; Expires=never; Max-Age=soon", "http://store.example/").cookie.expiresDate);
  for (const char* line :
       {"a=b; Max-Age=0", "a=b; Max-Age=-9", "a=b; Expires=Tue, 14 Nov 2023 22:13:20",
        "a=b; Max-Age=0; Expires=Fri, 31 Dec 9999 23:59:59 GMT"})
    EXPECT_EQ(judge(line, "http://store.example/").decision, CookieDecision::Removed) << line;
}

TEST(CookiePolicy, RefusesWhatNoLineCouldHold) {
  ParsedCookie cookie;
  const URL from = url("http://store.example/");
  EXPECT_EQ(CookiePolicy::judge(cookie, from, kNow).decision, CookieDecision::EmptyNameAndValue);
  cookie.name = "a";
  cookie.value = "b\r\nHost: evil.example";
  EXPECT_EQ(CookiePolicy::judge(cookie, from, kNow).decision, CookieDecision::ControlCharacter);
}

}  // namespace
}  // namespace tallow
