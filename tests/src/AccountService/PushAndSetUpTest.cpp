#include <fstream>

#include "platform/VendBase/HSPendingReply.h"
#include "tests/src/PushFixture.h"
#include "tests/support/AnswerOf.h"

namespace tallow {
namespace {

class PushAndSetUpTest : public PushFixture {
 protected:
  void setUp(const Dictionary& response) {
    EXPECT_EQ(answerOf(*interface, &HSAccountService::completeSetupWithResponse, response),
              std::tuple(true, std::nullopt));
    settle();
  }
  std::shared_ptr<HSStoreAccount> primary() const {
    return AccountStore::accountStoreForClient(client)->primaryAccount();
  }

  std::shared_ptr<AccountServiceInterface> interface =
      std::make_shared<AccountServiceInterface>(client);
};

TEST_F(PushAndSetUpTest, AResponseBecomesThePrimaryAccountCookiesAndStorefront) {
  setUp({{"dsid", "123"},
         {"email", "a@example.com"},
         {"account-active", "1"},
         {"cookies", Array{"a=1; Path=/; Secure", "b=2; Domain=store.example.com; Path=/"}},
         {"storefront", "143441"}});
  EXPECT_EQ(primary()->dsID(), 123u);
  EXPECT_TRUE(primary()->isSignedIn());
  EXPECT_EQ(primary()->identifier(), "a@example.com");
  const auto cookieFor = [&](const char* url) {
    return CookieStorage::storageForClient(client)->httpHeadersForURL(URL::parse(url))["Cookie"];
  };
  EXPECT_EQ(cookieFor("https://store.vantor.com/"), Value("a=1"));
  EXPECT_EQ(cookieFor("http://store.example.com/"), Value("b=2"));
  const auto storefront = StoreFrontController::storefrontControllerForClient(client);
  EXPECT_EQ(storefront->storeFrontID(), "143441");
  EXPECT_TRUE(systemLines.empty());

  const std::size_t before = world.log.count(1, "BagController: Asked to invalidate all bags");
  setUp({{"dsid", 124}, {"account-active", false}});
  EXPECT_EQ(primary()->dsID(), 124u);
  EXPECT_FALSE(primary()->isSignedIn());
  EXPECT_EQ(storefront->storeFrontID(), std::nullopt);
  EXPECT_GT(world.log.count(1, "BagController: Asked to invalidate all bags"), before);
}

TEST_F(PushAndSetUpTest, WhateverIsWrongWithAResponseReachesTheSystemLogOnly) {
  const auto check = [&](const Dictionary& response, const std::vector<std::string>& lines,
                         std::optional<std::uint64_t> dsID) {
    systemLines.clear();
    setUp(response);
    EXPECT_EQ(systemLines, lines);
    EXPECT_EQ(primary()->dsID(), dsID) << description(response);
    EXPECT_EQ(primary()->identifier(), std::nullopt);
  };
  const std::string line = "AccountServiceInterface: com.example.store ";
  check({},
        {line + "dsid is unexpected type ((null))",
         line + "account-active not present in account data, assuming account is not signed in {}"},
        {});
  check({{"dsid", Array()}, {"account-active", Data("x")}},
        {line + "dsid is unexpected type (array)",
         line + "account-active is unexpected type (data), assuming account is not signed in "
                "{\"account-active\" = <78>; \"dsid\" = ()}"},
        {});
  check({{"dsid", "18x"}, {"account-active", "no"}, {"email", 5}, {"storefront", 5}}, {}, 18);
  check({{"dsid", "text"}, {"account-active", 1}, {"cookies", 7}}, {}, 0);
  std::vector<Value> thousand;
  for (int i = 0; i < 1000; ++i) thousand.emplace_back("c" + std::to_string(i) + "=1");
  setUp({{"dsid", 1}, {"account-active", 1}, {"cookies", Array(thousand)}});
  EXPECT_GT(CookieStorage::storageForClient(client)->cookieCount(), 0u);
}

TEST_F(PushAndSetUpTest, APushWithoutAStoreClientIsForTypes0And1InThatOrder) {
  const auto clients = world.directories.dataHome / "clients.d";
  std::filesystem::create_directories(clients);
  std::ofstream(clients / "agent.toml") << "identifier = \"agent\"\n";
  std::ofstream(clients / "books.toml")
      << "identifier = \"books\"\nclient-type = \"book-store-agent\"\n";
  interface = std::make_shared<AccountServiceInterface>(nullptr);
  answerOf(*interface, &HSAccountService::handlePushNotificationMessage,
           Dictionary{{"0", 0}, {"1", 2}});
  std::vector<std::string> ignored;
  for (const std::string& line : world.log.lines(1))
    if (line.ends_with("zero dsid in payload")) ignored.push_back(line.substr(0, 32));
  EXPECT_EQ(ignored, (std::vector<std::string>{"PushServiceStoreDispatch (agent)",
                                               "PushServiceStoreDispatch (books)"}));
}

TEST_F(PushAndSetUpTest, AClientWithoutAnIdentifierGetsNoReply) {
  interface = std::make_shared<AccountServiceInterface>(std::make_shared<HSStoreClient>());
  const HSPendingReply<bool> reply;
  interface->disableAutoDownload(
      [answer = reply.callback()](bool success, const std::optional<Error>&) { answer(success); });
  EXPECT_EQ(reply.wait(30), std::nullopt) << "dropped";
}

}  // namespace
}  // namespace tallow
