// The operations of the interface that are about accounts.

#include <future>

#include "platform/VendBase/HSError.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "tests/src/AccountService/AccountsFixture.h"
#include "tests/support/FakeMachine.h"

namespace tallow {
namespace {

using Text = std::optional<std::string>;

class AccountInterfaceTest : public AccountsTest {
 protected:
  std::shared_ptr<AccountServiceInterface> interfaceFor(std::shared_ptr<HSStoreClient> forClient) {
    return std::make_shared<AccountServiceInterface>(std::move(forClient));
  }
  // Calls an operation and waits for its answer.
  template <class Result, class... Arguments>
  Result answerOf(void (HSAccountService::*operation)(Arguments...), auto... arguments) {
    auto promise = std::make_shared<std::promise<Result>>();
    ((*interface).*operation)(arguments...,
                              [promise](Result result) { promise->set_value(result); });
    return promise->get_future().get();
  }

  std::shared_ptr<AccountServiceInterface> interface = interfaceFor(client);
};

TEST_F(AccountInterfaceTest, TheTokenIsThePrimaryAccountsWhicheverAccountIsPassed) {
  using Account = HSAccountService::Account;
  const auto token = [&](Account passed) {
    return answerOf<Text>(&HSAccountService::strongTokenForAccount, passed);
  };
  const Account other = account(2, "b");
  EXPECT_EQ(token(other), std::nullopt);
  store()->addAccountWithAuthenticationResponse(response(1, "one"), true);
  store()->addAccountWithAuthenticationResponse(response(2, "two"), false);
  EXPECT_EQ(token(other), "one");
  EXPECT_FALSE(answerOf<bool>(&HSAccountService::authIsExpired));
  EXPECT_EQ(answerOf<Account>(&HSAccountService::primaryAccount), store()->primaryAccount());
  EXPECT_EQ(answerOf<Account>(&HSAccountService::accountWithVantorID, Text("name"))->dsID(), 1u);
  EXPECT_EQ(answerOf<std::vector<Account>>(&HSAccountService::accounts).size(), 2u);

  // A client without an identifier has no store: nothing is known, and nobody is signed in.
  client = std::make_shared<HSStoreClient>();
  interface = interfaceFor(client);
  EXPECT_EQ(token(other), std::nullopt);
  EXPECT_EQ(answerOf<Account>(&HSAccountService::accountWithDSID, std::optional<std::uint64_t>(1)),
            nullptr);
}

TEST_F(AccountInterfaceTest, ACallerWithoutAStoreClientCannotSignIn) {
  std::promise<std::tuple<bool, HSAccountService::Account, std::optional<Error>>> answered;
  interfaceFor(nullptr)->signInWithContext({}, [&](bool success, auto account, auto error) {
    answered.set_value({success, account, error});
  });
  EXPECT_EQ(
      answered.get_future().get(),
      std::tuple(false, nullptr,
                 std::optional(makeError("AccountServiceInterface", -1, "storeClient is nil"))));
  interfaceFor(nullptr)->signInWithContext({}, nullptr);
}

TEST_F(AccountInterfaceTest, DemoModeIsReadLooselyForFlagsAndStrictlyForTexts) {
  struct Case {
    Value flag, name, password, autoLogin;
    bool demoMode;
    Text nameRead, passwordRead;
    bool autoLoginRead;
  } const cases[] = {
      {{}, {}, {}, {}, false, {}, {}, false},
      {"1", "demo", "secret", true, true, "demo", "secret", true},
      {1, 5, Array{"a"}, "no", true, {}, {}, false},
      {Array{1}, "", Date{1}, 0.0, false, "", {}, false},
  };
  for (const bool isAdministrators : {false, true}) {
    for (const Case& each : cases) {
      const auto set = [&](const char* key, const Value& value) {
        write(key, isAdministrators ? Value() : value, kDaemonDefaultsID);
        world.preferences.setAnyUserValue(key, isAdministrators ? value : Value(),
                                          kDaemonDefaultsID);
      };
      set(kDefaultsHarlowDemoModeKey, each.flag);
      set(kDefaultsHarlowDemoAccountName, each.name);
      set(kDefaultsHarlowDemoAccountPassword, each.password);
      set(kDefaultsHarlowDemoAutoLogin, each.autoLogin);
      std::promise<void> answered;
      interface->retailStoreDemoMode([&](bool demoMode, Text name, Text password, bool autoLogin) {
        EXPECT_EQ(std::tuple(demoMode, name, password, autoLogin),
                  std::tuple(each.demoMode, each.nameRead, each.passwordRead, each.autoLoginRead));
        answered.set_value();
      });
      answered.get_future().wait();
    }
  }
  EXPECT_TRUE(world.log.contains(
      3, "retailStoreDemoMode 1, vantorID demo, password secret, autoLogInFlag 1"));
}

TEST_F(AccountInterfaceTest, OtherAccountsOfTheMachineSuggestADSIDAndAName) {
  FakeMachine machine;
  const auto dsID = [&] { return answerOf<Text>(&HSAccountService::nimboDSID); };
  EXPECT_EQ(dsID(), std::nullopt);
  struct {
    Value value;
    Text text;
  } const cases[] = {{12345, "12345"},
                     {"  text ", "  text "},
                     {18446744073709551615u, "18446744073709551615"},
                     {{}, {}},
                     {Array{1}, {}}};
  for (const auto& [value, text] : cases) {
    write("LoggedInAccount", Dictionary{{"AccountDSID", value}}, "com.vantor.QelAccounts");
    EXPECT_EQ(dsID(), text);
  }
  EXPECT_TRUE(world.log.mentions(
      1, "AccountServiceInterface: QKAccountCopyProperty returned invalid value"));
  write("LoggedInAccount", Dictionary{{"AccountDSID", 1}}, "com.vantor.QelAccounts");
  machine.recovers = true;
  EXPECT_EQ(dsID(), std::nullopt);

  const auto name = [&] {
    return answerOf<Text>(&HSAccountService::recommendedVantorIDForAccountSignIn);
  };
  EXPECT_EQ(name(), std::nullopt);
  write("RecommendedVantorIDs", Dictionary{{"com.vantor.account.HarlowStore", "a@example.com"}},
        "com.vantor.accounts");
  EXPECT_EQ(name(), "a@example.com");
}

}  // namespace
}  // namespace tallow
