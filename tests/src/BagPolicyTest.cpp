#include "src/BagPolicy.h"

#include <gtest/gtest.h>

namespace tallow {
namespace {

URL url(const char* text) {
  return *URL::parse(text);
}

TEST(BagPolicy, TrustIsASuffixOfTheHostWithoutLabelBoundary) {
  const Dictionary bag{{"trustedDomains", Array{7, "store.example.com"}}};
  EXPECT_TRUE(BagPolicy::urlIsTrusted(bag, url("https://store.example.com/a")));
  EXPECT_TRUE(BagPolicy::urlIsTrusted(bag, url("http://eu.store.example.com/")));
  EXPECT_TRUE(BagPolicy::urlIsTrusted(bag, url("http://mystore.example.com/")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url("https://store.example.com.evil.net/")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url("https://STORE.EXAMPLE.COM/")));
  const Dictionary dotted{{"trustedDomains", Array{".example.com"}}};
  EXPECT_FALSE(BagPolicy::urlIsTrusted(dotted, url("https://example.com/")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted(dotted, url("https://badexample.com/")));
  EXPECT_TRUE(BagPolicy::urlIsTrusted(dotted, url("https://a.example.com/")));
}

TEST(BagPolicy, TrustReadsTheHostThatWouldBeFetched) {
  const Dictionary bag{{"trustedDomains", Array{".example.com"}}};
  EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url("https://a.example.com@evil.net/")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url("https://evil.net/?.example.com")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url("https://evil.net#.example.com")));
  for (const char* text : {"https://evil.net\\.example.com/", "https://evil.net\t.example.com/"}) {
    const auto parsed = URL::parse(text);
    EXPECT_TRUE(!parsed || parsed->host().find("evil.net") != 0 ||
                !BagPolicy::urlIsTrusted(bag, *parsed))
        << text;
  }
}

TEST(BagPolicy, DataURLsAreTrustedAndWrongTypesTrustNothing) {
  EXPECT_TRUE(BagPolicy::urlIsTrusted({}, url("data:text/plain,x")));
  EXPECT_FALSE(BagPolicy::urlIsTrusted({}, url("https://example.com/")));
  EXPECT_FALSE(
      BagPolicy::urlIsTrusted({{"trustedDomains", Array{""}}}, url("https://example.com/")))
      << "nothing is no suffix";
  EXPECT_FALSE(
      BagPolicy::urlIsTrusted({{"trustedDomains", "example.com"}}, url("https://example.com/")));
}

TEST(BagPolicy, AnonymousMachineDataGoesToHostsLikeThePatterns) {
  const Dictionary bag{{"amd-domains", Array{3, "*.example.com", "p?-buy.example.net"}}};
  EXPECT_TRUE(BagPolicy::urlRequiresAMD(bag, url("https://A.B.EXAMPLE.COM/")));
  EXPECT_TRUE(BagPolicy::urlRequiresAMD(bag, url("https://p3-buy.example.net/")));
  EXPECT_FALSE(BagPolicy::urlRequiresAMD(bag, url("https://example.com/")));
  EXPECT_FALSE(BagPolicy::urlRequiresAMD(bag, url("https://p33-buy.example.net/")));
  EXPECT_FALSE(BagPolicy::urlRequiresAMD({{"amd-domains", "*"}}, url("https://example.com/")));
}

TEST(BagPolicy, AccountMachineDataGoesToTheNamedURLsUpToTheirQuery) {
  const Dictionary bag{{"buyProduct", "https://buy.example.com/buy?x=1"}, {"downloads-url", 5}};
  EXPECT_TRUE(BagPolicy::urlRequiresMD(bag, url("https://buy.example.com/buy?y=2")));
  EXPECT_TRUE(BagPolicy::urlRequiresMD(bag, url("https://buy.example.com/buy")));
  EXPECT_FALSE(BagPolicy::urlRequiresMD(bag, url("https://buy.example.com/buy/")));
  EXPECT_FALSE(BagPolicy::urlRequiresMD(bag, url("https://buy.example.com/BUY")));
  // A list in the bag takes the place of the default one.
  const Dictionary own = bag.setting("md-data-requested", Array{1, "renew"})
                             .setting("renew", "https://buy.example.com/renew");
  EXPECT_FALSE(BagPolicy::urlRequiresMD(own, url("https://buy.example.com/buy")));
  EXPECT_TRUE(BagPolicy::urlRequiresMD(own, url("https://buy.example.com/renew?a")));
}

TEST(BagPolicy, GUIDRules) {
  const URL https = url("https://example.com/a");
  EXPECT_TRUE(BagPolicy::sendGUIDWithURL({}, https));
  EXPECT_FALSE(BagPolicy::sendGUIDWithURL({}, url("http://example.com/a")));
  EXPECT_FALSE(BagPolicy::sendGUIDWithURL({}, url("HTTPS://example.com/a")));
  const auto rules = [](Dictionary dictionary) { return Dictionary{{"guid-urls", dictionary}}; };
  EXPECT_TRUE(BagPolicy::sendGUIDWithURL({{"guid-urls", 1}}, https));
  EXPECT_FALSE(BagPolicy::sendGUIDWithURL(rules({{"schemes", Array{"https"}}}), https));
  EXPECT_TRUE(BagPolicy::sendGUIDWithURL(
      rules({{"schemes", Array{4, "https"}}, {"regex", Array{9, "(", "EXAMPLE\\.com/a"}}}), https));
  EXPECT_FALSE(
      BagPolicy::sendGUIDWithURL(rules({{"schemes", Array{"ftp"}}, {"regex", Array{"."}}}), https));
  EXPECT_TRUE(BagPolicy::sendGUIDWithURL(rules({{"schemes", 1}, {"regex", Array{"."}}}), https));
}

}  // namespace
}  // namespace tallow
