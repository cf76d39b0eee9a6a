#include "src/AccountService/AccountStore.h"

#include <algorithm>
#include <utility>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/RecentFailures.h"
#include "platform/VendBase/StoreProtocolKeys.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/HSStoreAccount+AccountService.h"

namespace tallow {

// All records go into one value of the preferences, of 16 MiB at most: three texts each, of which a
// list makes two bytes a character where they are not ASCII, and some numbers.
static_assert(AccountStore::kMaxAccounts *
                  (2 * 3 * HSAuthenticationResponse::kMaxTextBytes + 1024) <
              (std::size_t{16} << 20));

namespace {

constexpr double kTokenSeconds = 900;

}  // namespace

ClientRegistry<AccountStore>& AccountStore::registry() {
  static auto& registry = *new ClientRegistry<AccountStore>({"storeForClient:", "store"});
  return registry;
}

std::string AccountStore::registryKey(const HSStoreClient& client) {
  return std::to_string(client.clientType) + '/' + std::to_string(client.requiredBagType);
}

std::shared_ptr<AccountStore> AccountStore::accountStoreForClient(
    const std::shared_ptr<const HSStoreClient>& client) {
  auto store = registry().entryForClient(client);
  if (store) store->loadAccountsFromPersistedStore();
  return store;
}

std::shared_ptr<AccountStore> AccountStore::accountStoreForClientIfAtHand(
    const std::shared_ptr<const HSStoreClient>& client) {
  auto store = registry().entryForClientIfAtHand(client);
  return store && store->_isLoaded ? store : nullptr;
}

std::shared_ptr<AccountStore> AccountStore::initWithStoreClient(
    std::shared_ptr<const HSStoreClient> client) {
  std::shared_ptr<AccountStore> store(new AccountStore(std::move(client)));
  store->loadAccountsFromPersistedStore();
  if (!store->_isLoaded)
    logLevel(1, "%@: what is known of %@ cannot be read yet", kClassName,
             store->storeClient()->identifier);
  return store;
}

AccountStore::AccountStore(std::shared_ptr<const HSStoreClient> client)
    : ClientController(client),
      _requestQueue(format("AccountStore Request Queue (%@)", client->identifier)),
      _serviceProxy(client) {}

// Queries

std::vector<AccountStore::Account> AccountStore::accounts() const {
  return _requestQueue.sync([&] { return _accounts; });
}

AccountStore::Account AccountStore::primaryAccount() const {
  return _requestQueue.sync([&] { return _primaryAccount; });
}

std::optional<AccountStore::Account> AccountStore::primaryAccountIfIdle() const {
  std::optional<Account> primary;
  _requestQueue.trySync([&] { primary = _primaryAccount; });
  return primary;
}

bool AccountStore::isPrimaryAccount(const HSStoreAccount& account) const {
  const auto dsID = account.dsID();
  return _requestQueue.sync(
      [&] { return _primaryAccount && dsID && _primaryAccount->dsID() == dsID; });
}

AccountStore::Account AccountStore::_nonThreadSafeAccountForDSID(
    std::optional<std::uint64_t> dsID) const {
  if (!dsID) return nullptr;
  const auto found = _accountsByDSID.find(*dsID);
  return found != _accountsByDSID.end() ? found->second : nullptr;
}

AccountStore::Account AccountStore::accountWithDSID(std::optional<std::uint64_t> dsID) const {
  return _requestQueue.sync([&] { return _nonThreadSafeAccountForDSID(dsID); });
}

AccountStore::Account AccountStore::accountWithVantorID(
    const std::optional<std::string>& vantorID) const {
  if (!vantorID) return nullptr;
  return _requestQueue.sync([&]() -> Account {
    const auto found =
        std::find_if(_accounts.begin(), _accounts.end(),
                     [&](const Account& account) { return account->hasIdentifier(*vantorID); });
    return found != _accounts.end() ? *found : nullptr;
  });
}

// Changes

void AccountStore::setAccountsOnQueue(std::vector<Account> accounts) {
  _accounts = std::move(accounts);
  _accountsByDSID.clear();
  for (const Account& account : _accounts)
    if (const auto dsID = account->dsID()) _accountsByDSID.emplace(*dsID, account);
}

void AccountStore::addOnQueue(const Account& account) {
  if (const auto dsID = account->dsID()) {
    if (_accountsByDSID.contains(*dsID))
      std::erase_if(_accounts, [&](const Account& known) { return known->dsID() == dsID; });
    _accountsByDSID.insert_or_assign(*dsID, account);
  }
  _accounts.push_back(account);
}

void AccountStore::setPrimaryOnQueue(const Account& account) {
  _primaryAccount = account;
  ++_changes;
}

bool AccountStore::hasRoomOnQueue(std::optional<std::uint64_t> dsID) const {
  if (_accounts.size() < kMaxAccounts || (dsID && _accountsByDSID.contains(*dsID))) return true;
  logLevel(1, "%@: refusing account %@: %lu are known already", kClassName, dsID, _accounts.size());
  return false;
}

bool AccountStore::addAccount(const Account& account) {
  const bool isAdded = _requestQueue.sync([&] {
    if (!hasRoomOnQueue(account->dsID())) return false;
    addOnQueue(account);
    return true;
  });
  if (isAdded) writeAccountsToPersistedStore();
  return isAdded;
}

AccountStore::Account AccountStore::makeAccountPrimary(const Account& account) {
  const bool changed = _requestQueue.sync([&] {
    if (_primaryAccount == account) return false;
    setPrimaryOnQueue(account);
    return true;
  });
  if (changed) writeAccountsToPersistedStore();
  return primaryAccount();
}

// Observers

void AccountStore::addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer) {
  const std::lock_guard lock(_observersLock);
  if (observer) _observers.push_back(std::move(observer));
}

void AccountStore::removeAccountStoreObserver(
    const std::shared_ptr<HSAccountStoreObserver>& observer) {
  const std::lock_guard lock(_observersLock);
  if (observer) std::erase(_observers, observer);
}

void AccountStore::_primaryAccountDidChange() {
  for (bool isLatest = false; !isLatest;) {
    const auto [primary, change] =
        _requestQueue.sync([&] { return std::pair(_primaryAccount, _changes); });
    std::vector<std::shared_ptr<HSAccountStoreObserver>> observers;
    {
      const std::lock_guard lock(_observersLock);
      if (change < _toldChanges) return;
      _toldChanges = change;
      observers = _observers;
    }
    for (const auto& observer : observers) observer->primaryAccountDidChange(primary);
    // Of two changes at once the later one has the last word, also where it was told meanwhile.
    const std::lock_guard lock(_observersLock);
    isLatest = change == _toldChanges;
  }
}

// Signing in

AccountStore::Account AccountStore::addAccountWithAuthenticationResponse(
    const HSAuthenticationResponse& response, bool makePrimary) {
  // One block: a sign-out at the same time finds the account, with its token, in the list.
  Account account = _requestQueue.sync([&]() -> Account {
    if (!hasRoomOnQueue(response.dsID())) return nullptr;
    Account found = _nonThreadSafeAccountForDSID(response.dsID());
    if (!found) found = std::make_shared<HSStoreAccount>();
    // First: a timer of an earlier sign-in that is just firing must not take the new token along.
    found->retireTokenExpirationTimer();
    found->mergeValuesFromAuthenticationResponse(response);
    resetTokenExpirationTimerWithInterval(found, kTokenSeconds);
    if (makePrimary) setPrimaryOnQueue(found);
    addOnQueue(found);
    return found;
  });
  if (!account) return nullptr;
  if (account->isAuthenticated())
    // The token is in this line; that is how it has always been told what was issued to whom.
    logLevel(2, "%@: Signed in for account (%@, %@, %@)", kClassName, account->dsID(),
             account->identifier(), account->token());
  writeAccountsToPersistedStore();
  if (makePrimary) _primaryAccountDidChange();
  return account;
}

void AccountStore::signInWithContext(const HSAuthenticationContext& context,
                                     SignInHandler completionHandler) {
  // A person may take minutes, and whoever has asked may not wait for them.
  _serviceProxy.transactionService()->dsidByAuthenticatingWithContext(
      context, [self = shared_from_this(), handler = std::move(completionHandler),
                transaction = XPCTransaction::hold()](
                   bool success, std::optional<std::uint64_t> dsID, std::optional<Error> error) {
        if (error) RecentFailures::shared().note(*error, *self->storeClient()->identifier);
        if (!handler) return;
        // The answer comes on the thread that reads the bus, and the queue may be busy writing.
        WorkerPool::shared().async([self, handler, success, dsID, error = std::move(error)] {
          handler(success, dsID ? self->accountWithDSID(dsID) : nullptr, error);
        });
      });
}

bool AccountStore::authIsExpired() const {
  const Account primary = primaryAccount();
  return !primary || !primary->hasValidStrongToken();
}

void AccountStore::parseCreditStringForProtocol(const Dictionary& protocol) {
  Account account;
  if (const auto person = HSStoreAccount::dsidFromPlistValue(protocol[kStorePersonIDKey]))
    account = accountWithDSID(person);
  else if (const auto dsID = HSStoreAccount::dsidFromPlistValue(protocol[kStoreDSIDKey]))
    account = accountWithDSID(dsID);
  else
    account = primaryAccount();
  const auto credit = HSAuthenticationResponse(protocol).creditString();
  if (!account || !credit) return;
  logLevel(2, "%@: Found credit string %@ for account %@", kClassName, *credit, account->dsID());
  account->setCreditString(*credit);
  writeAccountsToPersistedStore();
}

}  // namespace tallow
