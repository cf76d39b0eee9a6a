#include "src/BagPolicy.h"

#include <gtest/gtest.h>

namespace tallow {
namespace {

URL url(const char* text) {
  return *URL::parse(text);
}

TEST(BagPolicy, TrustIsASuffixOfTheHostThatWouldBeFetchedWithoutLabelBoundary) {
  const struct {
    Value domains;
    std::vector<const char*> trusted, refused;
  } cases[] = {
      {Array{7, "store.example.com"},
       {"https://store.example.com/a", "http://eu.store.example.com/",
        "http://mystore.example.com/"},
       {"https://store.example.com.evil.net/", "https://STORE.EXAMPLE.COM/"}},
      {Array{".example.com"},
       {"https://a.example.com/"},
       {"https://example.com/", "https://badexample.com/", "https://a.example.com@evil.net/",
        "https://evil.net/?.example.com", "https://evil.net#.example.com"}},
      {Array{""}, {}, {"https://example.com/"}},  // nothing is no suffix
      {"example.com", {}, {"https://example.com/"}},
      {Value(), {"data:text/plain,x"}, {"https://example.com/"}},
  };
  for (const auto& [domains, trusted, refused] : cases) {
    const Dictionary bag{{"trustedDomains", domains}};
    for (const char* each : trusted) EXPECT_TRUE(BagPolicy::urlIsTrusted(bag, url(each))) << each;
    for (const char* each : refused) EXPECT_FALSE(BagPolicy::urlIsTrusted(bag, url(each))) << each;
  }
}

TEST(BagPolicy, AnonymousMachineDataGoesToHostsLikeThePatterns) {
  const Dictionary bag{{"amd-domains", Array{3, "*.example.com", "p?-buy.example.net"}}};
  const std::pair<const char*, bool> cases[] = {{"https://A.B.EXAMPLE.COM/", true},
                                                {"https://p3-buy.example.net/", true},
                                                {"https://example.com/", false},
                                                {"https://p33-buy.example.net/", false}};
  for (const auto& [text, isAsked] : cases)
    EXPECT_EQ(BagPolicy::urlRequiresAMD(bag, url(text)), isAsked) << text;
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
  const auto rules = [](Dictionary dictionary) { return Dictionary{{"guid-urls", dictionary}}; };
  const auto sends = [](const Dictionary& bag, const char* to = "https://example.com/a") {
    return BagPolicy::sendGUIDWithURL(bag, url(to));
  };
  EXPECT_TRUE(sends({}));
  EXPECT_FALSE(sends({}, "http://example.com/a"));
  EXPECT_FALSE(sends({}, "HTTPS://example.com/a"));
  EXPECT_TRUE(sends({{"guid-urls", 1}}));
  EXPECT_FALSE(sends(rules({{"schemes", Array{"https"}}})));
  EXPECT_TRUE(
      sends(rules({{"schemes", Array{4, "https"}}, {"regex", Array{9, "(", "EXAMPLE\\.com/a"}}})));
  EXPECT_FALSE(sends(rules({{"schemes", Array{"ftp"}}, {"regex", Array{"."}}})));
  EXPECT_TRUE(sends(rules({{"schemes", 1}, {"regex", Array{"."}}})));
}

}  // namespace
}  // namespace tallow
