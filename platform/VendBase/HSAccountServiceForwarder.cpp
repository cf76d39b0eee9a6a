#include "platform/VendBase/HSAccountServiceForwarder.h"

#include <tuple>
#include <utility>

namespace tallow {

HSAccountServiceForwarder::HSAccountServiceForwarder(std::shared_ptr<HSAccountService> target)
    : _target(std::move(target)) {}

template <class... Parameters>
void HSAccountServiceForwarder::forward(void (HSAccountService::*operation)(Parameters...),
                                        Parameters... arguments) {
  _queue.async([target = _target, operation,
                moved = std::tuple<Parameters...>(std::move(arguments)...)]() mutable {
    std::apply([&](Parameters&... each) { std::invoke(operation, *target, std::move(each)...); },
               moved);
  });
}

void HSAccountServiceForwarder::valueForURLBagKey(std::string key, Reply<Value> reply) {
  forward(&HSAccountService::valueForURLBagKey, std::move(key), std::move(reply));
}

void HSAccountServiceForwarder::urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) {
  forward(&HSAccountService::urlIsTrustedByURLBag, std::move(url), std::move(reply));
}

void HSAccountServiceForwarder::needsSilentOrvActionForURL(std::optional<URL> url,
                                                           Reply<bool> reply) {
  forward(&HSAccountService::needsSilentOrvActionForURL, std::move(url), std::move(reply));
}

void HSAccountServiceForwarder::loadURLBagWithType(std::uint64_t bagType,
                                                   Reply<bool, bool, std::optional<Error>> reply) {
  forward(&HSAccountService::loadURLBagWithType, bagType, std::move(reply));
}

void HSAccountServiceForwarder::invalidateAllBags(Done reply) {
  forward(&HSAccountService::invalidateAllBags, std::move(reply));
}

void HSAccountServiceForwarder::regexWithKey(std::string key, std::string matchesString,
                                             Reply<bool> reply) {
  forward(&HSAccountService::regexWithKey, std::move(key), std::move(matchesString),
          std::move(reply));
}

void HSAccountServiceForwarder::isValid(Reply<bool> reply) {
  forward(&HSAccountService::isValid, std::move(reply));
}

void HSAccountServiceForwarder::dictionary(Reply<std::optional<Dictionary>> reply) {
  forward(&HSAccountService::dictionary, std::move(reply));
}

void HSAccountServiceForwarder::addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer,
                                                  Done reply) {
  forward(&HSAccountService::addURLBagObserver, std::move(observer), std::move(reply));
}

void HSAccountServiceForwarder::removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer,
                                                     Done reply) {
  forward(&HSAccountService::removeURLBagObserver, std::move(observer), std::move(reply));
}

void HSAccountServiceForwarder::shouldSendGUIDWithRequestForURL(std::optional<URL> url,
                                                                Reply<bool> reply) {
  forward(&HSAccountService::shouldSendGUIDWithRequestForURL, std::move(url), std::move(reply));
}

void HSAccountServiceForwarder::consumeCookiesWithHTTPHeaders(Dictionary headers,
                                                              std::optional<URL> fromURL,
                                                              Done reply) {
  forward(&HSAccountService::consumeCookiesWithHTTPHeaders, std::move(headers), std::move(fromURL),
          std::move(reply));
}

void HSAccountServiceForwarder::httpHeadersForURL(std::optional<URL> url,
                                                  std::optional<std::uint64_t> forDSID,
                                                  bool includeOrvHeaders, Reply<Dictionary> reply) {
  forward(&HSAccountService::httpHeadersForURL, std::move(url), forDSID, includeOrvHeaders,
          std::move(reply));
}

void HSAccountServiceForwarder::deleteAllCookies(Done reply) {
  forward(&HSAccountService::deleteAllCookies, std::move(reply));
}

void HSAccountServiceForwarder::storeFront(Reply<std::optional<std::string>> reply) {
  forward(&HSAccountService::storeFront, std::move(reply));
}

void HSAccountServiceForwarder::setStoreFrontID(std::optional<std::string> storeFrontID,
                                                Done reply) {
  forward(&HSAccountService::setStoreFrontID, std::move(storeFrontID), std::move(reply));
}

void HSAccountServiceForwarder::accounts(Reply<std::vector<Account>> reply) {
  forward(&HSAccountService::accounts, std::move(reply));
}

void HSAccountServiceForwarder::strongTokenForAccount(Account account,
                                                      Reply<std::optional<std::string>> reply) {
  forward(&HSAccountService::strongTokenForAccount, std::move(account), std::move(reply));
}

void HSAccountServiceForwarder::authIsExpired(Reply<bool> reply) {
  forward(&HSAccountService::authIsExpired, std::move(reply));
}

void HSAccountServiceForwarder::primaryAccount(Reply<Account> reply) {
  forward(&HSAccountService::primaryAccount, std::move(reply));
}

void HSAccountServiceForwarder::accountWithDSID(std::optional<std::uint64_t> dsID,
                                                Reply<Account> reply) {
  forward(&HSAccountService::accountWithDSID, dsID, std::move(reply));
}

void HSAccountServiceForwarder::accountWithVantorID(std::optional<std::string> vantorID,
                                                    Reply<Account> reply) {
  forward(&HSAccountService::accountWithVantorID, std::move(vantorID), std::move(reply));
}

void HSAccountServiceForwarder::addAccountWithAuthenticationResponse(
    HSAuthenticationResponse response, bool makePrimary, Reply<Account> reply) {
  forward(&HSAccountService::addAccountWithAuthenticationResponse, std::move(response), makePrimary,
          std::move(reply));
}

void HSAccountServiceForwarder::addAccount(Account account, Done reply) {
  forward(&HSAccountService::addAccount, std::move(account), std::move(reply));
}

void HSAccountServiceForwarder::signInWithContext(
    HSAuthenticationContext context, Reply<bool, Account, std::optional<Error>> reply) {
  forward(&HSAccountService::signInWithContext, std::move(context), std::move(reply));
}

void HSAccountServiceForwarder::signOut(Done reply) {
  forward(&HSAccountService::signOut, std::move(reply));
}

void HSAccountServiceForwarder::parseCreditStringForProtocol(Dictionary protocol, Done reply) {
  forward(&HSAccountService::parseCreditStringForProtocol, std::move(protocol), std::move(reply));
}

void HSAccountServiceForwarder::addAccountStoreObserver(
    std::shared_ptr<HSAccountStoreObserver> observer, Done reply) {
  forward(&HSAccountService::addAccountStoreObserver, std::move(observer), std::move(reply));
}

void HSAccountServiceForwarder::removeAccountStoreObserver(
    std::shared_ptr<HSAccountStoreObserver> observer, Done reply) {
  forward(&HSAccountService::removeAccountStoreObserver, std::move(observer), std::move(reply));
}

void HSAccountServiceForwarder::eligibilityForService(std::uint64_t service,
                                                      Reply<std::optional<bool>> reply) {
  forward(&HSAccountService::eligibilityForService, service, std::move(reply));
}

void HSAccountServiceForwarder::getEligibilityForService(std::uint64_t service,
                                                         Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::getEligibilityForService, service, std::move(reply));
}

void HSAccountServiceForwarder::retailStoreDemoMode(
    Reply<bool, std::optional<std::string>, std::optional<std::string>, bool> reply) {
  forward(&HSAccountService::retailStoreDemoMode, std::move(reply));
}

void HSAccountServiceForwarder::nimboDSID(Reply<std::optional<std::string>> reply) {
  forward(&HSAccountService::nimboDSID, std::move(reply));
}

void HSAccountServiceForwarder::recommendedVantorIDForAccountSignIn(
    Reply<std::optional<std::string>> reply) {
  forward(&HSAccountService::recommendedVantorIDForAccountSignIn, std::move(reply));
}

void HSAccountServiceForwarder::getPasswordSettings(
    Reply<std::optional<Dictionary>, std::optional<Error>> reply) {
  forward(&HSAccountService::getPasswordSettings, std::move(reply));
}

void HSAccountServiceForwarder::updatePasswordSettings(std::optional<Dictionary> settings,
                                                       Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::updatePasswordSettings, std::move(settings), std::move(reply));
}

// Push and device set-up

void HSAccountServiceForwarder::registerDeviceTokenForEnvironmentNamed(
    std::string environmentName, Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::registerDeviceTokenForEnvironmentNamed, std::move(environmentName),
          std::move(reply));
}

void HSAccountServiceForwarder::getEnabledMediaTypes(
    Reply<bool, std::optional<Error>, std::int64_t> reply) {
  forward(&HSAccountService::getEnabledMediaTypes, std::move(reply));
}

void HSAccountServiceForwarder::enableAutoDownloadForEnvironmentNamed(
    std::string environmentName, Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::enableAutoDownloadForEnvironmentNamed, std::move(environmentName),
          std::move(reply));
}

void HSAccountServiceForwarder::disableAutoDownload(Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::disableAutoDownload, std::move(reply));
}

void HSAccountServiceForwarder::isRegisteredForAccount(
    std::uint64_t dsID, std::int64_t andMask, Reply<bool, std::optional<Error>, bool> reply) {
  forward(&HSAccountService::isRegisteredForAccount, dsID, andMask, std::move(reply));
}

void HSAccountServiceForwarder::handlePushNotificationMessage(Dictionary message, Done reply) {
  forward(&HSAccountService::handlePushNotificationMessage, std::move(message), std::move(reply));
}

void HSAccountServiceForwarder::completeSetupWithResponse(Dictionary response,
                                                          Reply<bool, std::optional<Error>> reply) {
  forward(&HSAccountService::completeSetupWithResponse, std::move(response), std::move(reply));
}

}  // namespace tallow
