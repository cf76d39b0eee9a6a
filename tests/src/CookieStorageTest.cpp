#include "src/CookieStorage.h"

#include <fstream>

#include "platform/VendBase/DefaultsKeys.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

class CookieStorageTest : public ServiceTest {
 protected:
  std::shared_ptr<CookieStorage> storage() { return CookieStorage::storageForClient(client); }
  void consume(const Value& setCookie, const char* from = "https://www.example.com/a/b") {
    storage()->consumeCookiesWithHTTPHeaders(Dictionary{{"Set-Cookie", setCookie}},
                                             URL::parse(from));
  }
  Value cookiesFor(const char* url) {
    return storage()->httpHeadersForURL(URL::parse(url))["Cookie"];
  }
};

TEST_F(CookieStorageTest, ResponseCookiesAreKeptOnDiskAndInvalidateTheBagButDeletingDoesNot) {
  world.serve({{"a", 1}});
  bag()->valueForKey("a");
  ASSERT_TRUE(bag()->isValid());
  const auto page = URL::parse("https://www.example.com/");
  storage()->consumeCookiesWithHTTPHeaders(Dictionary{{"Content-Type", "x"}}, page);
  storage()->consumeCookiesWithHTTPHeaders(std::nullopt, page);
  consume("x=1; Domain=elsewhere.net");
  EXPECT_TRUE(bag()->isValid()) << "nothing was stored";
  consume(Array{"a=1; Path=/", "b=2; Path=/; Secure; Max-Age=60"});
  EXPECT_FALSE(bag()->isValid());

  ServiceWorld::forgetControllers();
  EXPECT_EQ(cookiesFor("https://www.example.com/"), Value("a=1; b=2"));
  world.clock.advance(61);
  EXPECT_EQ(cookiesFor("https://www.example.com/"), Value("a=1"));

  consume("c=1; Path=/; Max-Age=60");
  bag()->valueForKey("a");
  storage()->deleteAllCookies();
  EXPECT_TRUE(bag()->isValid());
  ServiceWorld::forgetControllers();
  EXPECT_TRUE(cookiesFor("https://www.example.com/").isNil());
}

TEST_F(CookieStorageTest, SecureCookiesGoToExactlyHTTPSAndOfOneNameTheLaterOneGoes) {
  consume(Array{"a=1; Path=/", "s=2; Path=/; Secure"});
  EXPECT_EQ(cookiesFor("https://www.example.com/"), Value("a=1; s=2"));
  EXPECT_EQ(cookiesFor("http://www.example.com/"), Value("a=1"));
  EXPECT_EQ(cookiesFor("HTTPS://www.example.com/"), Value("a=1"));
  EXPECT_TRUE(storage()->httpHeadersForURL(std::nullopt).empty());
  EXPECT_TRUE(storage()->httpHeadersForURL(URL::parse("https://other.net/")).empty());
  storage()->deleteAllCookies();
  consume(Array{"n=deep; Path=/a", "n=root; Path=/", "m=1; Path=/a"});
  EXPECT_EQ(cookiesFor("https://www.example.com/a"), Value("m=1; n=root"));
}

TEST_F(CookieStorageTest, MediaClientsAlsoReadTheGroupsJar) {
  const auto group = CookieJar::sharedForGroupContainer("com.vantor.Harlow");
  ASSERT_NE(group, nullptr);
  const URL url = *URL::parse("https://www.example.com/");
  group->setCookies({*parseSetCookie("only=g; Path=/; Max-Age=10"),
                     *parseSetCookie("later=g; Path=/; Max-Age=100"),
                     *parseSetCookie("sooner=g; Path=/; Max-Age=10")},
                    url);
  const Array own{"later=o; Path=/; Max-Age=50", "sooner=o; Path=/; Max-Age=50"};
  consume(own);
  EXPECT_EQ(cookiesFor("https://www.example.com/"), Value("later=o; sooner=o"));
  client = ServiceWorld::client("com.example.media", kHSStoreClientTypeMediaStore);
  consume(own);
  EXPECT_EQ(cookiesFor("https://www.example.com/"), Value("later=g; sooner=o; only=g"));
}

TEST_F(CookieStorageTest, OneResponseBringsSoManyCookiesAndNoMore) {
  std::string many = "first=1";
  for (int i = 0; i < 500'000; ++i) many += ",a=";
  consume(many + ",last=1");
  EXPECT_EQ(storage()->cookieCount(), 2u);
  EXPECT_TRUE(
      world.log.contains(1, "CookieStorage: Taking only the first 1024 cookies of a response"));
}

TEST_F(CookieStorageTest, FoldersAndFilesThatDoNotOpen) {
  client->appPreferencesDomain = "../escape";
  EXPECT_EQ(storage(), nullptr);
  EXPECT_TRUE(world.log.contains(1, "CookieStorage: Failed to initialize cookie store"));
  std::filesystem::create_directories(world.directories.dataHome);
  std::filesystem::remove_all(world.directories.dataHome / "Cookies");
  std::ofstream(world.directories.dataHome / "Cookies") << "in the way";
  client = ServiceWorld::client("com.example.other");
  ASSERT_NE(storage(), nullptr);
  consume("a=1");
  EXPECT_TRUE(cookiesFor("https://www.example.com/a/b").isNil());
}

TEST_F(CookieStorageTest, TheWhitelistIsAQueryOnly) {
  EXPECT_TRUE(CookieStorage::_defaultCookieIsWhitelistedWithName("xp_ci"));
  EXPECT_FALSE(CookieStorage::_defaultCookieIsWhitelistedWithName("XP_CI"));
  EXPECT_FALSE(CookieStorage::_defaultCookieIsWhitelistedWithName(std::nullopt));
}

}  // namespace
}  // namespace tallow
