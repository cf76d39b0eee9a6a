// How an account store is kept in the preferences. In the agent domain of its client, for the
// current user and any host:
//
//   "PrimaryAccount"          a dictionary by client type of dictionaries by bag type of account
//                             records ("0", "1", ...): each store has an entry of its own
//   "KnownAccounts"           an array of account records; one for all stores of the domain, and
//                             whoever writes last writes all of it
//   "PrimaryAccountMigrated"  true once it has been looked whether an older version left anything
//
// Older versions kept one record, flat, under "PrimaryAccount" in the domain of the client's
// identifier or of its agent; the media store keeps its account in settings of its own.

#include <utility>

#include "platform/VendBase/DefaultsKeys.h"
#include "src/AccountService/AccountStore.h"

namespace tallow {

namespace {

constexpr const char* kMediaStoreDomain = "com.vantor.Harlow";

Result<Value> currentUserValue(const char* key, const std::string& domain) {
  return Preferences::shared().tryToCopyValue(key, domain, Preferences::Host::Any);
}

// The entry, or nil where the value is no dictionary.
Value entry(const Value& value, const std::string& key) {
  return value.dictionary() != nullptr ? (*value.dictionary())[key] : Value();
}

Dictionary dictionaryOrEmpty(const Value& value) {
  return value.dictionary() != nullptr ? *value.dictionary() : Dictionary();
}

// Null for what is no record, and for a record without a DSID.
AccountStore::Account accountFromRecord(const Value& record) {
  if (record.dictionary() == nullptr) return nullptr;
  auto account = HSStoreAccount::initWithPersistedStoreDictionary(*record.dictionary());
  return account->dsID() ? account : nullptr;
}

std::string typeKey(const HSStoreClient& client) {
  return std::to_string(client.clientType);
}

std::string bagKey(const HSStoreClient& client) {
  return std::to_string(client.requiredBagType);
}

// Where the agents of old kept the flat record.
std::optional<std::string> oldAgentDomain(std::int64_t clientType) {
  switch (clientType) {
    case kHSStoreClientTypeStoreAgent:
      return "com.vantor.pellagent";
    case kHSStoreClientTypeBookStoreAgent:
      return "com.vantor.folioagent";
    default:
      return std::nullopt;
  }
}

}  // namespace

// What is on disk of one store.
struct AccountStore::Persisted {
  Account primary;
  std::vector<Account> known;  // the primary one, if any, first
  bool hasMigrated = false;
};

void AccountStore::loadAccountsFromPersistedStore() {
  if (_isLoaded) return;
  bool hasMigrated = false;
  bool hasFoundPrimary = false;
  _requestQueue.sync([&] {
    if (_isLoaded) return;
    Result<Persisted> persisted = readPersisted();
    if (!persisted) return;  // the preferences have logged it
    hasMigrated = persisted->hasMigrated;
    hasFoundPrimary = persisted->primary && _changes == 0;
    joinOnQueue(*std::move(persisted));
    _isLoaded = true;
  });
  if (hasMigrated) writeAccountsToPersistedStore();
  if (hasFoundPrimary) _primaryAccountDidChange();
}

void AccountStore::joinOnQueue(Persisted persisted) {
  // The primary account is one of those in the list: what somebody has added meanwhile is newer.
  if (persisted.primary && _changes == 0) {
    const Account added = _nonThreadSafeAccountForDSID(persisted.primary->dsID());
    setPrimaryOnQueue(added ? added : persisted.primary);
  }
  std::vector<Account> accounts = std::move(persisted.known);
  std::erase_if(accounts, [&](const Account& each) {
    return _nonThreadSafeAccountForDSID(each->dsID()) != nullptr;
  });
  accounts.insert(accounts.end(), _accounts.begin(), _accounts.end());
  setAccountsOnQueue(std::move(accounts));
}

Result<AccountStore::Persisted> AccountStore::readPersisted() const {
  const std::string& domain = storeClient()->agentPreferencesDomain;
  const Result<Value> table = currentUserValue(kDefaultsPrimaryAccountKey, domain);
  if (!table) return table.error();
  const Result<Value> known = currentUserValue(kDefaultsKnownAccountsKey, domain);
  if (!known) return known.error();
  Persisted persisted;
  persisted.primary =
      accountFromRecord(entry(entry(*table, typeKey(*storeClient())), bagKey(*storeClient())));
  if (!persisted.primary) {
    const auto record = _migratePersistedStore();
    if (!record) return record.error();
    persisted.hasMigrated = record->has_value();
    if (*record) persisted.primary = accountFromRecord(**record);
  }
  const std::int64_t type = storeClient()->clientType;
  if (!persisted.primary &&
      (type == kHSStoreClientTypeMediaStore || type == kHSStoreClientTypeMediaStoreAgent))
    persisted.primary = accountFromMediaStore();
  persisted.known = accountsFromRecords(*known, persisted.primary, persisted.hasMigrated);
  return persisted;
}

Result<std::optional<Dictionary>> AccountStore::_migratePersistedStore() const {
  const std::string& domain = storeClient()->agentPreferencesDomain;
  Preferences& preferences = Preferences::shared();
  if (preferences.getAppBooleanValue(kDefaultsPrimaryAccountMigratedKey, domain))
    return std::optional<Dictionary>();
  const auto setMigrated = [&](const Value& value) {
    preferences.setValue(kDefaultsPrimaryAccountMigratedKey, value, domain,
                         Preferences::User::Current, Preferences::Host::Any);
  };
  // Before anything is read: a record that brings the service down is not read a second time.
  setMigrated(true);
  preferences.synchronize(domain, Preferences::User::Current, Preferences::Host::Any);

  Result<Value> flat = currentUserValue(kDefaultsPrimaryAccountKey, *storeClient()->identifier);
  if (flat && flat->isNil())
    if (const auto agentDomain = oldAgentDomain(storeClient()->clientType))
      flat = currentUserValue(kDefaultsPrimaryAccountKey, *agentDomain);
  if (!flat) {
    setMigrated(nullptr);
    return flat.error();
  }
  const Dictionary* record = flat->dictionary();
  if (record == nullptr) return std::optional<Dictionary>();
  return accountFromRecord(*flat) ? *record
                                  : HSStoreAccount::migratePersistedStoreDictionary(*record);
}

AccountStore::Account AccountStore::accountFromMediaStore() const {
  const auto setting = [](const char* key) {
    return Preferences::shared().copyValue(key, kMediaStoreDomain, Preferences::User::Current,
                                           Preferences::Host::Any);
  };
  const Value vantorID = setting("Store Vantor ID");
  const Value dsID = setting("Store DSID");
  const Value storefront = setting("storefront");
  Account account;
  if (vantorID.string() != nullptr && dsID.isNumber() && storefront.string() != nullptr)
    account = accountFromRecord(Dictionary{{"bagtype", 1},
                                           {"dsid", dsID},
                                           {"identifier", vantorID},
                                           {"kind", 0},
                                           {"signedin", true},
                                           {"storefront", storefront}});
  if (!account)
    logLevel(1,
             "%@: failed to create primaryAccount vantorIDString:%@ dsidValue:%@ "
             "storefrontString:%@",
             kClassName, vantorID, dsID, storefront);
  return account;
}

std::vector<AccountStore::Account> AccountStore::accountsFromRecords(const Value& records,
                                                                     const Account& primary,
                                                                     bool hasMigrated) {
  std::vector<Account> accounts;
  if (primary) accounts.push_back(primary);
  if (records.array() == nullptr) return accounts;
  for (const Value& record : *records.array()) {
    if (record.dictionary() == nullptr) continue;
    Account account = accountFromRecord(record);
    if (!account && hasMigrated)
      if (const auto migrated =
              HSStoreAccount::migratePersistedStoreDictionary(*record.dictionary()))
        account = accountFromRecord(*migrated);
    if (account && (!primary || account->dsID() != primary->dsID())) accounts.push_back(account);
  }
  return accounts;
}

void AccountStore::writeAccountsToPersistedStore() {
  Preferences& preferences = Preferences::shared();
  // What is written replaces what is on disk, which has to be known first.
  if (!_isLoaded) {
    preferences.synchronize(storeClient()->agentPreferencesDomain, Preferences::User::Current,
                            Preferences::Host::Any);
    loadAccountsFromPersistedStore();
  }
  _requestQueue.sync([&] {
    // One transaction: other stores, in other processes, too, write into the same table.
    const bool isWritten =
        _isLoaded && preferences.update(storeClient()->agentPreferencesDomain,
                                        [&](Preferences::Editor& editor) { writeTo(editor); });
    // The flush names the identifier's domain, not the one that was written; that is the one that
    // the client's own processes watch.
    const bool isFlushed = preferences.synchronize(
        *storeClient()->identifier, Preferences::User::Current, Preferences::Host::Any);
    _wasRefused = !isWritten || !isFlushed;
    if (_wasRefused) logLevel(1, "%@: failed to writeAccountsToPersistedStore", kClassName);
  });
}

bool AccountStore::writeWhatWasRefused() {
  bool isWritten = true;
  for (const auto& entry : registry().entries()) {
    AccountStore& store = *entry.second;
    const auto wasRefused = [&] {
      return store._requestQueue.sync([&] { return store._wasRefused; });
    };
    if (wasRefused()) store.writeAccountsToPersistedStore();
    isWritten = !wasRefused() && isWritten;
  }
  return isWritten;
}

void AccountStore::writeTo(Preferences::Editor& preferences) const {
  std::vector<Dictionary::Entry> kept;
  for (const auto& byClientType : dictionaryOrEmpty(preferences.value(kDefaultsPrimaryAccountKey)))
    // What is no dictionary is left over from the flat record of older versions.
    if (byClientType.value.dictionary() != nullptr) kept.push_back(byClientType);
  const Dictionary table(std::move(kept));
  const std::string type = typeKey(*storeClient());
  const auto primary = _primaryAccount ? _primaryAccount->persistedStoreDictionary() : std::nullopt;
  const Dictionary mine = dictionaryOrEmpty(table[type]).setting(bagKey(*storeClient()), primary);
  preferences.setValue(kDefaultsPrimaryAccountKey, table.setting(type, mine));

  std::vector<Value> records;
  records.reserve(_accounts.size());
  for (const Account& account : _accounts)
    if (auto record = account->persistedStoreDictionary()) records.emplace_back(*std::move(record));
  preferences.setValue(kDefaultsKnownAccountsKey, Array(std::move(records)));
}

}  // namespace tallow
