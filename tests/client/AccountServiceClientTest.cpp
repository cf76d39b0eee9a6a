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

TEST_F(AccountServiceClientTest, AsksAndTells) {
  const Value list = Array{1, "two", Date{3.5}, Data("four"), 5.5, true};
  const Dictionary cookies{{"Cookie", "a=b; c=d"}, {"X-Test", "1"}};
  prepare = [&](FakeAccountService& service) {
    service.bag = Dictionary{{"key", list}};
    service.headers = [&](const auto&) { return cookies; };
    service.loadError = makeError("Bag", 14, "not signed");
    service.allowsGUID = [](const URL&) { return true; };
  };
  EXPECT_TRUE(*client.isValid());
  EXPECT_EQ(*client.valueForURLBagKey("key"), list);
  EXPECT_EQ(**client.dictionary(), (Dictionary{{"key", list}}));
  EXPECT_TRUE(*client.urlIsTrustedByURLBag(kURL));
  EXPECT_FALSE(*client.needsSilentOrvActionForURL(""));
  EXPECT_TRUE(*client.shouldSendGUIDWithRequestForURL(kURL));
  EXPECT_TRUE(*client.regexWithKey("pattern", "text"));
  const auto load = client.loadURLBagWithType(2);
  EXPECT_FALSE(load->valid);
  EXPECT_EQ(load->error, makeError("Bag", 14, "not signed"));
  EXPECT_EQ(*client.httpHeadersForURL(kURL, 18446744073709551615u, true), cookies);
  const Dictionary headers{{"Set-Cookie", Array{"a=b", "c=d"}}, {"Date", "today"}};
  EXPECT_FALSE(client.consumeCookiesWithHTTPHeaders(headers, kURL));
  EXPECT_EQ(service(0)->consumed().at(0).headers, headers);
  EXPECT_EQ(*client.storeFront(), std::nullopt);
  EXPECT_FALSE(client.setStoreFrontID("143441"));
  EXPECT_EQ(*client.storeFront(), "143441");
  EXPECT_FALSE(client.setStoreFrontID(std::nullopt));
  EXPECT_FALSE(client.deleteAllCookies());
  EXPECT_FALSE(client.invalidateAllBags());
  EXPECT_THAT(*client.describe(), HasSubstr("com.example.self"));
  const std::string url = kURL;
  EXPECT_THAT(
      service(0)->calls(),
      ElementsAre("isValid", "valueForURLBagKey key", "dictionary", "urlIsTrustedByURLBag " + url,
                  "needsSilentOrvActionForURL nil", "shouldSendGUIDWithRequestForURL " + url,
                  "regexWithKey pattern text", "loadURLBagWithType 2",
                  "httpHeadersForURL " + url + " 18446744073709551615 orv",
                  "consumeCookiesWithHTTPHeaders " + url, "storeFront", "setStoreFrontID 143441",
                  "storeFront", "setStoreFrontID nil", "deleteAllCookies", "invalidateAllBags"));
  EXPECT_EQ(acceptedCount(), 1u) << "one object for all calls of a connection";
  EXPECT_EQ(accepted(0).pid, getpid());
}

TEST_F(AccountServiceClientTest, TellsErrorsApartAndFindsABusThatCameBack) {
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
  prepare = nullptr;
  bus.start();
  restartService();
  EXPECT_TRUE(*client.isValid());
}

TEST_F(AccountServiceClientTest, CarriesItsIdentityAndObserverOverToAnotherService) {
  recogniseThisProcess("identifier = \"com.example.self\"\nmay-act-as-others = true");
  writeDescriptor("other.toml", "identifier = \"com.example.other\"");
  Heard<bool> updates;
  ASSERT_FALSE(client.actAs("com.example.other"));
  ASSERT_FALSE(client.observeURLBag(
      [&](bool success, const std::optional<Error>&) { updates.note(success); }));
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
  Heard<std::optional<Dictionary>> told;
  EXPECT_EQ(*client.primaryAccount(), std::nullopt);
  ASSERT_FALSE(client.observeAccounts(
      [&](const std::optional<Dictionary>& account) { told.note(account); }));
  const Dictionary answer{{"dsPersonId", kLargest}, {"identifier", "\u00e9"}, {"token", "t"}};
  const auto added = client.addAccountWithAuthenticationResponse(answer, true);
  ASSERT_TRUE(added && *added);
  EXPECT_EQ((**added)["dsid"], Value(kLargest));
  EXPECT_FALSE((*added)->contains("token"));
  EXPECT_EQ(*client.accountWithDSID(kLargest), **added);
  EXPECT_EQ(*client.accountWithDSID(kLargest - 1), std::nullopt);
  EXPECT_EQ(*client.strongToken(), "t");
  service(0)->accountObservers.at(0)->primaryAccountDidChange(service(0)->signedInAccount);
  EXPECT_EQ(told.next(), **added);
  service(0)->accountObservers.at(0)->primaryAccountDidChange(nullptr);
  EXPECT_EQ(told.next(), std::nullopt);

  const auto refused = [](const std::optional<Error>& error) {
    return error && error->code == AccountServiceClient::kInvalidArgument;
  };
  for (const Dictionary& nobodys :
       {Dictionary(), Dictionary{{"dsid", 0}}, Dictionary{{"dsid", "x"}}}) {
    EXPECT_TRUE(refused(client.addAccount(nobodys)));
    EXPECT_TRUE(refused(client.addAccountWithAuthenticationResponse(nobodys, true).error()));
  }
  EXPECT_FALSE(client.addAccount({{"dsid", kLargest}, {"identifier", std::string(2048, 'n')}}));
  EXPECT_EQ(service(0)->knownAccounts.back()->identifier()->size(), 2048u);
  const Dictionary tooLong{{"dsid", 1}, {"identifier", std::string(2049, 'n')}};
  EXPECT_TRUE(refused(client.addAccount(tooLong)));
  EXPECT_TRUE(refused(client.addAccountWithAuthenticationResponse(tooLong, true).error()));

  // Somebody signs in where nobody tells: before the new service knows of the observer.
  prepare = [known = service(0)->signedInAccount](FakeAccountService& service) {
    service.signedInAccount = known;
  };
  restartService();
  EXPECT_EQ(told.next(), **added) << "though nobody calls";
  EXPECT_THAT(service(1)->calls(), ElementsAre("addAccountStoreObserver", "primaryAccount"));
  EXPECT_FALSE(client.observeAccounts({}));
  EXPECT_TRUE(service(1)->accountObservers.empty());
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
