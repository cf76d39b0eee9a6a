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

}  // namespace tallow
