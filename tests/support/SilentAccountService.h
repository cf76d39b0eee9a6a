#pragma once

#include "platform/VendBase/HSAccountService.h"

namespace tallow {

// An account service that drops every reply to a question about accounts and pushes: the base of
// fakes that answer other things, and only override what their test asks.
class SilentAccountService : public HSAccountService {
 public:
  void accounts(Reply<std::vector<Account>> /*reply*/) override {}
  void strongTokenForAccount(Account /*account*/,
                             Reply<std::optional<std::string>> /*reply*/) override {}
  void authIsExpired(Reply<bool> /*reply*/) override {}
  void primaryAccount(Reply<Account> /*reply*/) override {}
  void accountWithDSID(std::optional<std::uint64_t> /*dsID*/, Reply<Account> /*reply*/) override {}
  void accountWithVantorID(std::optional<std::string> /*vantorID*/,
                           Reply<Account> /*reply*/) override {}
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse /*response*/,
                                            bool /*makePrimary*/,
                                            Reply<Account> /*reply*/) override {}
  void addAccount(Account /*account*/, Done /*reply*/) override {}
  void signInWithContext(HSAuthenticationContext /*context*/,
                         Reply<bool, Account, std::optional<Error>> /*reply*/) override {}
  void signOut(Done /*reply*/) override {}
  void parseCreditStringForProtocol(Dictionary /*protocol*/, Done /*reply*/) override {}
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> /*observer*/,
                               Done /*reply*/) override {}
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> /*observer*/,
                                  Done /*reply*/) override {}
  void eligibilityForService(std::uint64_t /*service*/,
                             Reply<std::optional<bool>> /*reply*/) override {}
  void getEligibilityForService(std::uint64_t /*service*/,
                                Reply<bool, std::optional<Error>> /*reply*/) override {}
  void retailStoreDemoMode(Reply<bool, std::optional<std::string>, std::optional<std::string>,
                                 bool> /*reply*/) override {}
  void nimboDSID(Reply<std::optional<std::string>> /*reply*/) override {}
  void recommendedVantorIDForAccountSignIn(Reply<std::optional<std::string>> /*reply*/) override {}
  void getPasswordSettings(
      Reply<std::optional<Dictionary>, std::optional<Error>> /*reply*/) override {}
  void updatePasswordSettings(std::optional<Dictionary> /*settings*/,
                              Reply<bool, std::optional<Error>> /*reply*/) override {}

  void registerDeviceTokenForEnvironmentNamed(
      std::string /*environmentName*/, Reply<bool, std::optional<Error>> /*reply*/) override {}
  void getEnabledMediaTypes(Reply<bool, std::optional<Error>, std::int64_t> /*reply*/) override {}
  void enableAutoDownloadForEnvironmentNamed(std::string /*environmentName*/,
                                             Reply<bool, std::optional<Error>> /*reply*/) override {
  }
  void disableAutoDownload(Reply<bool, std::optional<Error>> /*reply*/) override {}
  void isRegisteredForAccount(std::uint64_t /*dsID*/, std::int64_t /*andMask*/,
                              Reply<bool, std::optional<Error>, bool> /*reply*/) override {}
  void handlePushNotificationMessage(Dictionary /*message*/, Done /*reply*/) override {}
  void completeSetupWithResponse(Dictionary /*response*/,
                                 Reply<bool, std::optional<Error>> /*reply*/) override {}
};

}  // namespace tallow
