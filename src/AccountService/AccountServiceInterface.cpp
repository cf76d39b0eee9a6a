#include "src/AccountService/AccountServiceInterface.h"

#include <utility>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/BagController.h"
#include "src/BagPolicy.h"
#include "src/CookieStorage.h"
#include "src/OrvController.h"
#include "src/OrvExchange.h"
#include "src/StoreFrontController.h"

namespace tallow {

namespace {

// Which machine-identity headers a URL needs. A nil URL needs none.
struct IdentityNeed {
  bool ofMachine = false, ofAccount = false;

  IdentityNeed(const Dictionary& bag, const std::optional<URL>& url)
      : ofMachine(url && BagPolicy::urlRequiresAMD(bag, *url)),
        ofAccount(url && BagPolicy::urlRequiresMD(bag, *url)) {}
};

// On a clash the account's set wins over the machine's, and both over the cookies.
Dictionary merged(const Dictionary& cookies, const Dictionary& ofMachine,
                  const std::optional<Dictionary>& ofAccount) {
  return cookies.merging(ofMachine).merging(ofAccount.value_or(Dictionary()));
}

}  // namespace

AccountServiceInterface::AccountServiceInterface(std::shared_ptr<const HSStoreClient> storeClient)
    : HSServiceClientInterface(std::move(storeClient)) {}

std::shared_ptr<Bag> AccountServiceInterface::_bag() const {
  const auto controller = BagController::bagControllerForClient(storeClient());
  return controller ? controller->bagWithType(storeClient()->requiredBagType) : nullptr;
}

Dictionary AccountServiceInterface::bagDictionary() const {
  const auto bag = _bag();
  return bag ? bag->validDictionary() : Dictionary();
}

std::shared_ptr<Bag> AccountServiceInterface::bagIfAtHand() const {
  const auto controller = BagController::bagControllerForClientIfAtHand(storeClient());
  return controller ? controller->bagWithType(storeClient()->requiredBagType) : nullptr;
}

std::optional<Dictionary> AccountServiceInterface::bagDictionaryIfAtHand() const {
  const auto bag = bagIfAtHand();
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
  const auto answer = [](const Dictionary& bag, const std::optional<URL>& forURL,
                         const Reply<bool>& to) {
    const IdentityNeed need(bag, forURL);
    send(to, need.ofMachine || need.ofAccount);
  };
  nowOrOnRequestQueue(
      [&] {
        const auto bag = bagDictionaryIfAtHand();
        if (bag) answer(*bag, url, reply);
        return bag.has_value();
      },
      // A nil URL is no reason to load the bag.
      [this, url, reply, answer] { answer(url ? bagDictionary() : Dictionary(), url, reply); });
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
  nowOrOnRequestQueue(
      [&] {
        const auto bag = bagIfAtHand();
        const auto sends = bag && url ? bag->sendGUIDWithURLIfAtHand(*url) : std::nullopt;
        if (sends) send(reply, *sends);
        return sends.has_value();
      },
      [this, url, reply] { send(reply, shouldSendGUIDWithRequestForURL(url)); });
}

bool AccountServiceInterface::shouldSendGUIDWithRequestForURL(const std::optional<URL>& url) const {
  const auto bag = _bag();
  return bag && bag->sendGUIDWithURL(url);
}

// Cookies and request headers

void AccountServiceInterface::consumeCookiesWithHTTPHeaders(Dictionary headers,
                                                            std::optional<URL> fromURL,
                                                            Done reply) {
  const bool setsCookies = CookieStorage::setsCookies(headers);
  const auto takeIn = [this, headers = std::move(headers), fromURL,
                       reply](const std::shared_ptr<CookieStorage>& storage) {
    if (storage) storage->consumeCookiesWithHTTPHeaders(headers, fromURL);
    OrvController::sharedController().processHTTPHeaders(headers, storeClient());
    send(reply);
  };
  nowOrOnRequestQueue(
      [&] {
        const auto storage = CookieStorage::storageForClientIfAtHand(storeClient());
        if (!storage || setsCookies) return false;
        takeIn(storage);
        return true;
      },
      [this, takeIn] { takeIn(CookieStorage::storageForClient(storeClient())); });
}

Dictionary AccountServiceInterface::composedHeadersForURL(const std::optional<URL>& url,
                                                          std::optional<std::uint64_t> dsID,
                                                          bool includeOrvHeaders) const {
  Dictionary ofMachine;
  std::optional<Dictionary> ofAccount;
  if (includeOrvHeaders && url) {
    // At the first call of a client, the jar is opened while the bag is read and checked.
    if (storeClient() && !CookieStorage::storageForClientIfAtHand(storeClient()))
      WorkerPool::shared().async(
          [client = storeClient()] { CookieStorage::storageForClient(client); });
    // One look at the bag for both, so that the two sets are always of one and the same.
    const IdentityNeed need(bagDictionary(), url);
    OrvController& orv = OrvController::sharedController();
    if (need.ofMachine) ofMachine = orv.httpRequestHeaders();
    if (need.ofAccount) ofAccount = orv.httpRequestHeadersForDSID(dsID);
  }
  const auto storage = CookieStorage::storageForClient(storeClient());
  return merged(storage ? storage->httpHeadersForURL(url) : Dictionary(), ofMachine, ofAccount);
}

std::optional<Dictionary> AccountServiceInterface::composedHeadersIfAtHand(
    const std::optional<URL>& url, std::optional<std::uint64_t> dsID,
    bool includeOrvHeaders) const {
  const auto storage = CookieStorage::storageForClientIfAtHand(storeClient());
  if (!storage) return std::nullopt;
  // Before the passwords, each of which is made once: a client whose jar makes a reader wait is
  // answered from its queue, identity and all.
  const auto cookies = storage->httpHeadersForURLIfIdle(url);
  if (!cookies) return std::nullopt;
  Dictionary ofMachine;
  std::optional<Dictionary> ofAccount;
  if (includeOrvHeaders && url) {
    const auto bag = bagDictionaryIfAtHand();
    if (!bag) return std::nullopt;
    const IdentityNeed need(*bag, url);
    OrvController& orv = OrvController::sharedController();
    std::vector<std::uint64_t> whose;
    if (need.ofMachine) whose.push_back(kAnonymousDSID);
    if (need.ofAccount && dsID) whose.push_back(*dsID);
    // An exchange with the store may be going on.
    auto headers = orv.httpRequestHeadersForDSIDsIfIdle(whose);
    if (!headers) return std::nullopt;
    if (need.ofAccount && dsID) ofAccount = std::move(headers->back());
    if (need.ofMachine) ofMachine = std::move(headers->front());
  }
  return merged(*cookies, ofMachine, ofAccount);
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
        const auto headers = composedHeadersIfAtHand(url, forDSID, includeOrvHeaders);
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
  nowOrOnRequestQueue(
      [&] {
        const auto controller =
            StoreFrontController::registry().entryForClientIfAtHand(storeClient());
        const auto id = controller ? controller->storeFrontIDIfIdle() : std::nullopt;
        if (id) send(reply, *id);
        return id.has_value();
      },
      [this, reply] {
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
