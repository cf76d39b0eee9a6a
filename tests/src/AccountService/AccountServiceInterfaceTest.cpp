#include "src/AccountService/AccountServiceInterface.h"

#include <atomic>
#include <future>

#include "tests/support/AnswerOf.h"
#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

const URL kURL = *URL::parse("https://www.example.com/");

class AccountServiceInterfaceTest : public ServiceTest {
 protected:
  template <class... Parameters, class... Arguments>
  auto ask(void (HSAccountService::*operation)(Parameters...), Arguments... arguments) {
    return answerOf(*interface, operation, std::move(arguments)...);
  }

  std::shared_ptr<AccountServiceInterface> interface =
      std::make_shared<AccountServiceInterface>(client);
};

// What a store request asks of the service, and what it hands in: on the calling thread, before the
// call returns, once the service has it all at hand; and even then not while it would mean waiting.
TEST_F(AccountServiceInterfaceTest, WhatNeedNotWaitIsAnsweredAtOnce) {
  world.serve({{"k", "v"}, {"guid-urls", Dictionary{{"regex", Array{"^https://www"}}}}});
  std::atomic<int> answers = 0;
  const auto askAll = [&] {
    answers = 0;
    const auto count = [&](const auto&...) { ++answers; };
    interface->valueForURLBagKey("k", count);
    interface->urlIsTrustedByURLBag(kURL, count);
    interface->needsSilentOrvActionForURL(kURL, count);
    interface->shouldSendGUIDWithRequestForURL(kURL, count);
    interface->primaryAccount(count);
    interface->storeFront(count);
    interface->httpHeadersForURL(kURL, std::nullopt, true, count);
    interface->consumeCookiesWithHTTPHeaders({{"Date", "today"}}, kURL, count);
    return answers.load();
  };
  askAll();
  ServiceWorld::settle();
  EXPECT_EQ(askAll(), 8);
  interface->consumeCookiesWithHTTPHeaders({{"Set-Cookie", "a=1"}}, kURL, nullptr);
  ServiceWorld::settle();
  interface->invalidateAllBags(nullptr);
  ServiceWorld::settle();
  world.transport.hold();
  EXPECT_EQ(askAll(), 0) << "the first has to load the bag, and the others keep their order";
  world.transport.release();
  ServiceWorld::settle();
  EXPECT_EQ(answers, 8);
  bool sends = false;
  interface->shouldSendGUIDWithRequestForURL(kURL, [&](bool answer) { sends = answer; });
  EXPECT_TRUE(sends);
}

TEST_F(AccountServiceInterfaceTest, CallsOfOneCallerKeepTheirOrderAndDelayNoOther) {
  world.serve({{"k", "v"}});
  world.transport.hold();
  std::vector<int> order;
  std::promise<void> last;
  interface->valueForURLBagKey("k", [&](const Value&) { order.push_back(1); });
  world.transport.waitForRequests(1);
  interface->httpHeadersForURL(kURL, std::nullopt, false,
                               [&](const Dictionary&) { order.push_back(2); });
  interface->isValid([&](bool) {
    order.push_back(3);
    last.set_value();
  });
  const auto other =
      std::make_shared<AccountServiceInterface>(ServiceWorld::client("com.example.other"));
  EXPECT_EQ(answerOf(*other, &HSAccountService::httpHeadersForURL, kURL, std::nullopt, false),
            Dictionary());
  EXPECT_TRUE(order.empty());
  world.transport.release();
  last.get_future().wait();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(AccountServiceInterfaceTest, BagQuestions) {
  world.serve({{"k", "v"},
               {"trustedDomains", Array{"example.com"}},
               {"amd-domains", Array{"amd.example.com"}},
               {"buyProduct", "https://buy.example.com/b"},
               {"pattern", "^x"}});
  for (int pass = 0; pass < 2; ++pass) {  // first through a load, then from a valid bag
    EXPECT_EQ(ask(&HSAccountService::valueForURLBagKey, "k"), Value("v"));
    const auto asks = [&](auto operation, const char* url) {
      return ask(operation, URL::parse(url));
    };
    const auto trusted = &HSAccountService::urlIsTrustedByURLBag;
    const auto silent = &HSAccountService::needsSilentOrvActionForURL;
    const auto guid = &HSAccountService::shouldSendGUIDWithRequestForURL;
    EXPECT_TRUE(asks(trusted, "http://example.com/"));
    EXPECT_FALSE(asks(trusted, "http://example.org/"));
    EXPECT_FALSE(asks(trusted, ""));
    EXPECT_TRUE(asks(silent, "https://amd.example.com/"));
    EXPECT_TRUE(asks(silent, "https://buy.example.com/b?x"));
    EXPECT_FALSE(asks(silent, "https://example.com/"));
    EXPECT_TRUE(asks(guid, "https://example.com/"));
    EXPECT_FALSE(asks(guid, "http://example.com/"));
  }
  EXPECT_TRUE(ask(&HSAccountService::regexWithKey, "pattern", "XY"));
  EXPECT_EQ(world.transport.requests().size(), 1u);
  ask(&HSAccountService::invalidateAllBags);
  EXPECT_FALSE(ask(&HSAccountService::isValid));
}

TEST_F(AccountServiceInterfaceTest, AnAnswerAboutIdentityLooksAtTheBagOnce) {
  const auto requests = [&] { return world.transport.requests().size(); };
  // No transport: each look tries a load.
  EXPECT_FALSE(ask(&HSAccountService::needsSilentOrvActionForURL, kURL));
  EXPECT_EQ(requests(), 1u);
  EXPECT_TRUE(ask(&HSAccountService::httpHeadersForURL, kURL, std::nullopt, true).empty());
  EXPECT_EQ(requests(), 2u);
  EXPECT_FALSE(ask(&HSAccountService::needsSilentOrvActionForURL, std::nullopt));
  EXPECT_EQ(requests(), 2u) << "none for no URL";
}

TEST_F(AccountServiceInterfaceTest, LoadingAnUnknownBagTypeFailsClearly) {
  world.serve({{"k", "v"}});
  const auto load = [&](std::uint64_t type) {
    const auto [valid, success, error] = ask(&HSAccountService::loadURLBagWithType, type);
    return std::pair(valid, error);
  };
  EXPECT_EQ(load(3), std::pair(false, std::optional(makeError("AccountServiceInterface", -1,
                                                              "Failed to load bag"))));
  EXPECT_FALSE(load(2).first) << "no sandbox bag URLs";
  EXPECT_EQ(load(1), std::pair(true, std::optional<Error>()));
}

TEST_F(AccountServiceInterfaceTest, AClientWithoutIdentifierGetsNilAnswersNotSilence) {
  interface = std::make_shared<AccountServiceInterface>(std::make_shared<HSStoreClient>());
  EXPECT_TRUE(ask(&HSAccountService::valueForURLBagKey, "k").isNil());
  EXPECT_TRUE(ask(&HSAccountService::httpHeadersForURL, kURL, std::nullopt, true).empty());
  EXPECT_EQ(ask(&HSAccountService::storeFront), std::nullopt);
  ask(&HSAccountService::setStoreFrontID, "1");
}

}  // namespace
}  // namespace tallow
