#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSAccountStoreObserver.h"
#include "platform/VendBase/HSAuthenticationContext.h"
#include "platform/VendBase/HSAuthenticationResponse.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/HSURLBagObserver.h"

namespace tallow {

// The protocol that the service exports to store processes, and that the store library itself uses
// inside the process through HSServiceProxy. Over the bus it is the interface
// com.vantor.HSAccountService (interfaces/com.vantor.HSAccountService.xml, same names).
//
// Every operation returns at once, whatever queue or lock the calling thread holds: it waits for
// none. It answers through its last argument, which may be empty and is then skipped. Operations
// without a result call `reply()` when their work is done. A reply comes exactly once, on any
// thread, the calling one included, and must not block; one that is dropped unanswered tells the
// caller so.
// A nil URL is std::nullopt. Any thread may call.
class HSAccountService {
 public:
  using Done = std::function<void()>;
  template <class... Results>
  using Reply = std::function<void(Results...)>;

  virtual ~HSAccountService() = default;

  // Bag
  virtual void valueForURLBagKey(std::string key, Reply<Value> reply) = 0;
  virtual void urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) = 0;
  virtual void needsSilentOrvActionForURL(std::optional<URL> url, Reply<bool> reply) = 0;
  virtual void loadURLBagWithType(
      std::uint64_t bagType,
      Reply<bool /*valid*/, bool /*success*/, std::optional<Error>> reply) = 0;
  virtual void invalidateAllBags(Done reply) = 0;
  virtual void regexWithKey(std::string key, std::string matchesString, Reply<bool> reply) = 0;
  virtual void isValid(Reply<bool> reply) = 0;
  virtual void dictionary(Reply<std::optional<Dictionary>> reply) = 0;
  virtual void addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) = 0;
  virtual void removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer, Done reply) = 0;
  virtual void shouldSendGUIDWithRequestForURL(std::optional<URL> url, Reply<bool> reply) = 0;

  // Cookies and request headers
  virtual void consumeCookiesWithHTTPHeaders(Dictionary headers, std::optional<URL> fromURL,
                                             Done reply) = 0;
  virtual void httpHeadersForURL(std::optional<URL> url, std::optional<std::uint64_t> forDSID,
                                 bool includeOrvHeaders, Reply<Dictionary> reply) = 0;
  virtual void deleteAllCookies(Done reply) = 0;

  // Storefront
  virtual void storeFront(Reply<std::optional<std::string>> reply) = 0;
  virtual void setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) = 0;

  // Accounts. Inside the process the account itself is handed over, on the bus a copy.
  using Account = std::shared_ptr<HSStoreAccount>;
  virtual void accounts(Reply<std::vector<Account>> reply) = 0;
  virtual void strongTokenForAccount(Account account, Reply<std::optional<std::string>> reply) = 0;
  virtual void authIsExpired(Reply<bool> reply) = 0;
  virtual void primaryAccount(Reply<Account> reply) = 0;
  virtual void accountWithDSID(std::optional<std::uint64_t> dsID, Reply<Account> reply) = 0;
  virtual void accountWithVantorID(std::optional<std::string> vantorID, Reply<Account> reply) = 0;
  virtual void addAccountWithAuthenticationResponse(HSAuthenticationResponse response,
                                                    bool makePrimary, Reply<Account> reply) = 0;
  virtual void addAccount(Account account, Done reply) = 0;
  virtual void signInWithContext(HSAuthenticationContext context,
                                 Reply<bool /*success*/, Account, std::optional<Error>> reply) = 0;
  virtual void signOut(Done reply) = 0;
  virtual void parseCreditStringForProtocol(Dictionary protocol, Done reply) = 0;
  virtual void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                       Done reply) = 0;
  virtual void removeAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer,
                                          Done reply) = 0;
  virtual void eligibilityForService(std::uint64_t service, Reply<std::optional<bool>> reply) = 0;
  virtual void getEligibilityForService(std::uint64_t service,
                                        Reply<bool, std::optional<Error>> reply) = 0;
  virtual void retailStoreDemoMode(
      Reply<bool /*demoMode*/, std::optional<std::string> /*name*/,
            std::optional<std::string> /*password*/, bool /*autoLogin*/>
          reply) = 0;
  virtual void nimboDSID(Reply<std::optional<std::string>> reply) = 0;
  virtual void recommendedVantorIDForAccountSignIn(Reply<std::optional<std::string>> reply) = 0;

  // Password settings. Updating may wait for a person who is asked to sign in.
  virtual void getPasswordSettings(
      Reply<std::optional<Dictionary> /*settings*/, std::optional<Error>> reply) = 0;
  virtual void updatePasswordSettings(std::optional<Dictionary> settings,
                                      Reply<bool /*success*/, std::optional<Error>> reply) = 0;

  // Push and device set-up
  virtual void registerDeviceTokenForEnvironmentNamed(std::string environmentName,
                                                      Reply<bool, std::optional<Error>> reply) = 0;
  virtual void getEnabledMediaTypes(
      Reply<bool, std::optional<Error>, std::int64_t /*mask*/> reply) = 0;
  virtual void enableAutoDownloadForEnvironmentNamed(std::string environmentName,
                                                     Reply<bool, std::optional<Error>> reply) = 0;
  virtual void disableAutoDownload(Reply<bool, std::optional<Error>> reply) = 0;
  virtual void isRegisteredForAccount(
      std::uint64_t dsID, std::int64_t andMask,
      Reply<bool, std::optional<Error>, bool /*isRegistered*/> reply) = 0;
  virtual void handlePushNotificationMessage(Dictionary message, Done reply) = 0;
  virtual void completeSetupWithResponse(Dictionary response,
                                         Reply<bool, std::optional<Error>> reply) = 0;
};

}  // namespace tallow
