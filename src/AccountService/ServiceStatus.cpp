#include "src/AccountService/ServiceStatus.h"

#include <vector>

#include "platform/PropertyList/JSON.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/AccountStore.h"
#include "src/BagController.h"
#include "src/CookieStorage.h"
#include "src/StoreFrontController.h"

namespace tallow {

namespace {

Dictionary bagStatus(const std::string& client, const Bag& bag) {
  const std::optional<Date> validUntil = bag.validUntilDate();
  return Dictionary{{"client", client},
                    {"type", bag.bagType()},
                    {"valid", bag.isValid()},
                    {"validUntil", validUntil}};
}

Array bagsStatus() {
  std::vector<Value> bags;
  for (const auto& [client, controller] : BagController::registry().entries()) {
    bags.emplace_back(bagStatus(client, *controller->bagWithType(kBagTypeProduction)));
    bags.emplace_back(bagStatus(client, *controller->bagWithType(kBagTypeSandbox)));
  }
  return Array(std::move(bags));
}

Array jarsStatus() {
  std::vector<Value> jars;
  for (const auto& [client, storage] : CookieStorage::registry().entries())
    jars.emplace_back(Dictionary{{"client", client}, {"cookies", storage->cookieCount()}});
  return Array(std::move(jars));
}

Array storefrontsStatus() {
  std::vector<Value> storefronts;
  for (const auto& [client, controller] : StoreFrontController::registry().entries())
    storefronts.emplace_back(
        Dictionary{{"client", client}, {"storefront", controller->storeFrontID()}});
  return Array(std::move(storefronts));
}

// Whose accounts they are, not what they are called.
Array accountStoresStatus() {
  std::vector<Value> stores;
  for (const auto& [key, store] : AccountStore::registry().entries()) {
    const auto primary = store->primaryAccount();
    stores.emplace_back(
        Dictionary{{"client", store->storeClient()->identifier},
                   {"clientType", store->storeClient()->clientType},
                   {"bagType", store->storeClient()->requiredBagType},
                   {"accounts", store->accounts().size()},
                   {"primary", primary ? Value(primary->dsID()) : Value()},
                   {"token", primary != nullptr && primary->hasValidStrongToken()}});
  }
  return Array(std::move(stores));
}

}  // namespace

std::string serviceStatusText(bool isDaemon) {
  return JSON::encode(Dictionary{{"version", TALLOW_VERSION},
                                 {"instance", isDaemon ? "daemon" : "agent"},
                                 {"transactions", XPCTransaction::count()},
                                 {"accounts", accountStoresStatus()},
                                 {"bags", bagsStatus()},
                                 {"jars", jarsStatus()},
                                 {"storefronts", storefrontsStatus()}});
}

}  // namespace tallow
