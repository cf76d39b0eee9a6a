#pragma once

#include <memory>
#include <string>
#include <vector>

#include "bus/com.vantor.HSAccountService_adaptor.h"
#include "bus/com.vantor.HSServiceRemoteObject_adaptor.h"
#include "bus/com.vantor.tallowd.Status_adaptor.h"
#include "platform/XPC/CallerTable.h"

namespace tallow {

// The object /com/vantor/tallowd: turns messages into calls of the object that serves their caller,
// and what that answers into replies. Owned by the listener; called on the reading thread.
//
// A call runs on the reading thread straight into the caller's object, which decides what may run
// at once and what has to wait for its queue.
class AccountServiceObject final
    : public sdbus::AdaptorInterfaces<com::vantor::HSAccountService_adaptor,
                                      com::vantor::HSServiceRemoteObject_adaptor,
                                      com::vantor::tallowd::Status_adaptor> {
 public:
  static constexpr const char* kPath = "/com/vantor/tallowd";
  // Of one text argument.
  static constexpr std::size_t kMaxTextBytes = std::size_t{1} << 20;

  using StatusProvider = std::function<Dictionary()>;

  AccountServiceObject(sdbus::IConnection& connection, CallerTable& callers,
                       std::shared_ptr<const StatusProvider> status);
  ~AccountServiceObject();
  AccountServiceObject(const AccountServiceObject&) = delete;
  AccountServiceObject& operator=(const AccountServiceObject&) = delete;

 private:
  class Arguments;
  using AccountReply = HSAccountService::Reply<HSAccountService::Account>;

  // HSAccountService
  void valueForURLBagKey(sdbus::Result<std::vector<WireValue>>&& result, std::string key) override;
  void urlIsTrustedByURLBag(sdbus::Result<bool>&& result, std::string url) override;
  void needsSilentOrvActionForURL(sdbus::Result<bool>&& result, std::string url) override;
  void loadURLBagWithType(sdbus::Result<bool, bool, std::vector<WireError>>&& result,
                          std::uint64_t bagType) override;
  void invalidateAllBags(sdbus::Result<>&& result) override;
  void regexWithKey(sdbus::Result<bool>&& result, std::string key,
                    std::string matchesString) override;
  void isValid(sdbus::Result<bool>&& result) override;
  void dictionary(sdbus::Result<std::vector<WireDictionary>>&& result) override;
  void addURLBagObserver(sdbus::Result<>&& result, sdbus::ObjectPath observer) override;
  void removeURLBagObserver(sdbus::Result<>&& result, sdbus::ObjectPath observer) override;
  void shouldSendGUIDWithRequestForURL(sdbus::Result<bool>&& result, std::string url) override;
  void consumeCookiesWithHTTPHeaders(sdbus::Result<>&& result, WireDictionary headers,
                                     std::string fromURL) override;
  void httpHeadersForURL(sdbus::Result<WireHeaders>&& result, std::string url,
                         std::vector<std::uint64_t> forDSID, bool includeOrvHeaders) override;
  void deleteAllCookies(sdbus::Result<>&& result) override;
  void storeFront(sdbus::Result<std::vector<std::string>>&& result) override;
  void setStoreFrontID(sdbus::Result<>&& result, std::vector<std::string> storeFrontID) override;

  void accounts(sdbus::Result<std::vector<WireDictionary>>&& result) override;
  void strongTokenForAccount(sdbus::Result<std::vector<std::string>>&& result,
                             WireDictionary account) override;
  void authIsExpired(sdbus::Result<bool>&& result) override;
  void primaryAccount(sdbus::Result<std::vector<WireDictionary>>&& result) override;
  void accountWithDSID(sdbus::Result<std::vector<WireDictionary>>&& result,
                       std::uint64_t dsID) override;
  void accountWithVantorID(sdbus::Result<std::vector<WireDictionary>>&& result,
                           std::string vantorID) override;
  void addAccountWithAuthenticationResponse(sdbus::Result<std::vector<WireDictionary>>&& result,
                                            WireDictionary response, bool makePrimary) override;
  void addAccount(sdbus::Result<>&& result, WireDictionary account) override;
  void signInWithContext(
      sdbus::Result<bool, std::vector<WireDictionary>, std::vector<WireError>>&& result,
      WireDictionary context) override;
  void signOut(sdbus::Result<>&& result) override;
  void parseCreditStringForProtocol(sdbus::Result<>&& result, WireDictionary protocol) override;
  void addAccountStoreObserver(sdbus::Result<>&& result, sdbus::ObjectPath observer) override;
  void removeAccountStoreObserver(sdbus::Result<>&& result, sdbus::ObjectPath observer) override;
  void eligibilityForService(sdbus::Result<std::vector<WireValue>>&& result,
                             std::uint64_t service) override;
  void getEligibilityForService(sdbus::Result<bool, std::vector<WireError>>&& result,
                                std::uint64_t service) override;
  void retailStoreDemoMode(sdbus::Result<bool, std::vector<std::string>, std::vector<std::string>,
                                         bool>&& result) override;
  void nimboDSID(sdbus::Result<std::vector<std::string>>&& result) override;
  void recommendedVantorIDForAccountSignIn(
      sdbus::Result<std::vector<std::string>>&& result) override;

  void getPasswordSettings(
      sdbus::Result<std::vector<WireDictionary>, std::vector<WireError>>&& result) override;
  void updatePasswordSettings(sdbus::Result<bool, std::vector<WireError>>&& result,
                              std::vector<WireDictionary> settings) override;

  // Push and device set-up: AccountServiceObjectPush.cpp
  void registerDeviceTokenForEnvironmentNamed(sdbus::Result<bool, std::vector<WireError>>&& result,
                                              std::string environmentName) override;
  void getEnabledMediaTypes(
      sdbus::Result<bool, std::vector<WireError>, std::int64_t>&& result) override;
  void enableAutoDownloadForEnvironmentNamed(sdbus::Result<bool, std::vector<WireError>>&& result,
                                             std::string environmentName) override;
  void disableAutoDownload(sdbus::Result<bool, std::vector<WireError>>&& result) override;
  void isRegisteredForAccount(sdbus::Result<bool, std::vector<WireError>, bool>&& result,
                              std::uint64_t dsID, std::int64_t andMask) override;
  void handlePushNotificationMessage(sdbus::Result<>&& result, WireDictionary message) override;
  void completeSetupWithResponse(sdbus::Result<bool, std::vector<WireError>>&& result,
                                 WireDictionary response) override;

  // HSServiceRemoteObject
  void actAs(sdbus::Result<>&& result, std::string identifier) override;

  // Status
  void Describe(sdbus::Result<std::string>&& result) override;

  void _askForAccount(sdbus::Result<std::vector<WireDictionary>>&& result, Arguments arguments,
                      std::function<void(HSAccountService&, AccountReply)> ask);
  template <class... Results, class Invoke>
  void _call(sdbus::Result<Results...>&& result, Arguments arguments, Invoke invoke,
             std::uint32_t maxWaiting = Caller::kMaxWaitingCalls);
  template <class Operation>
  void _askAboutURL(sdbus::Result<bool>&& result, const std::string& url, Operation operation);

  CallerTable& _callers;
  std::shared_ptr<const StatusProvider> _status;
};

}  // namespace tallow
