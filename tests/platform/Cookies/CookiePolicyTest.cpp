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
  struct Case {
    const char* host;
    const char* domain;
    CookieDecision decision;
    bool hostOnly = false;
  };
  using enum CookieDecision;
  for (const Case& c : {
           Case{"www.store.example", "store.example", Stored},
           Case{"WWW.Store.Example.", ".STORE.example", Stored},
           Case{"store.example", "store.example", Stored},
           Case{"store.example", "", Stored, true},
           Case{"store.example", ".", Stored, true},
           Case{"store.example", "www.store.example", DomainMismatch},
           Case{"bookstore.example", "store.example", DomainMismatch},
           Case{"store.example", "store.example.", DomainMismatch},
           Case{"store.example", "..store.example", DomainMismatch},
           Case{"store.example", "st\xC3\xB6re.example", DomainMismatch},
           Case{"store.example", "example", PublicSuffix},
           Case{"store.co.uk", "co.uk", PublicSuffix},
           Case{"a.store.co.uk", "store.co.uk", Stored},
           Case{"co.uk", "co.uk", Stored, true},
           Case{"me.github.io", "github.io", PublicSuffix},
           Case{"localhost", "localhost", Stored, true},
           Case{"localhost", "", Stored, true},
           Case{"a.localhost", "localhost", PublicSuffix},
           Case{"127.0.0.1", "", Stored, true},
           Case{"127.0.0.1", "127.0.0.1", Stored, true},
           Case{"127.0.0.1", "0.0.1", DomainMismatch},
           Case{"[::1]", "[::1]", Stored, true},
           Case{"[::1]", "::1", Stored, true},
           Case{"www.store.example", "127.0.0.1", DomainMismatch},
       }) {
    SCOPED_TRACE(std::string(c.host) + " sets " + c.domain);
    const auto judged =
        judge(std::string("a=b; Domain=") + c.domain, std::string("http://") + c.host + "/");
    EXPECT_EQ(judged.decision, c.decision);
    EXPECT_EQ(judged.decision == Stored && judged.cookie.hostOnly, c.hostOnly);
  }
  EXPECT_EQ(judge("a=b", "data:text/plain,x").decision, DomainMismatch);
}

TEST(CookiePolicy, DerivesThePath) {
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
}

TEST(CookiePolicy, MatchesPathsAtSegments) {
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop", "/shop"));
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop/item", "/shop"));
  EXPECT_TRUE(CookiePolicy::pathMatches("/shop/item", "/shop/"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/shop", "/shop/"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/shopping", "/shop"));
  EXPECT_FALSE(CookiePolicy::pathMatches("/Shop", "/shop"));
}

TEST(CookiePolicy, HoldsPrefixesToTheirPromise) {
  using enum CookieDecision;
  struct Case {
    const char* line;
    CookieDecision decision;
  };
  for (const Case& c : {
           Case{"__Secure-a=b; Secure; Domain=store.example", Stored},
           Case{"__Secure-a=b", PrefixRule},
           Case{"__sEcUrE-a=b", PrefixRule},
           Case{"__Host-a=b; Secure; Path=/", Stored},
           Case{"__HOST-a=b; Secure; Path=/", Stored},
           Case{"__Host-a=b; Path=/", PrefixRule},
           Case{"__host-a=b; Secure", PrefixRule},
           Case{"__Host-a=b; Secure; Path=/shop", PrefixRule},
           Case{"__Host-a=b; Secure; Path=/; Domain=store.example", PrefixRule},
           Case{"=__Host-a=b; Secure; Path=/", PrefixRule},
           Case{"__Secure-a; Secure", PrefixRule},
           Case{"a__Host-=b", Stored},
       }) {
    EXPECT_EQ(judge(c.line, "https://store.example/shop/item").decision, c.decision) << c.line;
  }
}

TEST(CookiePolicy, AsksForASecureOrigin) {
  EXPECT_EQ(judge("a=b; Secure", "https://store.example/").decision, CookieDecision::Stored);
  EXPECT_EQ(judge("a=b; Secure", "http://store.example/").decision, CookieDecision::InsecureOrigin);
  // Schemes are compared as they are written.
  EXPECT_EQ(judge("a=b; Secure", "HTTPS://store.example/").decision,
            CookieDecision::InsecureOrigin);
  EXPECT_EQ(judge("a=b; SameSite=None", "https://store.example/").decision,
            CookieDecision::SameSiteRule);
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
        "a=b; Max-Age=0; Expires=Fri, 31 Dec 9999 23:59:59 GMT"}) {
    EXPECT_EQ(judge(line, "http://store.example/").decision, CookieDecision::Removed) << line;
  }
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
