#include "platform/XPC/XPCListener.h"

#include <thread>

#include "tests/platform/XPC/ListenerFixture.h"

namespace tallow {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";
constexpr const char* kNoReply = "com.vantor.Error.NoReply";
constexpr const char* kURL = "https://store.example/buy?id=1";

using Strings = std::vector<std::string>;
using DSIDs = std::vector<std::uint64_t>;

TEST_F(ListenerTest, CarriesEveryOperationAndItsAnswer) {
  prepare = [](FakeAccountService& service) {
    service.bagValue = Dictionary{{"a", 1}};
    service.headers = Dictionary{{"Cookie", "a=b; c=d"}, {"X-Test", "1"}};
    service.loadError = makeError("Bag", -1, "no");
  };
  TestCaller caller;
  using Values = std::vector<WireValue>;
  const auto [value] = caller.call<Values>("valueForURLBagKey", "key");
  ASSERT_EQ(value.size(), 1u);
  EXPECT_EQ(value[0].value, Value(Dictionary{{"a", 1}}));
  EXPECT_TRUE(std::get<0>(caller.call<bool>("urlIsTrustedByURLBag", kURL)));
  EXPECT_TRUE(std::get<0>(caller.call<bool>("needsSilentOrvActionForURL", kURL)));
  const auto [valid, success, error] =
      caller.call<bool, bool, std::vector<WireError>>("loadURLBagWithType", std::uint64_t{2});
  EXPECT_FALSE(valid);
  EXPECT_TRUE(success);
  ASSERT_EQ(error.size(), 1u);
  EXPECT_EQ(error[0].value, makeError("Bag", -1, "no"));
  caller.call<>("invalidateAllBags");
  EXPECT_TRUE(std::get<0>(caller.call<bool>("regexWithKey", "pattern", "text")));
  EXPECT_TRUE(std::get<0>(caller.call<bool>("isValid")));
  EXPECT_EQ(std::get<0>(caller.call<std::vector<WireDictionary>>("dictionary")).size(), 1u);
  EXPECT_TRUE(std::get<0>(caller.call<bool>("shouldSendGUIDWithRequestForURL", kURL)));
  caller.call<>("consumeCookiesWithHTTPHeaders",
                WireDictionary{{{"Set-Cookie", Array{"a=b", "c=d"}}}, {}, 0}, kURL);
  EXPECT_EQ(service(0)->consumedHeaders, (Dictionary{{"Set-Cookie", Array{"a=b", "c=d"}}}));
  const auto [headers] = caller.call<WireHeaders>("httpHeadersForURL", kURL, DSIDs{7}, true);
  EXPECT_EQ(headers.value, service(0)->headers);
  caller.call<>("deleteAllCookies");
  EXPECT_EQ(std::get<0>(caller.call<Strings>("storeFront")), Strings{});
  caller.call<>("setStoreFrontID", Strings{"143441-1,17"});
  EXPECT_EQ(std::get<0>(caller.call<Strings>("storeFront")), Strings{"143441-1,17"});
  caller.call<>("setStoreFrontID", Strings{});
  EXPECT_THAT(service(0)->calls(),
              ElementsAre("valueForURLBagKey key", "urlIsTrustedByURLBag " + std::string(kURL),
                          "needsSilentOrvActionForURL " + std::string(kURL), "loadURLBagWithType 2",
                          "invalidateAllBags", "regexWithKey pattern text", "isValid", "dictionary",
                          "shouldSendGUIDWithRequestForURL " + std::string(kURL),
                          "consumeCookiesWithHTTPHeaders " + std::string(kURL),
                          "httpHeadersForURL " + std::string(kURL) + " 7 orv", "deleteAllCookies",
                          "storeFront", "setStoreFrontID 143441-1,17", "storeFront",
                          "setStoreFrontID nil"));
  EXPECT_EQ(acceptedCount(), 1u);  // one object for all calls of a connection
  EXPECT_EQ(accepted(0).pid, getpid());
  EXPECT_EQ(accepted(0).storeClient->identifier, "com.example.self");
}

TEST_F(ListenerTest, TakesAURLThatDoesNotParseForNil) {
  TestCaller caller;
  for (const char* text : {"", "not a url", "https://", "http://[::1", "https://a b/"})
    EXPECT_FALSE(std::get<0>(caller.call<bool>("urlIsTrustedByURLBag", text))) << text;
}

TEST_F(ListenerTest, RefusesArgumentsOutsideTheirDomainByName) {
  TestCaller caller;
  EXPECT_THAT(caller.errorOn(kServiceInterface, "httpHeadersForURL", kURL, DSIDs{1, 2}, false),
              testing::Pair(kInvalidArgs, HasSubstr("forDSID")));
  EXPECT_THAT(caller.errorOn(kServiceInterface, "setStoreFrontID", Strings{"1", "2"}),
              testing::Pair(kInvalidArgs, HasSubstr("storeFrontID")));
  EXPECT_THAT(caller.errorOn(kServiceInterface, "valueForURLBagKey", std::string(2 << 20, 'k')),
              testing::Pair(kInvalidArgs, HasSubstr("key")));
  EXPECT_THAT(caller.errorOn(kServiceInterface, "regexWithKey", "k", std::string(2 << 20, 's')),
              testing::Pair(kInvalidArgs, HasSubstr("matchesString")));
  EXPECT_EQ(caller.errorOf("isValid", "too much"), kInvalidArgs);
  EXPECT_EQ(caller.errorOf("urlIsTrustedByURLBag", 7), kInvalidArgs);
  EXPECT_EQ(service(0)->calls().size(), 0u);
}

TEST_F(ListenerTest, RefusesAProcessThatNoDescriptorNames) {
  writeDescriptor("self.toml", "");
  TestCaller caller;
  const auto [name, text] = caller.errorOn(kServiceInterface, "isValid");
  EXPECT_EQ(name, kAccessDenied);
  EXPECT_THAT(text, HasSubstr(std::filesystem::read_symlink("/proc/self/exe").string()));
  EXPECT_EQ(caller.errorOf("deleteAllCookies"), kAccessDenied);
  EXPECT_EQ(caller.errorOf("httpHeadersForURL", kURL, DSIDs{1, 2}, false), kAccessDenied);
  EXPECT_EQ(caller.errorOn("com.vantor.HSServiceRemoteObject", "actAs", "x").first, kAccessDenied);
  EXPECT_EQ(caller.errorOn("com.vantor.tallowd.Status", "Describe").first, kAccessDenied);
  EXPECT_EQ(caller.errorOn("org.freedesktop.DBus.Peer", "Ping").first, "");
  EXPECT_EQ(acceptedCount(), 0u);
}

TEST_F(ListenerTest, TakesUpAChangedDescriptorAtTheNextConnection) {
  TestCaller before;
  before.call<bool>("isValid");
  writeDescriptor("self.toml",
                  "identifier = \"com.example.changed\"\nrequired-bag-type = "
                  "\"sandbox\"\n" +
                      recognisingThisProcess());
  before.call<bool>("isValid");
  TestCaller after;
  after.call<bool>("isValid");
  ASSERT_EQ(acceptedCount(), 2u);
  EXPECT_EQ(accepted(0).storeClient->identifier, "com.example.self");
  EXPECT_EQ(accepted(1).storeClient->identifier, "com.example.changed");
  EXPECT_EQ(accepted(1).storeClient->requiredBagType, 2u);
}

TEST_F(ListenerTest, TellsACallerWhoseReplyIsDropped) {
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  std::thread dropper([this] {
    while (acceptedCount() == 0) std::this_thread::yield();
    service(0)->waitForCalls(1);
    service(0)->dropKept();
  });
  TestCaller caller;
  EXPECT_EQ(caller.errorOf("isValid"), kNoReply);
  dropper.join();
}

}  // namespace
}  // namespace tallow
