#include "client/AccountServiceClient.h"

#include <future>
#include <thread>

#include "tests/platform/XPC/ListenerFixture.h"

namespace tallow {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kURL = "https://store.example/";

class AccountServiceClientTest : public ListenerTest {
 protected:
  // Ends the service and starts another one, as a crash and the next activation would.
  void restartService() {
    listener->stop();
    listener = XPCListener::initWithMachServiceName(kServiceName, XPCListener::Bus::Session);
    listener->setDelegate(this);
    ASSERT_FALSE(listener->resume());
  }

  AccountServiceClient client{AccountServiceClient::Instance::Agent};
};

// What an observer hears, one after the other.
class Updates {
 public:
  AccountServiceClient::BagObserver observer() {
    return [this](bool success, const std::optional<Error>&) {
      const std::lock_guard lock(_mutex);
      _heard.push_back(success);
      _changed.notify_all();
    };
  }
  bool next() {
    std::unique_lock lock(_mutex);
    _changed.wait(lock, [&] { return !_heard.empty(); });
    const bool success = _heard.front();
    _heard.pop_front();
    return success;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  std::deque<bool> _heard;
};

TEST_F(AccountServiceClientTest, AsksAndTells) {
  prepare = [](FakeAccountService& service) {
    service.bagValue = Dictionary{{"list", Array{1, "two", Date{3.5}, Data("four"), 5.5, true}}};
    service.headers = Dictionary{{"Cookie", "a=b"}};
    service.loadError = makeError("Bag", 14, "not signed");
  };
  EXPECT_TRUE(*client.isValid());
  EXPECT_EQ(*client.valueForURLBagKey("key"), service(0)->bagValue);
  EXPECT_EQ(**client.dictionary(), *service(0)->bagValue.dictionary());
  EXPECT_TRUE(*client.urlIsTrustedByURLBag(kURL));
  EXPECT_FALSE(*client.needsSilentOrvActionForURL(""));
  EXPECT_TRUE(*client.shouldSendGUIDWithRequestForURL(kURL));
  EXPECT_TRUE(*client.regexWithKey("pattern", "text"));
  const auto load = client.loadURLBagWithType(2);
  EXPECT_FALSE(load->valid);
  EXPECT_EQ(load->error, makeError("Bag", 14, "not signed"));
  EXPECT_EQ(*client.httpHeadersForURL(kURL, 18446744073709551615u, true), service(0)->headers);
  const Dictionary headers{{"Set-Cookie", Array{"a=b", "c=d"}}, {"Date", "today"}};
  EXPECT_FALSE(client.consumeCookiesWithHTTPHeaders(headers, kURL));
  EXPECT_EQ(service(0)->consumedHeaders, headers);
  EXPECT_EQ(*client.storeFront(), std::nullopt);
  EXPECT_FALSE(client.setStoreFrontID("143441"));
  EXPECT_EQ(*client.storeFront(), "143441");
  EXPECT_FALSE(client.deleteAllCookies());
  EXPECT_FALSE(client.invalidateAllBags());
  EXPECT_THAT(*client.describe(), HasSubstr("com.example.self"));
  EXPECT_EQ(acceptedCount(), 1u);
}

TEST_F(AccountServiceClientTest, TellsErrorsApart) {
  const auto code = [](const auto& result) { return result.error().code; };
  EXPECT_EQ(client.actAs("com.example.nobody")->code, AccountServiceClient::kRefused);
  EXPECT_EQ(code(client.valueForURLBagKey(std::string(2 << 20, 'k'))),
            AccountServiceClient::kInvalidArgument);
  prepare = [](FakeAccountService& service) { service.keepAnswers(true); };
  AccountServiceClient dropped(AccountServiceClient::Instance::Agent);
  std::thread dropper([this] {
    service(1)->waitForCalls(1);
    service(1)->dropKept();
  });
  const auto unanswered = dropped.isValid();
  dropper.join();
  EXPECT_EQ(code(unanswered), AccountServiceClient::kFailed);
  EXPECT_EQ(unanswered.error().userInfo[AccountServiceClient::kErrorNameKey],
            "com.vantor.Error.NoReply");

  listener->stop();
  EXPECT_EQ(code(client.isValid()), AccountServiceClient::kUnreachable);
  bus.stop();
  EXPECT_EQ(code(client.isValid()), AccountServiceClient::kUnreachable);
  EXPECT_EQ(code(AccountServiceClient(AccountServiceClient::Instance::Agent).isValid()),
            AccountServiceClient::kUnreachable);
}

TEST_F(AccountServiceClientTest, CarriesItsIdentityAndObserverOverToAnotherService) {
  writeDescriptor("self.toml", "identifier = \"com.example.self\"\nmay-act-as-others = true\n" +
                                   recognisingThisProcess());
  writeDescriptor("other.toml", "identifier = \"com.example.other\"");
  Updates updates;
  ASSERT_FALSE(client.actAs("com.example.other"));
  ASSERT_FALSE(client.observeURLBag(updates.observer()));
  const std::size_t before = acceptedCount();
  EXPECT_EQ(accepted(before - 1).storeClient->identifier, "com.example.other");
  service(before - 1)->observers.at(0)->urlBagDidUpdateWithSuccess(true, std::nullopt);
  EXPECT_TRUE(updates.next());

  restartService();
  // Nobody calls; the observer is there all the same.
  const auto again = service(before + 1);
  again->waitForCalls(1);
  EXPECT_THAT(again->calls(), ElementsAre("addURLBagObserver"));
  EXPECT_EQ(accepted(before + 1).storeClient->identifier, "com.example.other");
  again->observers.at(0)->urlBagDidUpdateWithSuccess(false, std::nullopt);
  EXPECT_FALSE(updates.next());
  EXPECT_TRUE(*client.isValid());
  EXPECT_FALSE(client.observeURLBag({}));
}

TEST_F(AccountServiceClientTest, CarriesAccountsWithoutTheirTokens) {
  constexpr std::uint64_t kLargest = 18446744073709551615u;
  std::mutex lock;
  std::condition_variable changed;
  std::deque<std::optional<Dictionary>> told;
  const auto next = [&] {
    std::unique_lock waiting(lock);
    changed.wait(waiting, [&] { return !told.empty(); });
    auto first = told.front();
    told.pop_front();
    return first;
  };
  EXPECT_EQ(*client.primaryAccount(), std::nullopt);
  ASSERT_FALSE(client.observeAccounts([&](const std::optional<Dictionary>& account) {
    const std::lock_guard guard(lock);
    told.push_back(account);
    changed.notify_all();
  }));
  const Dictionary answer{{"dsPersonId", kLargest}, {"identifier", "\u00e9"}, {"token", "t"}};
  const auto added = client.addAccountWithAuthenticationResponse(answer, true);
  ASSERT_TRUE(added && *added);
  EXPECT_EQ((**added)["dsid"], Value(kLargest));
  EXPECT_FALSE((*added)->contains("token"));
  EXPECT_EQ(*client.accountWithDSID(kLargest), **added);
  EXPECT_EQ(*client.accountWithDSID(kLargest - 1), std::nullopt);
  EXPECT_EQ(*client.strongToken(), "t");
  service(0)->accountObservers.at(0)->primaryAccountDidChange(service(0)->account);
  EXPECT_EQ(next(), **added);
  service(0)->accountObservers.at(0)->primaryAccountDidChange(nullptr);
  EXPECT_EQ(next(), std::nullopt);

  const auto refused = [](const std::optional<Error>& error) {
    return error && error->code == AccountServiceClient::kInvalidArgument;
  };
  for (const Dictionary& nobodys :
       {Dictionary(), Dictionary{{"dsid", 0}}, Dictionary{{"dsid", "x"}}}) {
    EXPECT_TRUE(refused(client.addAccount(nobodys)));
    EXPECT_TRUE(refused(client.addAccountWithAuthenticationResponse(nobodys, true).error()));
  }
  EXPECT_FALSE(client.addAccount({{"dsid", kLargest}, {"identifier", std::string(4096, 'n')}}));
  EXPECT_EQ(service(0)->account->identifier()->size(), 4096u);
  const Dictionary tooLong{{"dsid", 1}, {"identifier", std::string(4097, 'n')}};
  EXPECT_TRUE(refused(client.addAccount(tooLong)));
  EXPECT_TRUE(refused(client.addAccountWithAuthenticationResponse(tooLong, true).error()));

  restartService();
  service(1)->waitForCalls(1);
  EXPECT_THAT(service(1)->calls(), ElementsAre("addAccountStoreObserver")) << "though nobody calls";
  EXPECT_FALSE(client.observeAccounts({}));
  EXPECT_TRUE(service(1)->accountObservers.empty());
}

TEST_F(AccountServiceClientTest, FindsABusThatCameBack) {
  EXPECT_TRUE(*client.isValid());
  bus.stop();
  EXPECT_FALSE(client.isValid());
  bus.start();
  restartService();
  EXPECT_TRUE(*client.isValid());
}

TEST_F(AccountServiceClientTest, ServesSeveralThreadsAtOnce) {
  EXPECT_TRUE(*client.isValid());
  service(0)->keepAnswers(true);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) threads.emplace_back([this] { EXPECT_TRUE(*client.isValid()); });
  service(0)->waitForCalls(9);  // none waits for another
  service(0)->answerKept();
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace tallow
