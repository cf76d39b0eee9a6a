#include "src/StoreFrontController.h"

#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "src/BagController.h"

namespace tallow {

namespace {

// The browser's identifier is all lower case, its preferences domain is not. Only writing maps the
// one to the other; loading reads the identifier as it is. That asymmetry is kept: the browser
// itself owns the capitalised domain, and what it finds there must not come back to us as our own.
const std::string& preferencesDomainForWriting(const std::string& identifier) {
  static const std::string& lynxaDomain = *new std::string("com.vantor.Lynxa");
  return identifier == "com.vantor.lynxa" ? lynxaDomain : identifier;
}

}  // namespace

ClientRegistry<StoreFrontController>& StoreFrontController::registry() {
  static auto& registry =
      *new ClientRegistry<StoreFrontController>({"storeForClient:", "controller"});
  return registry;
}

std::shared_ptr<StoreFrontController> StoreFrontController::storefrontControllerForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  return registry().entryForClient(client);
}

std::shared_ptr<StoreFrontController> StoreFrontController::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  return std::shared_ptr<StoreFrontController>(new StoreFrontController(std::move(client)));
}

StoreFrontController::StoreFrontController(std::shared_ptr<const HSStoreClient> client)
    : ClientController(std::move(client)),
      _storeFrontID(Preferences::shared()
                        .copyValue(kDefaultsStorefrontKey, *storeClient()->identifier,
                                   Preferences::User::Current, Preferences::Host::Any)
                        .stringOrNil()) {}

std::optional<std::string> StoreFrontController::storeFrontID() const {
  const std::lock_guard lock(_lock);
  return _storeFrontID;
}

std::optional<std::optional<std::string>> StoreFrontController::storeFrontIDIfIdle() const {
  const std::unique_lock lock(_lock, std::try_to_lock);
  std::optional<std::optional<std::string>> id;
  if (lock) id.emplace(_storeFrontID);
  return id;
}

void StoreFrontController::setStoreFrontID(const std::optional<std::string>& storeFrontID) {
  {
    const std::lock_guard lock(_lock);
    // Nil is never equal, not even to nil: clearing what is not set still goes all the way.
    if (_storeFrontID && storeFrontID && *_storeFrontID == *storeFrontID) return;
    logLevel(3, "%@: setStoreFrontID:%@ changing store front from %@ to %@", kClassName,
             storeFrontID, _storeFrontID, storeFrontID);
    _storeFrontID = storeFrontID;
    const std::string& domain = preferencesDomainForWriting(*storeClient()->identifier);
    Preferences& preferences = Preferences::shared();
    preferences.setValue(kDefaultsStorefrontKey, storeFrontID, domain, Preferences::User::Current,
                         Preferences::Host::Any);
    // The flush names another user and host than the write. The write is durable on its own; this
    // is the flush that readers of the any-user domain have always been given, and it stays.
    preferences.synchronize(domain, Preferences::User::Any, Preferences::Host::Current);
  }
  // Outside the lock: to find the controller may mean to load a changed client's bag, and a load
  // asks for the storefront.
  if (const auto bagController = BagController::bagControllerForClient(storeClient()))
    bagController->invalidateAllBags();
}

void StoreFrontController::setStoreFrontIDWithInfo(const Dictionary& info) {
  setStoreFrontID(info["storeFrontID"].stringOrNil());
}

}  // namespace tallow
