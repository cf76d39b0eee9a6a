// The operations of the interface that are about accounts.

#include "platform/VendBase/HSError.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "tests/src/AccountService/AccountsFixture.h"
#include "tests/support/AnswerOf.h"
#include "tests/support/FakeMachine.h"

namespace tallow {
namespace {

using Text = std::optional<std::string>;

class AccountInterfaceTest : public AccountsTest {
 protected:
  template <class... Parameters, class... Arguments>
  auto ask(void (HSAccountService::*operation)(Parameters...), Arguments... arguments) {
    const auto interface = std::make_shared<AccountServiceInterface>(client);
    return answerOf(*interface, operation, std::move(arguments)...);
  }
};

TEST_F(AccountInterfaceTest, TheTokenIsThePrimaryAccountsWhicheverAccountIsPassed) {
  const auto other = account(2, "b");
  EXPECT_EQ(ask(&HSAccountService::strongTokenForAccount, other), std::nullopt);
  store()->addAccountWithAuthenticationResponse(response(1, "one"), true);
  store()->addAccountWithAuthenticationResponse(response(2, "two"), false);
  EXPECT_EQ(ask(&HSAccountService::strongTokenForAccount, other), "one");
  EXPECT_FALSE(ask(&HSAccountService::authIsExpired));
  EXPECT_EQ(ask(&HSAccountService::primaryAccount), store()->primaryAccount());
  EXPECT_EQ(ask(&HSAccountService::accountWithVantorID, "name")->dsID(), 1u);
  EXPECT_EQ(ask(&HSAccountService::accounts).size(), 2u);
}

TEST_F(AccountInterfaceTest, WithoutAClientOrItsIdentifierNobodyIsKnownAndNobodyCanSignIn) {
  client = std::make_shared<HSStoreClient>();
  EXPECT_EQ(ask(&HSAccountService::strongTokenForAccount, account(2, "b")), std::nullopt);
  EXPECT_EQ(ask(&HSAccountService::accountWithDSID, 1), nullptr);
  client = nullptr;
  EXPECT_EQ(
      ask(&HSAccountService::signInWithContext, HSAuthenticationContext()),
      std::tuple(false, nullptr,
                 std::optional(makeError("AccountServiceInterface", -1, "storeClient is nil"))));
  std::make_shared<AccountServiceInterface>(client)->signInWithContext({}, nullptr);
}

TEST_F(AccountInterfaceTest, DemoModeIsReadLooselyForFlagsAndStrictlyForTexts) {
  const auto demoModeWith = [&](const Value& flag, const Value& name, const Value& password,
                                const Value& autoLogin, bool isAdministrators) {
    const auto set = [&](const char* key, const Value& value) {
      world.write(key, isAdministrators ? Value() : value, kDaemonDefaultsID);
      world.preferences.setAnyUserValue(key, isAdministrators ? value : Value(), kDaemonDefaultsID);
    };
    set(kDefaultsHarlowDemoModeKey, flag);
    set(kDefaultsHarlowDemoAccountName, name);
    set(kDefaultsHarlowDemoAccountPassword, password);
    set(kDefaultsHarlowDemoAutoLogin, autoLogin);
    return ask(&HSAccountService::retailStoreDemoMode);
  };
  for (const bool admins : {false, true}) {
    EXPECT_EQ(demoModeWith({}, {}, {}, {}, admins), std::tuple(false, Text(), Text(), false));
    EXPECT_EQ(demoModeWith("1", "demo", "secret", true, admins),
              std::tuple(true, "demo", "secret", true));
    EXPECT_EQ(demoModeWith(1, 5, Array{"a"}, "no", admins),
              std::tuple(true, Text(), Text(), false));
    EXPECT_EQ(demoModeWith(Array{1}, "", Date{1}, 0.0, admins),
              std::tuple(false, "", Text(), false));
  }
  EXPECT_TRUE(world.log.contains(
      3, "retailStoreDemoMode 1, vantorID demo, password secret, autoLogInFlag 1"));
}

TEST_F(AccountInterfaceTest, OtherAccountsOfTheMachineSuggestADSIDAndAName) {
  FakeMachine machine;
  EXPECT_EQ(ask(&HSAccountService::nimboDSID), std::nullopt);
  const std::pair<Value, Text> cases[] = {{12345, "12345"},
                                          {"  text ", "  text "},
                                          {18446744073709551615u, "18446744073709551615"},
                                          {{}, {}},
                                          {Array{1}, {}}};
  for (const auto& [value, text] : cases) {
    world.write("LoggedInAccount", Dictionary{{"AccountDSID", value}}, "com.vantor.QelAccounts");
    EXPECT_EQ(ask(&HSAccountService::nimboDSID), text) << description(value);
  }
  EXPECT_TRUE(world.log.mentions(
      1, "AccountServiceInterface: QKAccountCopyProperty returned invalid value"));
  world.write("LoggedInAccount", Dictionary{{"AccountDSID", 1}}, "com.vantor.QelAccounts");
  machine.recovers = true;
  EXPECT_EQ(ask(&HSAccountService::nimboDSID), std::nullopt);

  EXPECT_EQ(ask(&HSAccountService::recommendedVantorIDForAccountSignIn), std::nullopt);
  world.write("RecommendedVantorIDs",
              Dictionary{{"com.vantor.account.HarlowStore", "a@example.com"}},
              "com.vantor.accounts");
  EXPECT_EQ(ask(&HSAccountService::recommendedVantorIDForAccountSignIn), "a@example.com");
}

}  // namespace
}  // namespace tallow
