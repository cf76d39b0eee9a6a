#include "src/AccountService/AccountStore.h"

#include <gmock/gmock.h>

#include <limits>

#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/HSStoreAccount+AccountService.h"
#include "src/BagController.h"
#include "tests/src/AccountService/AccountsFixture.h"
#include "tests/support/AnswerOf.h"

namespace tallow {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();

TEST_F(AccountsTest, ClientsOfOneTypeAndBagShareAStoreWhateverTheyAreCalled) {
  EXPECT_EQ(AccountStore::accountStoreForClient(std::make_shared<HSStoreClient>()), nullptr);
  EXPECT_TRUE(world.log.mentions(1,
                                 "AccountStore: storeForClient: called with nil "
                                 "storeClient.identifier"));
  EXPECT_EQ(AccountStore::accountStoreForClient(ServiceWorld::client("com.example.other")),
            store());
  auto sandboxed = std::make_shared<HSStoreClient>(*client);
  sandboxed->requiredBagType = kBagTypeSandbox;
  EXPECT_NE(AccountStore::accountStoreForClient(sandboxed), store());
  EXPECT_NE(AccountStore::accountStoreForClient(
                ServiceWorld::client("com.example.store", kHSStoreClientTypeBookStoreAgent)),
            store());

  const auto outfitter = ServiceWorld::client("com.example.outfitter", kHSStoreClientTypeOutfitter);
  const auto before = AccountStore::accountStoreForClient(outfitter);
  const auto changed = ServiceWorld::changed(*outfitter);
  const auto after = AccountStore::accountStoreForClient(changed);
  EXPECT_NE(after, before);
  EXPECT_EQ(AccountStore::accountStoreForClient(changed), after);
  EXPECT_TRUE(world.log.contains(1, "AccountStore: Outfitter is updated, store is switching"));
}

TEST_F(AccountsTest, AccountsAreFoundByNumberAndNameAndThePrimaryOneIsJudgedByIdentity) {
  const auto first = account(1, "A@example.com");
  const auto second = account(kLargest, "b@example.com");
  store()->addAccount(first);
  store()->addAccount(second);
  store()->addAccount(account(1, "again"));
  EXPECT_THAT(dsIDs(*store()), ElementsAre(kLargest, 1u)) << "one entry a DSID, now at the end";
  EXPECT_NE(store()->accountWithDSID(1), first);
  EXPECT_EQ(store()->accountWithDSID(kLargest), second);
  EXPECT_EQ(store()->accountWithDSID(2), nullptr);
  EXPECT_EQ(store()->accountWithDSID(std::nullopt), nullptr);
  EXPECT_EQ(store()->accountWithVantorID("b@example.com"), second);
  EXPECT_EQ(store()->accountWithVantorID("B@example.com"), nullptr);
  EXPECT_EQ(store()->accountWithVantorID(std::nullopt), nullptr);

  EXPECT_EQ(store()->primaryAccount(), nullptr);
  EXPECT_FALSE(store()->isPrimaryAccount(*second));
  EXPECT_FALSE(store()->isPrimaryAccount(HSStoreAccount()));
  EXPECT_EQ(store()->makeAccountPrimary(second), second);
  EXPECT_TRUE(store()->isPrimaryAccount(*account(kLargest, "any")));
  const auto writes = world.preferences.synchronizations().size();
  store()->makeAccountPrimary(second);
  EXPECT_EQ(world.preferences.synchronizations().size(), writes) << "no change, no write";
  const auto twin = account(kLargest, "twin");
  EXPECT_EQ(store()->makeAccountPrimary(twin), twin) << "equal is not the same";
  EXPECT_EQ(world.preferences.synchronizations().size(), writes + 1);
  EXPECT_EQ(store()->accountWithDSID(kLargest), second) << "and it was not added";
  EXPECT_EQ(store()->makeAccountPrimary(nullptr), nullptr);
}

TEST_F(AccountsTest, ASignInIsTakenInToldInOrderAndLastsFifteenMinutes) {
  const auto open = XPCTransaction::count();
  const auto first = std::make_shared<Observer>();
  const auto second = std::make_shared<Observer>();
  // An observer may come back in, and take another away while all are being told.
  first->onCall = [&] {
    EXPECT_NE(store()->primaryAccount(), nullptr);
    store()->removeAccountStoreObserver(second);
  };
  store()->addAccountStoreObserver(nullptr);
  store()->addAccountStoreObserver(first);
  store()->addAccountStoreObserver(second);

  const auto known = account(42, "old name");
  store()->addAccount(known);
  EXPECT_TRUE(store()->authIsExpired());
  EXPECT_EQ(store()->addAccountWithAuthenticationResponse(response(42, "secret"), true), known);
  EXPECT_TRUE(world.log.contains(2, "AccountStore: Signed in for account (42, name, secret)"));
  EXPECT_EQ(store()->primaryAccount(), known);
  EXPECT_EQ(known->token(), "secret");
  EXPECT_FALSE(store()->authIsExpired());
  EXPECT_THAT(first->told, ElementsAre(42u));
  EXPECT_THAT(second->told, ElementsAre(42u)) << "told from a snapshot";
  EXPECT_EQ(XPCTransaction::count(), open + 1);

  // Not primary: nobody is told, but the time begins again and the change is kept.
  loop.advance(600);
  store()->addAccountWithAuthenticationResponse(response(42, "newer"), false);
  store()->addAccountWithAuthenticationResponse(response(43), false);
  EXPECT_THAT(first->told, ElementsAre(42u));
  EXPECT_EQ(store()->primaryAccount(), known);
  loop.advance(899);
  EXPECT_FALSE(store()->authIsExpired());
  loop.advance(1);
  EXPECT_TRUE(store()->authIsExpired());
  EXPECT_EQ(known->token(), std::nullopt);
  EXPECT_EQ(known->tokenIssuedDate(), std::nullopt);
  EXPECT_EQ(known->tokenExpirationTimer(), nullptr);
  EXPECT_EQ(XPCTransaction::count(), open + 1) << "three begun, the two that fired have ended";
  EXPECT_THAT(dsIDs(*storeReadAgain()), ElementsAre(42u, 43u));
}

TEST_F(AccountsTest, ATimerThatFiresTooLateTakesNoNewTokenAlong) {
  const auto open = XPCTransaction::count();
  const auto known = account(1, "a");
  resetTokenExpirationTimerWithInterval(known, 900);
  EXPECT_EQ(known->tokenExpirationTimer(), nullptr);
  EXPECT_EQ(XPCTransaction::count(), open);

  known->setToken("first");
  const std::uint64_t late = known->retireTokenExpirationTimer();
  known->setToken("second");
  resetTokenExpirationTimerWithInterval(known, 900);
  _tokenExpirationTimerFired(*known, late);
  EXPECT_EQ(known->token(), "second");
  EXPECT_EQ(loop.pendingTimers(), 1u);
  // Without a token the timer ends, and stays where it is.
  known->setToken(std::nullopt);
  resetTokenExpirationTimerWithInterval(known, 900);
  ASSERT_NE(known->tokenExpirationTimer(), nullptr);
  EXPECT_FALSE(known->tokenExpirationTimer()->isValid());
  EXPECT_EQ(loop.pendingTimers(), 0u);
  EXPECT_EQ(XPCTransaction::count(), open + 1) << "one was begun, and nothing will end it";
}

TEST_F(AccountsTest, OddAnswersToASignInChangeNobodyElse) {
  store()->addAccountWithAuthenticationResponse(response(1, "one"), true);
  const auto nameless = store()->addAccountWithAuthenticationResponse(
      HSAuthenticationResponse({{"token", "x"}, {"identifier", 7}}), false);
  EXPECT_EQ(nameless->dsID(), std::nullopt);
  EXPECT_EQ(nameless->identifier(), std::nullopt);
  const auto other = store()->addAccountWithAuthenticationResponse(response(2, ""), true);
  EXPECT_FALSE(other->isAuthenticated());
  EXPECT_EQ(other->tokenExpirationTimer(), nullptr);
  EXPECT_TRUE(store()->authIsExpired());
  EXPECT_EQ(store()->accountWithDSID(1)->token(), "one");
  EXPECT_THAT(dsIDs(*storeReadAgain()), ElementsAre(2u, 1u)) << "nobody could find the nameless";

  for (const Value& value : {Value("18446744073709551615"), Value(kLargest)})
    EXPECT_EQ(HSStoreAccount::dsidFromPlistValue(value), kLargest) << description(value);
  for (const Value& value : {Value(7), Value("0007")})
    EXPECT_EQ(HSStoreAccount::dsidFromPlistValue(value), 7u) << description(value);
  for (const Value& value : {Value("18446744073709551616"), Value("7 "), Value(""), Value(0),
                             Value(-1), Value(7.0), Value(true), Value(Array{7})})
    EXPECT_EQ(HSStoreAccount::dsidFromPlistValue(value), std::nullopt) << description(value);
}

TEST_F(AccountsTest, SigningInAsksTheTransactionServiceAndPassesOnWhatItSays) {
  const auto ask = [&] {
    HSAuthenticationContext context;
    context.identifier = "name";
    return answerOf(*store(), &AccountStore::signInWithContext, context);
  };
  transactions->answer = [&](const HSAuthenticationContext& context, const auto& reply) {
    EXPECT_EQ(context.identifier, "name");
    store()->addAccountWithAuthenticationResponse(response(42), true);
    reply(true, 42, std::nullopt);
  };
  const auto signedIn = ask();
  EXPECT_EQ(signedIn, std::tuple(true, store()->accountWithDSID(42), std::nullopt));
  transactions->answer = [](const auto&, const auto& reply) { reply(true, 43, std::nullopt); };
  EXPECT_EQ(ask(), std::tuple(true, nullptr, std::nullopt)) << "not known yet";
  const Error absent = HSError(kHSErrorServiceUnavailable, std::nullopt, "not there");
  transactions->answer = [&](const auto&, const auto& reply) { reply(false, {}, absent); };
  EXPECT_EQ(ask(), std::tuple(false, nullptr, std::optional(absent)));
  store()->signInWithContext({}, nullptr);  // nobody wants to know
}

TEST_F(AccountsTest, SigningOutForgetsTokensAtOnceAndTellsTheStoreWhateverItAnswers) {
  bool answers = true;
  world.serveBag(
      {{"logout", "https://store.example.com/out"}, {"trustedDomains", Array{"example.com"}}},
      [&](const HTTPRequest& request) -> Result<HTTPResponse> {
        if (answers) return ScriptedTransport::response(request, 500);
        EXPECT_LE(request.totalTimeoutSeconds, 60);
        return ScriptedTransport::fail(HTTPTransport::kTimedOut)(request);
      });
  const auto observer = std::make_shared<Observer>();
  store()->addAccountStoreObserver(observer);
  const auto signedIn = store()->addAccountWithAuthenticationResponse(response(42), true);
  const auto open = XPCTransaction::count();
  world.transport.hold();
  store()->signOut();
  EXPECT_EQ(store()->primaryAccount(), nullptr);
  EXPECT_EQ(signedIn->token(), std::nullopt);
  EXPECT_TRUE(store()->authIsExpired());
  EXPECT_THAT(observer->told, ElementsAre(42u, 0u));
  EXPECT_THAT(dsIDs(*store()), ElementsAre(42u));
  EXPECT_THAT(notifications.posted, IsEmpty()) << "not before the store has been told";

  world.transport.release();
  finishOperations();
  ASSERT_FALSE(world.transport.requests().empty());
  EXPECT_EQ(world.transport.requests().back().url.path(), "/out");
  EXPECT_FALSE(bag()->isValid());
  EXPECT_THAT(notifications.posted,
              ElementsAre(std::pair(std::string("HSNotificationAccountSignOutFinished"),
                                    *client->identifier)));
  EXPECT_EQ(loop.pendingTimers(), 1u);
  loop.advance(900);
  EXPECT_EQ(XPCTransaction::count(), open - 1) << "its timer goes on and ends what it began";

  // A store that never answers is given up on.
  answers = false;
  EXPECT_FALSE(bag()->valueForKey("logout").isNil());
  finishOperations();
  ASSERT_TRUE(bag()->isValid());
  store()->signOut();
  finishOperations();
  EXPECT_FALSE(bag()->isValid());
  EXPECT_EQ(notifications.posted.size(), 2u);
}

TEST_F(AccountsTest, AStoreKnowsABoundedNumberOfAccounts) {
  std::vector<Value> records;
  for (std::uint64_t dsID = 1; dsID < AccountStore::kMaxAccounts; ++dsID)
    records.emplace_back(Dictionary{{"dsid", dsID}, {"identifier", "n"}});
  world.write(kDefaultsKnownAccountsKey, Array(records));
  EXPECT_NE(store()->addAccountWithAuthenticationResponse(response(5000), true), nullptr);
  EXPECT_FALSE(store()->addAccount(account(5001, "one too many")));
  EXPECT_EQ(store()->addAccountWithAuthenticationResponse(response(5001), true), nullptr);
  EXPECT_TRUE(world.log.contains(1, "AccountStore: refusing account 5001: 1000 are known already"));
  EXPECT_EQ(store()->primaryAccount()->dsID(), 5000u);
  EXPECT_TRUE(store()->addAccount(account(7, "known, and changed")));
  EXPECT_EQ(storeReadAgain()->accounts().size(), AccountStore::kMaxAccounts);
}

TEST_F(AccountsTest, CreditGoesToTheAccountThatTheAnswerNames) {
  store()->addAccountWithAuthenticationResponse(response(1), true);
  store()->addAccount(account(2, "b"));
  using Text = std::optional<std::string>;
  const auto check = [&](const Dictionary& protocol, const Text& first, const Text& second) {
    store()->parseCreditStringForProtocol(protocol);
    EXPECT_EQ(store()->accountWithDSID(1)->creditString(), first) << description(protocol);
    EXPECT_EQ(store()->accountWithDSID(2)->creditString(), second) << description(protocol);
  };
  check({{"creditDisplay", "$1"}}, "$1", {});
  check({{"creditDisplay", 5}}, "$1", {});
  check({{"creditDisplay", "$2"}, {"dsid", 2}}, "$1", "$2");
  check({{"creditDisplay", "$3"}, {"dsPersonId", "9"}, {"dsid", 2}}, "$1", "$2");
  check({{"creditDisplay", "$4"}, {"dsPersonId", "no number"}, {"dsid", "1"}}, "$4", "$2");
  EXPECT_EQ(storeReadAgain()->accountWithDSID(2)->creditString(), "$2");
}

TEST_F(AccountsTest, EligibilityIsAskedWithoutTheServicesNameAndRememberedAlsoWhenItFails) {
  std::string body;
  int status = 200;
  world.serveBag({{"getSubscriptionStatusSrv", "https://a.example.com/status"},
                  {"trustedDomains", Array{"example.com"}}},
                 [&](const HTTPRequest& request) {
                   return ScriptedTransport::response(request, status, {}, body);
                 });
  const auto check = [&](int answered, const char* text, bool isEligible, bool fails) {
    SCOPED_TRACE(text);
    status = answered;
    body = text;
    store()->addAccount(account(1, "a"));
    const auto [eligible, error] = answerOf(*store(), &AccountStore::getEligibilityForService, "1");
    EXPECT_EQ(eligible, isEligible);
    EXPECT_EQ(error.has_value(), fails);
    EXPECT_EQ(store()->eligibilityForService("1"), isEligible);
  };
  EXPECT_EQ(store()->eligibilityForService("1"), std::nullopt);
  check(200, R"({"music": {"status": "Enabled"}})", true, false);
  for (const char* text :
       {R"({"music": {"status": "enabled"}})", R"({"music": "Enabled"})", R"(["Enabled"])"})
    check(200, text, false, false);
  for (const char* text : {R"("Enabled")", "no JSON", ""}) check(200, text, false, true);
  check(500, R"({"music": {"status": "Enabled"}})", false, true);
  EXPECT_EQ(store()->eligibilityForService("2"), std::nullopt);
  const HTTPRequest asked = world.transport.requests().back();
  EXPECT_TRUE(asked.bypassCaches);
  const auto guid = HSDevice::shared().guid();
  EXPECT_EQ(asked.url.absoluteString(),
            "https://a.example.com/status" + (guid ? "?guid=" + *guid : ""));
}

}  // namespace
}  // namespace tallow
