// A dictionary that is put under the keys of the account records, and of the record of announced
// push tokens. Whatever older versions, other programs or a person have left there: who has no DSID
// is no account, nobody is signed in by a token, writing what was read changes nothing, and what
// belongs to other stores and devices stays.

#include <algorithm>
#include <memory>
#include <vector>

#include "fuzz/FuzzTarget.h"
#include "fuzz/FuzzWorld.h"
#include "fuzz/Require.h"
#include "fuzz/SameValue.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSDevice.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/AccountStore.h"
#include "src/RegisterPushNotificationOperation.h"

using namespace tallow;

namespace {

constexpr const char* kMediaStoreDomain = "com.vantor.Harlow";

struct World : FuzzWorld {
  World() {
    HSServiceProxy::setLocalAccountService([](std::shared_ptr<const HSStoreClient> storeClient) {
      return std::make_shared<AccountServiceInterface>(std::move(storeClient));
    });
  }
  Value get(const char* key, const std::string& domain) {
    return preferences.copyValue(key, domain, Preferences::User::Current, Preferences::Host::Any);
  }
  void set(const char* key, const Value& value, const std::string& domain) {
    preferences.setValue(key, value, domain, Preferences::User::Current, Preferences::Host::Any);
  }

  // The bag, and a store that is content with whatever is announced.
  FuzzTransport transport{[](const HTTPRequest& request) {
    if (request.url.path() != "/bag") return encoded(Dictionary{{"status", 0}});
    return encoded(
        Dictionary{{"trustedDomains", Array{"store.example"}},
                   {"push-notifications",
                    Dictionary{{"register-success", "https://store.example/register"}}}});
  }};
};

std::vector<Dictionary> recordsOf(const AccountStore& store) {
  std::vector<Dictionary> records;
  for (const auto& account : store.accounts()) {
    const auto record = account->persistedStoreDictionary();
    REQUIRE(record && account->dsID().value_or(0) != 0 && !account->isAuthenticated());
    records.push_back(*record);
  }
  return records;
}

void checkAccounts(World& world, const Dictionary& records) {
  const auto client = FuzzWorld::client();
  client->clientType = std::clamp<std::int64_t>(records["type"].signedValue(), 0, 4);
  const std::string& domain = client->agentPreferencesDomain;
  world.set(kDefaultsPrimaryAccountKey, records["primary"], domain);
  world.set(kDefaultsKnownAccountsKey, records["known"], domain);
  world.set(kDefaultsPrimaryAccountMigratedKey, records["migrated"], domain);
  for (const char* key : {"Store Vantor ID", "Store DSID", "storefront"})
    world.set(key, records[key], kMediaStoreDomain);

  const auto store = AccountStore::initWithStoreClient(client);
  const auto before = recordsOf(*store);
  const auto primary = store->primaryAccount();
  if (primary) REQUIRE(store->accountWithDSID(primary->dsID()) != nullptr);
  store->writeAccountsToPersistedStore();
  const auto again = AccountStore::initWithStoreClient(client);
  REQUIRE(recordsOf(*again) == before);
  REQUIRE((again->primaryAccount() == nullptr) == (primary == nullptr));

  const Value written = world.get(kDefaultsPrimaryAccountKey, domain);
  REQUIRE(written.dictionary() != nullptr);
  if (const Dictionary* const table = records["primary"].dictionary())
    for (const auto& [type, accounts] : *table)
      if (accounts.dictionary() != nullptr && type != std::to_string(client->clientType))
        REQUIRE(isSame((*written.dictionary())[type], accounts));
}

void checkTokens(World& world, const Dictionary& records) {
  const Data token(std::string_view("token"));
  world.set(kDefaultsAutoPushRegisteredDeviceTokensKey, records["tokens"], kDaemonDefaultsID);
  const auto operation = std::make_shared<RegisterPushNotificationOperation>(
      Dictionary{{"1", 2}, {"2", token}}, FuzzWorld::client());
  std::optional<Error> error;
  REQUIRE(operation->runSyncReturningError(&error) && !error);
  WorkerPool::shared().waitUntilIdle();
  const Value written = world.get(kDefaultsAutoPushRegisteredDeviceTokensKey, kDaemonDefaultsID);
  const Dictionary* const now = written.dictionary();
  if (!HSDevice::shared().guid()) return;
  REQUIRE(now != nullptr);
  const std::string device = *HSDevice::shared().guid();
  const Dictionary* const table = records["tokens"].dictionary();
  std::size_t kept = 0;
  for (const auto& [pair, value] : *now) {
    if (pair.starts_with(device) && value == Value(token)) continue;
    REQUIRE(table != nullptr && isSame((*table)[pair], value));
    ++kept;
  }
  REQUIRE(now->count() == kept + 1 || now->count() == (table != nullptr ? table->count() : 0));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static World world;
  const auto decoded = PropertyList::decode(Data(std::span(data, size)));
  if (!decoded || decoded->dictionary() == nullptr) return 0;
  checkAccounts(world, *decoded->dictionary());
  checkTokens(world, *decoded->dictionary());
  return 0;
}
