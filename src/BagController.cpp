#include "src/BagController.h"

#include <algorithm>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/CookieStorage.h"
#include "src/StoreFrontController.h"

namespace tallow {

ClientRegistry<BagController>& BagController::registry() {
  static auto& registry = *new ClientRegistry<BagController>(
      {"bagControllerForClient:", "controller"},
      [](BagController& controller) { controller._forceLoadBagForUpdate(); });
  return registry;
}

std::shared_ptr<BagController> BagController::bagControllerForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClient(client);
}

std::shared_ptr<BagController> BagController::bagControllerForClientIfAtHand(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClientIfAtHand(client);
}

std::shared_ptr<BagController> BagController::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  std::shared_ptr<BagController> controller(new BagController(std::move(client)));
  const std::weak_ptr<BagDelegate> delegate = controller;
  controller->_production.bag =
      Bag::initWithBagType(kBagTypeProduction, controller->storeClient(), delegate);
  controller->_sandbox.bag =
      Bag::initWithBagType(kBagTypeSandbox, controller->storeClient(), delegate);
  return controller;
}

BagController::BagController(std::shared_ptr<const HSStoreClient> client)
    : ClientController(std::move(client)) {}

const BagController::ObservedBag* BagController::observedBag(std::uint64_t bagType) const {
  switch (bagType) {
    case kBagTypeProduction:
      return &_production;
    case kBagTypeSandbox:
      return &_sandbox;
    default:
      return nullptr;
  }
}

BagController::ObservedBag* BagController::observedBag(std::uint64_t bagType) {
  return const_cast<ObservedBag*>(std::as_const(*this).observedBag(bagType));
}

std::shared_ptr<Bag> BagController::bagWithType(std::uint64_t bagType) const {
  const ObservedBag* observed = observedBag(bagType);
  return observed != nullptr ? observed->bag : nullptr;
}

void BagController::invalidateAllBags() {
  logLevel(1, "%@: Asked to invalidate all bags", kClassName);
  _production.bag->invalidate();
  _sandbox.bag->invalidate();
}

void BagController::addBagObserver(std::shared_ptr<HSURLBagObserver> observer,
                                   std::uint64_t forBagType) {
  ObservedBag* observed = observedBag(forBagType);
  if (observer == nullptr || observed == nullptr) return;
  const std::lock_guard lock(observed->observersLock);
  observed->observers.push_back(std::move(observer));
}

void BagController::removeBagObserver(const std::shared_ptr<HSURLBagObserver>& observer,
                                      std::uint64_t forBagType) {
  ObservedBag* observed = observedBag(forBagType);
  if (observer == nullptr || observed == nullptr) return;
  const std::lock_guard lock(observed->observersLock);
  std::erase(observed->observers, observer);
}

void BagController::bagDidUpdateWithSuccess(const std::shared_ptr<Bag>& bag, bool success,
                                            const std::optional<Error>& error,
                                            const std::optional<Dictionary>& accepted) {
  std::vector<std::shared_ptr<HSURLBagObserver>> observers;
  if (ObservedBag* observed = observedBag(bag->bagType())) {
    const std::lock_guard lock(observed->observersLock);
    observers = observed->observers;
  }
  for (const auto& observer : observers) observer->urlBagDidUpdateWithSuccess(success, error);
  // An update counts as successful also when the download succeeded, the new bag was refused and an
  // old one is held: then there is nothing new to ping. What the load brought is read as it was
  // accepted, for the bag itself may have been invalidated since, and would be loaded again.
  if (success) pingClientID(accepted.value_or(Dictionary()));
}

void BagController::_forceLoadBagForUpdate() {
  logLevel(1, "%@: Outfitter updated, force loading the bag", kClassName);
  invalidateAllBags();
  _production.bag->loadBagIfNeededAndPerformBlock(
      [](Bag& bag, bool valid, bool alreadyValid, const auto&, const auto& error) {
        logLevel(1, "%@: Outfitter updated, done force loading the bag: %@ %d %d %@", kClassName,
                 bag, valid, alreadyValid, error);
      });
}

void BagController::pingClientID(const Dictionary& bag) {
  const Value& pingURLs = bag["pingUrls"];
  if (pingURLs.isNil()) {
    logLevel(3, "%@: Not pinging clientID, no pingUrls", kClassName);
    return;
  }
  if (isTooSoonToPing()) return;
  const Array* entries = pingURLs.array();
  if (entries == nullptr) {
    logLevel(3, "%@: Not pinging clientID, pingUrls is a %@", kClassName, pingURLs.typeName());
    return;
  }
  for (const Value& entry : *entries)
    if (!ping(entry)) return;
}

bool BagController::isTooSoonToPing() const {
  const Value stored =
      Preferences::shared().copyAppValue(kDefaultsNextClientIDPingDateKey, kDaemonDefaultsID);
  const Date* next = stored.date();
  const Date now = Clock::shared().now();
  if (next == nullptr || !(next->secondsSince(now) > 0.0)) return false;
  logLevel(1, "%@: Too soon to ping (Next=%@ / Now=%@)", kClassName, *next, now);
  return true;
}

bool BagController::ping(const Value& entry) {
  const std::string* address = entry.string();
  const std::optional<URL> url = address != nullptr ? URL::parse(*address) : std::nullopt;
  if (!url) {
    logLevel(1, "%@: Failed to ping %@ %@", kClassName, entry,
             makeError(kClassName, -1, "The entry is not a URL"));
    return false;
  }
  const auto pass = std::make_shared<HSOperation>(storeClient());
  const auto operation = HSStoreURLOperation::pingOperationWithUrl(*url, storeClient());
  // The address comes out of an accepted bag, and the ping asks that bag nothing more: an earlier
  // ping of this pass may have invalidated it, and loading it from here would start the next pass.
  operation->setRequiredBagType(0);
  std::optional<Error> error;
  if (!pass->runSubOperation(*operation, &error)) {
    logLevel(1, "%@: Failed to ping %@ %@", kClassName, entry, error);
    return false;
  }
  logLevel(3, "%@: Pinged %@", kClassName, entry);
  if (const HTTPResponse* response = operation->response()) {
    takeStoreFrontFromResponse(*response);
    takeCookieFromResponse(*operation, *response);
    storeNextPingDate(*response);
  }
  return true;
}

void BagController::takeStoreFrontFromResponse(const HTTPResponse& response) {
  // The store request has handed it in already; setting it once more changes nothing.
  const auto storeFrontID = HSStoreURLOperation::storeFrontSetBy(response);
  if (!storeFrontID) return;
  if (const auto controller = StoreFrontController::storefrontControllerForClient(storeClient()))
    controller->setStoreFrontID(storeFrontID);
  logLevel(3, "%@: setStoreFrontID %@", kClassName, storeFrontID);
}

void BagController::takeCookieFromResponse(const HSStoreURLOperation& operation,
                                           const HTTPResponse& response) {
  auto cookie = response.header("Set-Cookie");
  if (!cookie) cookie = response.header("set-cookie");  // as HTTP/2 has it; no other spelling
  if (!cookie) return;
  // The wrapper itself is handed over as the headers, not the dictionary inside it, so the jar
  // finds no Set-Cookie in it. That is intended: the store request has handed the ping's cookies in
  // already, and a second helping would only invalidate the bag once more.
  const Dictionary headers{{"Set-Cookie", *cookie}};
  const Dictionary wrapper{{"headers", headers}, {"url", response.url.absoluteString()}};
  if (const auto storage = CookieStorage::storageForClient(storeClient()))
    storage->consumeCookiesWithHTTPHeaders(wrapper, operation.request().primaryURL());
  logLevel(3, "%@: setCookie %@", kClassName, cookie);
}

void BagController::storeNextPingDate(const HTTPResponse& response) {
  const std::optional<double> maxAge = response.cacheControlMaxAgeSeconds();
  if (!maxAge) return;  // the next successful update pings again
  const Date next = Clock::shared().now().addingSeconds(*maxAge);
  Preferences& preferences = Preferences::shared();
  preferences.setValue(kDefaultsNextClientIDPingDateKey, next, kDaemonDefaultsID,
                       Preferences::User::Current, Preferences::Host::Any);
  if (preferences.synchronize(kDaemonDefaultsID, Preferences::User::Current,
                              Preferences::Host::Any)) {
    logLevel(3, "%@: Wrote NextClientIDPingDate %@", kClassName, next);
  } else {
    logLevel(1, "%@: Failed to write NextClientIDPingDate %@", kClassName, next);
  }
}

}  // namespace tallow
