#pragma once

#include <memory>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSAccountService.h"

namespace tallow {

// Passes every operation on to another account service, later, from a queue of its own and in the
// order of the calls; the caller's thread does no more than submit. Arguments are moved, not
// copied. Owned by one HSServiceProxy and whoever took it from there. Any thread may call.
class HSAccountServiceForwarder final : public HSAccountService {
 public:
  explicit HSAccountServiceForwarder(std::shared_ptr<HSAccountService> target);

  void valueForURLBagKey(std::string key, Reply<Value> reply) override;
  void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) override;
  void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) override;
  void loadURLBagWithType(std::uint64_t bagType,
                          Reply<bool, bool, std::optional<Error>> reply) override;
  void invalidateAllBags(Done reply) override;
  void regexWithKey(std::string key, std::string matchesString, Reply<bool> reply) override;
  void isValid(Reply<bool> reply) override;
  void dictionary(Reply<std::optional<Dictionary>> reply) override;
  void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override;
  void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) override;
  void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) override;
  void consumeCookiesWithHTTPHeaders(Dictionary headers, std::optional<URL> fromURL,
                                     Done reply) override;
  void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                         bool includeOrvHeaders, Reply<Dictionary> reply) override;
  void deleteAllCookies(Done reply) override;
  void storeFront(Reply<std::optional<std::string>> reply) override;
  void setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) override;

  void accounts(Reply<std::vector<Account>> reply) override;
  void strongTokenForAccount(Account account, Reply<std::optional<std::string>> reply) override;
  void authIsExpired(Reply<bool> reply) override;
  void primaryAccount(Reply<Account> reply) override;
  void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) override;
  void accountWithVantorID(std::optional<std::string> vantorID, Reply<Account> reply) override;
  void addAccountWithAuthenticationResponse(HSAuthenticationResponse response, bool makePrimary,
                                            Reply<Account> reply) override;
  void addAccount(Account account, Done reply) override;
  void signInWithContext(HSAuthenticationContext context,
                         Reply<bool, Account, std::optional<Error>> reply) override;
  void signOut(Done reply) override;
  void parseCreditStringForProtocol(Dictionary protocol, Done reply) override;
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                               Done reply) override;
  void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                  Done reply) override;
  void eligibilityForService(std::uint64_t service, Reply<std::optional<bool>> reply) override;
  void getEligibilityForService(std::uint64_t service,
                                Reply<bool, std::optional<Error>> reply) override;
  void retailStoreDemoMode(
      Reply<bool, std::optional<std::string>, std::optional<std::string>, bool> reply) override;
  void nimboDSID(Reply<std::optional<std::string>> reply) override;
  void recommendedVantorIDForAccountSignIn(Reply<std::optional<std::string>> reply) override;
  void getPasswordSettings(Reply<std::optional<Dictionary>, std::optional<Error>> reply) override;
  void updatePasswordSettings(std::optional<Dictionary> settings,
                              Reply<bool, std::optional<Error>> reply) override;

  void registerDeviceTokenForEnvironmentNamed(std::string environmentName,
                                              Reply<bool, std::optional<Error>> reply) override;
  void getEnabledMediaTypes(Reply<bool, std::optional<Error>, std::int64_t> reply) override;
  void enableAutoDownloadForEnvironmentNamed(std::string environmentName,
                                             Reply<bool, std::optional<Error>> reply) override;
  void disableAutoDownload(Reply<bool, std::optional<Error>> reply) override;
  void isRegisteredForAccount(std::uint64_t dsID, std::int64_t andMask,
                              Reply<bool, std::optional<Error>, bool> reply) override;
  void handlePushNotificationMessage(Dictionary message, Done reply) override;
  void completeSetupWithResponse(Dictionary response,
                                 Reply<bool, std::optional<Error>> reply) override;

 private:
  template <class... Parameters>
  void forward(void (HSAccountService::*operation)(Parameters...), Parameters... arguments);

  std::shared_ptr<HSAccountService> _target;
  SerialQueue _queue{"HSServiceProxy Queue"};
};

}  // namespace tallow
