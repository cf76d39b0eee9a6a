#include "platform/Cookies/CookieJar.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "tests/platform/Cookies/JarFixture.h"

namespace tallow {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;

class CookieJarTest : public JarFixture {
 protected:
  // "c0=x" ... in one response.
  static std::vector<ParsedCookie> numbered(int first, int last, std::string_view attributes = "") {
    std::vector<ParsedCookie> cookies;
    for (int i = first; i < last; ++i)
      cookies.push_back(*parseSetCookie("c" + std::to_string(i) + "=x" + std::string(attributes)));
    return cookies;
  }

  std::unique_ptr<CookieJar> jar = open();
};

TEST_F(CookieJarTest, SendsHostAndDomainCookiesWhereTheyBelong) {
  setCookies(*jar, "http://www.store.example/", {"host=1", "domain=2; Domain=store.example"});
  EXPECT_EQ(header(*jar, "http://www.store.example/"), "host=1; domain=2");
  EXPECT_EQ(header(*jar, "http://WWW.STORE.EXAMPLE./"), "host=1; domain=2");
  EXPECT_EQ(header(*jar, "http://store.example/"), "domain=2");
  EXPECT_EQ(header(*jar, "http://a.b.store.example:8080/"), "domain=2");
  EXPECT_EQ(header(*jar, "http://a.www.store.example/"), "domain=2");
  EXPECT_EQ(header(*jar, "http://bookstore.example/"), "");
  EXPECT_EQ(header(*jar, "http://example/"), "");

  setCookie(*jar, "local=3", "http://127.0.0.1:8080/");
  setCookie(*jar, "name=4", "http://localhost/");
  EXPECT_EQ(header(*jar, "http://127.0.0.1/"), "local=3");
  EXPECT_EQ(header(*jar, "http://localhost:99/"), "name=4");
  EXPECT_EQ(header(*jar, "http://www.localhost/"), "");
}

TEST_F(CookieJarTest, OrdersByPathThenAge) {
  setCookies(*jar, "http://www.store.example/", {"old=1; Path=/", "long=2; Path=/shop/item"});
  clock.advance(-1000);  // the order is that of creation, not of the clock
  jar->setCookies({*parseSetCookie("young=3; Path=/; Domain=store.example"),
                   *parseSetCookie("middle=4; Path=/shop; Domain=store.example"),
                   *parseSetCookie("youngest=5; Path=/")},
                  url("http://www.store.example/"));
  setCookie(*jar, "old=6; Path=/", "http://www.store.example/");  // keeps its place
  EXPECT_EQ(header(*jar, "http://www.store.example/shop/item/9"),
            "long=2; middle=4; old=6; young=3; youngest=5");
  EXPECT_EQ(header(*jar, "http://www.store.example/shopping"), "old=6; young=3; youngest=5");
  EXPECT_EQ(jar->cookiesForURL(url("http://www.store.example/"), false).front()->creationDate,
            Date{1'700'000'000});
}

TEST_F(CookieJarTest, TellsCookiesApartByNameDomainPathAndScope) {
  setCookies(*jar, "http://store.example/",
             {"a=1", "a=2; Domain=store.example", "a=3; Path=/x", "A=4", "nameless"});
  EXPECT_EQ(header(*jar, "http://store.example/x"), "a=3; a=1; a=2; A=4; nameless");
  EXPECT_EQ(jar->count(), 5U);
  EXPECT_EQ(setCookie(*jar, "a=; Max-Age=0", "http://store.example/"), CookieDecision::Removed);
  EXPECT_EQ(header(*jar, "http://store.example/x"), "a=3; a=2; A=4; nameless");
}

TEST_F(CookieJarTest, ForgetsWhatExpires) {
  setCookies(
      *jar, "http://store.example/",
      {"short=1; Max-Age=10", "long=2; Max-Age=100; HttpOnly; SameSite=Strict", "session=3"});
  clock.advance(9);
  EXPECT_EQ(header(*jar, "http://store.example/"), "short=1; long=2; session=3");
  clock.advance(1);
  EXPECT_EQ(header(*jar, "http://store.example/"), "long=2; session=3");
  EXPECT_EQ(jar->count(), 2U);
}

TEST_F(CookieJarTest, LeavesSecureCookiesAlone) {
  setCookie(*jar, "a=secure; Secure; Domain=store.example; Path=/shop",
            "https://www.store.example/");
  EXPECT_EQ(header(*jar, "https://store.example/shop"), "a=secure");
  EXPECT_EQ(header(*jar, "http://store.example/shop"), "");
  EXPECT_EQ(header(*jar, "HTTPS://store.example/shop"), "");

  const auto fromHTTP = [&](std::string_view line, std::string_view from) {
    return setCookie(*jar, line, from);
  };
  using enum CookieDecision;
  EXPECT_EQ(fromHTTP("a=1; Path=/shop", "http://store.example/"), InsecureOrigin);
  EXPECT_EQ(fromHTTP("a=1; Path=/shop/x", "http://www.store.example/"), InsecureOrigin);
  EXPECT_EQ(fromHTTP("a=1; Path=/shop; Max-Age=0", "http://store.example/"), InsecureOrigin);
  EXPECT_EQ(fromHTTP("a=1; Path=/", "http://store.example/"), Stored);
  EXPECT_EQ(fromHTTP("b=1; Path=/shop", "http://store.example/"), Stored);
  EXPECT_EQ(fromHTTP("a=1; Path=/shop", "http://bookstore.example/"), Stored);
  EXPECT_EQ(setCookie(*jar, "a=2; Path=/shop; Domain=store.example", "https://store.example/"),
            Stored);
  EXPECT_EQ(header(*jar, "http://www.store.example/shop"), "a=2");

  // A domain cookie from above would shadow the Secure cookie of a host below.
  setCookie(*jar, "s=1; Secure", "https://deep.www.store.example/");
  EXPECT_EQ(fromHTTP("s=2; Domain=store.example", "http://store.example/"), InsecureOrigin);
  EXPECT_EQ(fromHTTP("s=2", "http://deep.www.store.example/"), InsecureOrigin);
  EXPECT_EQ(fromHTTP("s=2", "http://p.www.store.example/"), Stored);
}

TEST_F(CookieJarTest, DecidesOnEachCookieOfAResponse) {
  const auto decisions = jar->setCookies(
      {*parseSetCookie("a=1"), *parseSetCookie("b=2; Domain=other.example"),
       *parseSetCookie("c=3; Secure"), *parseSetCookie("a=4"), *parseSetCookie("d=5; Max-Age=0")},
      url("http://store.example/"));
  using enum CookieDecision;
  EXPECT_THAT(decisions, ElementsAre(Stored, DomainMismatch, InsecureOrigin, Stored, Removed));
  EXPECT_EQ(header(*jar, "http://store.example/"), "a=4");
}

TEST_F(CookieJarTest, KeepsTheRecentlyUsedOfADomain) {
  EXPECT_THAT(jar->setCookies(numbered(0, 180), url("https://store.example/")),
              Each(CookieDecision::Stored));
  setCookie(*jar, "other=1; Path=/x", "https://www.store.example/");
  EXPECT_EQ(jar->count(), 181U);

  setCookies(*jar, "https://store.example/",
             {"c0=used", "c1=brief; Max-Age=5", "more=1"});  // c2 goes
  EXPECT_EQ(jar->count(), 181U);
  const std::string kept = header(*jar, "https://store.example/");
  EXPECT_NE(kept.find("c0=used; c1=brief; c3=x"), std::string::npos);

  clock.advance(5);
  setCookie(*jar, "most=1", "https://store.example/");  // c1 has expired: nothing else goes
  EXPECT_EQ(jar->count(), 181U);
  EXPECT_TRUE(header(*jar, "https://store.example/").starts_with("c0=used; c3=x; c4=x"));

  // A response with more than a domain may hold leaves its last cookies; Secure ones outlast
  // others.
  jar->setCookies(numbered(0, 90, "; Secure"), url("https://crowded.example/"));
  jar->setCookies(numbered(90, 2000), url("https://crowded.example/"));
  const auto crowd = jar->cookiesForURL(url("https://crowded.example/"), true);
  ASSERT_EQ(crowd.size(), 180U);
  EXPECT_EQ(crowd[89]->name, "c89");
  EXPECT_EQ(crowd[90]->name, "c1910");
}

TEST_F(CookieJarTest, KeepsTheRecentlyUsedOfTheJar) {
  jar = open({.cookiesPerDomain = 180, .cookiesPerJar = 50});
  for (int i = 0; i < 50; ++i)
    setCookie(*jar, "a=" + std::to_string(i), "http://h" + std::to_string(i) + ".example/");
  header(*jar, "http://h0.example/");  // being sent counts as use
  setCookie(*jar, "a=1; Max-Age=10", "http://h7.example/");
  clock.advance(10);
  setCookie(*jar, "a=new", "http://h50.example/");  // in the place of the one that expired
  EXPECT_EQ(header(*jar, "http://h1.example/"), "a=1");
  setCookie(*jar, "a=newer", "http://h51.example/");  // h2 is the least recently used now
  EXPECT_EQ(jar->count(), 50U);
  EXPECT_EQ(header(*jar, "http://h0.example/"), "a=0");
  EXPECT_EQ(header(*jar, "http://h1.example/"), "a=1");
  EXPECT_EQ(header(*jar, "http://h2.example/"), "");
  EXPECT_EQ(header(*jar, "http://h3.example/"), "a=3");
}

TEST_F(CookieJarTest, LeavesAReadersCookiesAsTheyAre) {
  setCookies(*jar, "http://store.example/", {"c0=old", "c1=old", "c2=old", "c3=old", "c4=old"});
  const auto held = jar->cookiesForURL(url("http://store.example/"), false);
  setCookies(*jar, "http://store.example/", {"c1=new", "c0=; Max-Age=0", "first=1; Path=/longer"});
  EXPECT_EQ(cookieHeaderValue(held), "c0=old; c1=old; c2=old; c3=old; c4=old");
  EXPECT_EQ(header(*jar, "http://store.example/longer"), "first=1; c1=new; c2=old; c3=old; c4=old");
  jar.reset();
  EXPECT_EQ(held[4]->value, "old");
}

}  // namespace
}  // namespace tallow
