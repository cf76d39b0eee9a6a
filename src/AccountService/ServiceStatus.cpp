#include "src/AccountService/ServiceStatus.h"

#include <cstdint>
#include <set>
#include <vector>

#include "platform/PropertyList/JSON.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/AccountStore.h"
#include "src/BagController.h"
#include "src/CookieStorage.h"
#include "src/OrvController.h"
#include "src/OrvExchange.h"
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

// The machine itself, whoever is signed in, and whatever else is provisioned.
Array identitiesStatus(const OrvController::Status& status) {
  std::set<std::uint64_t> dsIDs{kAnonymousDSID};
  for (const auto& [key, store] : AccountStore::registry().entries())
    if (const auto primary = store->primaryAccount(); primary && primary->dsID())
      dsIDs.insert(*primary->dsID());
  std::set<std::uint64_t> provisioned;
  if (status.provisionedDSIDs)
    provisioned.insert(status.provisionedDSIDs->begin(), status.provisionedDSIDs->end());
  dsIDs.insert(provisioned.begin(), provisioned.end());
  std::vector<Value> identities;
  identities.reserve(dsIDs.size());
  for (const std::uint64_t dsID : dsIDs)
    identities.emplace_back(Dictionary{
        {"dsid", dsID},
        {"provisioned", status.provisionedDSIDs ? Value(provisioned.contains(dsID)) : Value()},
        {"syncState", status.hasSyncState}});
  return Array(std::move(identities));
}

}  // namespace

std::string serviceStatusText(bool isDaemon) {
  const OrvController::Status identity = OrvController::sharedController().status();
  return JSON::encode(Dictionary{{"version", TALLOW_VERSION},
                                 {"instance", isDaemon ? "daemon" : "agent"},
                                 {"transactions", XPCTransaction::count()},
                                 {"accounts", accountStoresStatus()},
                                 {"bags", bagsStatus()},
                                 {"identities", identitiesStatus(identity)},
                                 {"identityLibrary", identity.library},
                                 {"jars", jarsStatus()},
                                 {"storefronts", storefrontsStatus()}});
}

}  // namespace tallow
