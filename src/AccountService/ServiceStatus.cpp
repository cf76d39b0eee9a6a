#include "src/AccountService/ServiceStatus.h"

#include <cstdint>
#include <set>
#include <vector>

#include "platform/Base/Clock.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/RecentFailures.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/AccountStore.h"
#include "src/BagController.h"
#include "src/CookieStorage.h"
#include "src/OrvController.h"
#include "src/OrvExchange.h"
#include "src/StoreFrontController.h"

namespace tallow {

namespace {

// More are counted by nobody who reads a status.
constexpr std::size_t kMostAccounts = 100;

// How long a token is worth something, never the token.
const char* tokenStatus(const HSStoreAccount& account) {
  if (!account.isAuthenticated()) return account.isSignedIn() ? "expired" : "none";
  return account.hasValidStrongToken() ? "valid" : "expired";
}

Dictionary bagStatus(const std::string& client, const Bag& bag) {
  const std::optional<Date> validUntil = bag.validUntilDate();
  const std::optional<Bag::Source> source = bag.source();
  return Dictionary{
      {"client", client},
      {"type", bag.bagType()},
      {"valid", bag.isValid()},
      {"validUntil", validUntil},
      {"source",
       source && source->bootstrapURL ? Value(source->bootstrapURL->absoluteString()) : Value()},
      {"kept", source && source->isPersistedCopy}};
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
Array accountsStatus() {
  std::vector<Value> accounts;
  for (const auto& [key, store] : AccountStore::registry().entries()) {
    for (const auto& account : store->accounts()) {
      accounts.emplace_back(Dictionary{{"client", store->storeClient()->identifier},
                                       {"clientType", store->storeClient()->clientType},
                                       {"bagType", store->storeClient()->requiredBagType},
                                       {"dsid", account->dsID()},
                                       {"kind", account->kind()},
                                       {"primary", store->isPrimaryAccount(*account)},
                                       {"token", tokenStatus(*account)}});
      if (accounts.size() == kMostAccounts) return Array(std::move(accounts));
    }
  }
  return Array(std::move(accounts));
}

Array queuesStatus() {
  std::vector<Value> queues;
  for (const auto& [label, depth] : SerialQueue::busyQueues())
    queues.emplace_back(Dictionary{{"queue", label}, {"blocks", depth}});
  if (const std::size_t count = HSOperationQueue::mainQueue().operationCount(); count > 0)
    queues.emplace_back(Dictionary{{"queue", "store requests"}, {"blocks", count}});
  return Array(std::move(queues));
}

Array failuresStatus() {
  std::vector<Value> failures;
  for (const auto& failure : RecentFailures::shared().list())
    failures.emplace_back(Dictionary{{"date", failure.date},
                                     {"kind", nameOf(failureKindOf(failure.error))},
                                     {"times", failure.times},
                                     {"client", failure.client},
                                     {"operation", failure.operation},
                                     {"domain", failure.error.domain},
                                     {"code", failure.error.code},
                                     {"text", failure.error.localizedDescription()},
                                     {"advice", adviceFor(failureKindOf(failure.error))}});
  return Array(std::move(failures));
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
        {"provisioned", status.provisionedDSIDs ? Value(provisioned.contains(dsID)) : Value()}});
  return Array(std::move(identities));
}

}  // namespace

Dictionary serviceStatus(bool isDaemon, double startedAt) {
  const double uptime = Clock::shared().monotonicSeconds() - startedAt;
  const OrvController::Status identity = OrvController::sharedController().status();
  return Dictionary{{"version", TALLOW_VERSION},
                    {"instance", isDaemon ? "daemon" : "agent"},
                    {"started", Clock::shared().now().addingSeconds(-uptime)},
                    {"uptimeSeconds", static_cast<std::int64_t>(uptime)},
                    {"transactions", XPCTransaction::count()},
                    {"accounts", accountsStatus()},
                    {"bags", bagsStatus()},
                    {"failures", failuresStatus()},
                    {"identities", identitiesStatus(identity)},
                    {"identityLibrary", identity.library},
                    {"identitySyncState", identity.hasSyncState},
                    {"jars", jarsStatus()},
                    {"queues", queuesStatus()},
                    {"storefronts", storefrontsStatus()}};
}

}  // namespace tallow
