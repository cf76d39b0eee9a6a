#include "src/AccountService/AccountServiceInterface.h"

#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "src/BagController.h"
#include "src/BagPolicy.h"
#include "src/CookieStorage.h"
#include "src/OrvController.h"
#include "src/StoreFrontController.h"

namespace tallow {

namespace {

// Replies may be absent and are then skipped.
template <class Reply, class... Results>
void send(const Reply& reply, Results&&... results) {
  if (reply) reply(std::forward<Results>(results)...);
}

bool requiresSilentOrvAction(const Dictionary& bag, const URL& url) {
  return BagPolicy::urlRequiresAMD(bag, url) || BagPolicy::urlRequiresMD(bag, url);
}

}  // namespace

AccountServiceInterface::AccountServiceInterface(std::shared_ptr<const HSStoreClient> storeClient)
    : HSServiceClientInterface(std::move(storeClient)) {}

std::shared_ptr<Bag> AccountServiceInterface::_bag() const {
  const auto controller = BagController::bagControllerForClient(storeClient());
  return controller ? controller->bagWithType(storeClient()->requiredBagType) : nullptr;
}

std::optional<Dictionary> AccountServiceInterface::bagDictionaryIfAtHand() const {
  const auto controller = BagController::bagControllerForClientIfAtHand(storeClient());
  const auto bag = controller ? controller->bagWithType(storeClient()->requiredBagType) : nullptr;
  return bag ? bag->dictionaryIfValidNow() : std::nullopt;
}

// Bag

void AccountServiceInterface::valueForURLBagKey(std::string key, Reply<Value> reply) {
  nowOrOnRequestQueue(
      [&] {
        const auto bag = bagDictionaryIfAtHand();
        if (bag) send(reply, (*bag)[key]);
        return bag.has_value();
      },
      [this, key, reply] {
        const auto bag = _bag();
        send(reply, bag ? bag->valueForKey(key) : Value());
      });
}

void AccountServiceInterface::urlIsTrustedByURLBag(std::optional<URL> url, Reply<bool> reply) {
  nowOrOnRequestQueue(
      [&] {
        const auto bag = bagDictionaryIfAtHand();
        if (bag) send(reply, url && BagPolicy::urlIsTrusted(*bag, *url));
        return bag.has_value();
      },
      [this, url, reply] {
        const auto bag = _bag();
        send(reply, bag && bag->urlIsTrusted(url));
      });
}

void AccountServiceInterface::needsSilentOrvActionForURL(std::optional<URL> url,
                                                         Reply<bool> reply) {
  nowOrOnRequestQueue(
      [&] {
        const auto bag = bagDictionaryIfAtHand();
        if (bag) send(reply, url && requiresSilentOrvAction(*bag, *url));
        return bag.has_value();
      },
      [this, url, reply] {
        const auto bag = _bag();
        send(reply, bag && (bag->urlRequiresAMD(url) || bag->urlRequiresMD(url)));
      });
}

void AccountServiceInterface::loadURLBagWithType(std::uint64_t bagType,
                                                 Reply<bool, bool, std::optional<Error>> reply) {
  onRequestQueue([this, bagType, reply] {
    const auto controller = BagController::bagControllerForClient(storeClient());
    const auto bag = controller ? controller->bagWithType(bagType) : nullptr;
    if (!bag) {
      send(reply, false, false, makeError(kClassName, -1, "Failed to load bag"));
      return;
    }
    bool isValid = false;
    // What is replied as success is the load step's third value: whether no load was needed.
    // Callers have always been given that one, and look at the validity.
    bool alreadyValid = false;
    std::optional<Error> failure;
    bag->loadBagIfNeededAndPerformBlock(
        [&](Bag&, bool valid, bool already, const auto&, const std::optional<Error>& error) {
          isValid = valid;
          alreadyValid = already;
          failure = error;
        },
        this);
    send(reply, isValid, alreadyValid, failure);
  });
}

void AccountServiceInterface::invalidateAllBags(Done reply) {
  onRequestQueue([this, reply] {
    if (const auto controller = BagController::bagControllerForClient(storeClient()))
      controller->invalidateAllBags();
    send(reply);
  });
}

void AccountServiceInterface::regexWithKey(std::string key, std::string matchesString,
                                           Reply<bool> reply) {
  onRequestQueue([this, key = std::move(key), matchesString = std::move(matchesString), reply] {
    const auto bag = _bag();
    send(reply, bag && bag->regexWithKey(key, matchesString));
  });
}

void AccountServiceInterface::isValid(Reply<bool> reply) {
  onRequestQueue([this, reply] {
    const auto bag = _bag();
    send(reply, bag && bag->isValid());
  });
}

void AccountServiceInterface::dictionary(Reply<std::optional<Dictionary>> reply) {
  onRequestQueue([this, reply] {
    const auto bag = _bag();
    send(reply, bag ? bag->dictionary() : std::nullopt);
  });
}

void AccountServiceInterface::addURLBagObserver(std::shared_ptr<HSURLBagObserver> observer,
                                                Done reply) {
  onRequestQueue([this, observer = std::move(observer), reply] {
    if (const auto controller = BagController::bagControllerForClient(storeClient()))
      controller->addBagObserver(observer, storeClient()->requiredBagType);
    send(reply);
  });
}

void AccountServiceInterface::removeURLBagObserver(std::shared_ptr<HSURLBagObserver> observer,
                                                   Done reply) {
  onRequestQueue([this, observer = std::move(observer), reply] {
    if (const auto controller = BagController::bagControllerForClient(storeClient()))
      controller->removeBagObserver(observer, storeClient()->requiredBagType);
    send(reply);
  });
}

void AccountServiceInterface::shouldSendGUIDWithRequestForURL(std::optional<URL> url,
                                                              Reply<bool> reply) {
  onRequestQueue([this, url, reply] { send(reply, shouldSendGUIDWithRequestForURL(url)); });
}

bool AccountServiceInterface::shouldSendGUIDWithRequestForURL(const std::optional<URL>& url) const {
  const auto bag = _bag();
  return bag && bag->sendGUIDWithURL(url);
}

// Cookies and request headers

void AccountServiceInterface::consumeCookiesWithHTTPHeaders(Dictionary headers,
                                                            std::optional<URL> fromURL,
                                                            Done reply) {
  onRequestQueue([this, headers = std::move(headers), fromURL, reply] {
    if (const auto storage = CookieStorage::storageForClient(storeClient()))
      storage->consumeCookiesWithHTTPHeaders(headers, fromURL);
    OrvController::sharedController().processHTTPHeaders(headers, storeClient());
    send(reply);
  });
}

Dictionary AccountServiceInterface::composedHeadersForURL(const std::optional<URL>& url,
                                                          std::optional<std::uint64_t> dsID,
                                                          bool includeOrvHeaders) const {
  Dictionary machineHeaders;
  Dictionary accountHeaders;
  if (includeOrvHeaders) {
    OrvController& orv = OrvController::sharedController();
    const auto bag = _bag();
    if (bag && bag->urlRequiresAMD(url)) machineHeaders = orv.httpRequestHeaders();
    if (bag && bag->urlRequiresMD(url))
      accountHeaders = orv.httpRequestHeadersForDSID(dsID).value_or(Dictionary());
  }
  const auto storage = CookieStorage::storageForClient(storeClient());
  const Dictionary cookieHeaders = storage ? storage->httpHeadersForURL(url) : Dictionary();
  // On a clash the account's set wins over the machine's, and both over the cookies.
  return cookieHeaders.merging(machineHeaders).merging(accountHeaders);
}

std::optional<Dictionary> AccountServiceInterface::composedHeadersIfAtHand(
    const std::optional<URL>& url, bool includeOrvHeaders) const {
  if (includeOrvHeaders) {
    const auto bag = bagDictionaryIfAtHand();
    // Identity headers come from the controller's queue, which may be in a network exchange.
    if (!bag || (url && requiresSilentOrvAction(*bag, *url))) return std::nullopt;
  }
  const auto storage = CookieStorage::storageForClientIfAtHand(storeClient());
  return storage ? storage->httpHeadersForURLIfIdle(url) : std::nullopt;
}

void AccountServiceInterface::httpHeadersForURL(std::optional<URL> url,
                                                std::optional<std::uint64_t> forDSID,
                                                bool includeOrvHeaders, Reply<Dictionary> reply) {
  const auto answer = [](const std::optional<URL>& forURL, const Dictionary& headers,
                         const Reply<Dictionary>& to) {
    logLevel(3, "%@: httpHeadersForURL: %@ headers: %@", kClassName, forURL, headers);
    send(to, headers);
  };
  nowOrOnRequestQueue(
      [&] {
        const auto headers = composedHeadersIfAtHand(url, includeOrvHeaders);
        if (headers) answer(url, *headers, reply);
        return headers.has_value();
      },
      [this, url, forDSID, includeOrvHeaders, reply, answer] {
        answer(url, composedHeadersForURL(url, forDSID, includeOrvHeaders), reply);
      });
}

void AccountServiceInterface::deleteAllCookies(Done reply) {
  onRequestQueue([this, reply] {
    if (const auto storage = CookieStorage::storageForClient(storeClient()))
      storage->deleteAllCookies();
    send(reply);
  });
}

// Storefront

void AccountServiceInterface::storeFront(Reply<std::optional<std::string>> reply) {
  onRequestQueue([this, reply] {
    const auto controller = StoreFrontController::storefrontControllerForClient(storeClient());
    send(reply, controller ? controller->storeFrontID() : std::nullopt);
  });
}

void AccountServiceInterface::setStoreFrontID(std::optional<std::string> storeFrontID, Done reply) {
  onRequestQueue([this, storeFrontID = std::move(storeFrontID), reply] {
    if (const auto controller = StoreFrontController::storefrontControllerForClient(storeClient()))
      controller->setStoreFrontID(storeFrontID);
    send(reply);
  });
}

}  // namespace tallow
