#include "src/AccountService/AccountServiceInterface.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "tests/support/ServiceWorld.h"

namespace tallow {
namespace {

class AccountServiceInterfaceTest : public ::testing::Test {
 protected:
  // Calls an operation and waits for its answer.
  template <class Result, class Call>
  Result answerOf(Call call) {
    auto promise = std::make_shared<std::promise<Result>>();
    call([promise](Result result) { promise->set_value(std::move(result)); });
    return promise->get_future().get();
  }
  template <class Call>
  void done(Call call) {
    auto promise = std::make_shared<std::promise<void>>();
    call([promise] { promise->set_value(); });
    promise->get_future().wait();
  }
  Dictionary headersFor(const char* url, bool identity = false) {
    return answerOf<Dictionary>([&](auto reply) {
      interface->httpHeadersForURL(URL::parse(url), std::nullopt, identity, reply);
    });
  }

  ServiceWorld world;
  std::shared_ptr<HSStoreClient> client = ServiceWorld::client();
  std::shared_ptr<AccountServiceInterface> interface =
      std::make_shared<AccountServiceInterface>(client);
};

// What a store request asks of the service, and what it hands in: on the calling thread, before the
// call returns, once the service has it all at hand; and even then not while it would mean waiting.
TEST_F(AccountServiceInterfaceTest, WhatNeedNotWaitIsAnsweredAtOnce) {
  world.serve({{"k", "v"}, {"guid-urls", Dictionary{{"regex", Array{"^https://www"}}}}});
  const auto url = URL::parse("https://www.example.com/");
  std::atomic<int> answers = 0;
  const auto askAll = [&] {
    answers = 0;
    const auto count = [&](const auto&...) { ++answers; };
    interface->valueForURLBagKey("k", count);
    interface->urlIsTrustedByURLBag(url, count);
    interface->needsSilentOrvActionForURL(url, count);
    interface->shouldSendGUIDWithRequestForURL(url, count);
    interface->primaryAccount(count);
    interface->storeFront(count);
    interface->httpHeadersForURL(url, std::nullopt, true, count);
    interface->consumeCookiesWithHTTPHeaders({{"Date", "today"}}, url, count);
    return answers.load();
  };
  askAll();
  ServiceWorld::settle();
  EXPECT_EQ(askAll(), 8);
  interface->consumeCookiesWithHTTPHeaders({{"Set-Cookie", "a=1"}}, url, nullptr);
  ServiceWorld::settle();
  interface->invalidateAllBags(nullptr);
  ServiceWorld::settle();
  world.transport.hold();
  EXPECT_EQ(askAll(), 0) << "the first has to load the bag, and the others keep their order";
  world.transport.release();
  ServiceWorld::settle();
  EXPECT_EQ(answers, 8);
  bool sends = false;
  interface->shouldSendGUIDWithRequestForURL(url, [&](bool answer) { sends = answer; });
  EXPECT_TRUE(sends);
}

TEST_F(AccountServiceInterfaceTest, CallsOfOneCallerKeepTheirOrder) {
  world.serve({{"k", "v"}});
  world.transport.hold();
  std::vector<int> order;
  std::promise<void> last;
  interface->valueForURLBagKey("k", [&](const Value&) { order.push_back(1); });
  world.transport.waitForRequests(1);
  interface->httpHeadersForURL(URL::parse("https://www.example.com/"), std::nullopt, false,
                               [&](const Dictionary&) { order.push_back(2); });
  interface->isValid([&](bool) {
    order.push_back(3);
    last.set_value();
  });
  EXPECT_TRUE(order.empty());
  world.transport.release();
  last.get_future().wait();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST_F(AccountServiceInterfaceTest, OneClientsBlockedLoadDelaysNoOther) {
  world.transport.hold();
  interface->valueForURLBagKey("k", nullptr);
  world.transport.waitForRequests(1);
  const auto other =
      std::make_shared<AccountServiceInterface>(ServiceWorld::client("com.example.other"));
  std::promise<Dictionary> headers;
  other->httpHeadersForURL(URL::parse("https://www.example.com/"), std::nullopt, false,
                           [&](Dictionary given) { headers.set_value(std::move(given)); });
  EXPECT_TRUE(headers.get_future().get().empty());
  world.transport.release();
}

TEST_F(AccountServiceInterfaceTest, BagQuestions) {
  world.serve({{"k", "v"},
               {"trustedDomains", Array{"example.com"}},
               {"amd-domains", Array{"amd.example.com"}},
               {"buyProduct", "https://buy.example.com/b"},
               {"pattern", "^x"}});
  for (int pass = 0; pass < 2; ++pass) {  // first through a load, then from a valid bag
    EXPECT_EQ(answerOf<Value>([&](auto reply) { interface->valueForURLBagKey("k", reply); }),
              Value("v"));
    const auto asks = [&](auto operation, const char* url) {
      return answerOf<bool>([&](auto reply) { ((*interface).*operation)(URL::parse(url), reply); });
    };
    using Ask =
        void (AccountServiceInterface::*)(std::optional<URL>, HSAccountService::Reply<bool>);
    const Ask trusted = &AccountServiceInterface::urlIsTrustedByURLBag;
    const Ask silent = &AccountServiceInterface::needsSilentOrvActionForURL;
    const Ask guid = &AccountServiceInterface::shouldSendGUIDWithRequestForURL;
    EXPECT_TRUE(asks(trusted, "http://example.com/"));
    EXPECT_FALSE(asks(trusted, "http://example.org/"));
    EXPECT_FALSE(asks(trusted, ""));
    EXPECT_TRUE(asks(silent, "https://amd.example.com/"));
    EXPECT_TRUE(asks(silent, "https://buy.example.com/b?x"));
    EXPECT_FALSE(asks(silent, "https://example.com/"));
    EXPECT_TRUE(asks(guid, "https://example.com/"));
    EXPECT_FALSE(asks(guid, "http://example.com/"));
  }
  EXPECT_TRUE(answerOf<bool>([&](auto reply) { interface->regexWithKey("pattern", "XY", reply); }));
  EXPECT_EQ(world.transport.requests().size(), 1u);
  done([&](auto reply) { interface->invalidateAllBags(reply); });
  EXPECT_FALSE(answerOf<bool>([&](auto reply) { interface->isValid(reply); }));
}

TEST_F(AccountServiceInterfaceTest, AnAnswerAboutIdentityLooksAtTheBagOnce) {
  const auto url = URL::parse("https://www.example.com/");  // no transport: each look tries a load
  EXPECT_FALSE(
      answerOf<bool>([&](auto reply) { interface->needsSilentOrvActionForURL(url, reply); }));
  EXPECT_EQ(world.transport.requests().size(), 1u);
  EXPECT_TRUE(headersFor("https://www.example.com/", true).empty());
  EXPECT_EQ(world.transport.requests().size(), 2u);
  EXPECT_FALSE(answerOf<bool>(
      [&](auto reply) { interface->needsSilentOrvActionForURL(std::nullopt, reply); }));
  EXPECT_EQ(world.transport.requests().size(), 2u) << "none for no URL";
}

TEST_F(AccountServiceInterfaceTest, LoadingAnUnknownBagTypeFailsClearly) {
  world.serve({{"k", "v"}});
  bool valid = true, success = true;
  std::optional<Error> error;
  const auto load = [&](std::uint64_t type) {
    std::promise<void> answered;
    interface->loadURLBagWithType(type, [&](bool v, bool s, std::optional<Error> e) {
      valid = v;
      success = s;
      error = std::move(e);
      answered.set_value();
    });
    answered.get_future().wait();
  };
  load(3);
  EXPECT_FALSE(valid);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->domain, "AccountServiceInterface");
  EXPECT_EQ(error->code, -1);
  EXPECT_EQ(error->localizedDescription(), "Failed to load bag");
  load(2);
  EXPECT_FALSE(valid) << "no sandbox bag URLs";
  load(1);
  EXPECT_TRUE(valid);
  EXPECT_FALSE(error);
}

TEST_F(AccountServiceInterfaceTest, AClientWithoutIdentifierGetsNilAnswersNotSilence) {
  interface = std::make_shared<AccountServiceInterface>(std::make_shared<HSStoreClient>());
  EXPECT_TRUE(
      answerOf<Value>([&](auto reply) { interface->valueForURLBagKey("k", reply); }).isNil());
  EXPECT_TRUE(headersFor("https://www.example.com/", true).empty());
  EXPECT_EQ(answerOf<std::optional<std::string>>([&](auto reply) { interface->storeFront(reply); }),
            std::nullopt);
  done([&](auto reply) { interface->setStoreFrontID("1", reply); });
}

}  // namespace
}  // namespace tallow
