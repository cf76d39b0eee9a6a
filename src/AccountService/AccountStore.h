#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/Result.h"
#include "platform/Base/Value.h"
#include "platform/Concurrency/SerialQueue.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/HSAccountStoreObserver.h"
#include "platform/VendBase/HSAuthenticationContext.h"
#include "platform/VendBase/HSAuthenticationResponse.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "src/ClientRegistry.h"

namespace tallow {

// The store accounts that are known to the store clients of one kind: the accounts, which of them
// is the primary one (whoever is signed in), and what is known of their subscriptions. Found
// through accountStoreForClient: clients of one type that require bags of one type share a store.
//
// Accounts live in the preferences of the client's agent domain, beside those of other stores:
// AccountStorePersistence.cpp. What a call has changed is on disk when the call returns, or the log
// says why not; memory goes on either way. A store that could not read what is on disk tries again
// whenever it is asked for, and writes nothing before it has.
//
// Any thread may call. Accounts and primary account are guarded by the request queue; writing them
// and telling observers happens after its block, never inside. An observer may call back in.
class AccountStore final : public ClientController,
                           public std::enable_shared_from_this<AccountStore> {
 public:
  static constexpr const char* kClassName = "AccountStore";
  // Posted when a sign-out's request to the store has ended; object: the client's identifier.
  static constexpr const char* kAccountSignOutFinishedNotification =
      "HSNotificationAccountSignOutFinished";

  using Account = std::shared_ptr<HSStoreAccount>;
  using SignInHandler =
      std::function<void(bool success, Account account, std::optional<Error> error)>;
  using EligibilityHandler = std::function<void(bool eligible, const std::optional<Error>& error)>;

  // Null, logged, for a client without an identifier.
  static std::shared_ptr<AccountStore> accountStoreForClient(
      const std::shared_ptr<const HSStoreClient>& client);
  // The same, only if it is there already, knows what is on disk, and can be had without waiting;
  // else null.
  static std::shared_ptr<AccountStore> accountStoreForClientIfAtHand(
      const std::shared_ptr<const HSStoreClient>& client);
  static ClientRegistry<AccountStore>& registry();
  static std::string registryKey(const HSStoreClient& client);

  // Reads the persisted accounts, if they can be read.
  static std::shared_ptr<AccountStore> initWithStoreClient(
      std::shared_ptr<const HSStoreClient> client);

  // In the order in which they were added, the primary one that was loaded first.
  std::vector<Account> accounts() const;
  Account primaryAccount() const;
  // The same if the queue is idle; nullopt when answering would mean waiting.
  std::optional<Account> primaryAccountIfIdle() const;
  // Whether the account has the DSID of the primary one.
  bool isPrimaryAccount(const HSStoreAccount& account) const;
  Account accountWithDSID(std::optional<std::uint64_t> dsID) const;
  // The first with exactly this name.
  Account accountWithVantorID(const std::optional<std::string>& vantorID) const;

  // How many accounts a store knows at most: with texts as long as callers may give them, these fit
  // into what the preferences take as one value.
  static constexpr std::size_t kMaxAccounts = 1000;

  // Puts the account at the end of the list, in place of any other with its DSID. The primary
  // account stays who it is. False, logged, when it would be one too many.
  bool addAccount(const Account& account);
  // Whether it is another is judged by identity: a second object of the same DSID is. Neither adds
  // the account to the list nor tells observers. Returns the primary account as it is then.
  Account makeAccountPrimary(const Account& account);

  // A null observer is ignored. One added twice is told twice; removing takes every occurrence.
  void addAccountStoreObserver(std::shared_ptr<HSAccountStoreObserver> observer);
  void removeAccountStoreObserver(const std::shared_ptr<HSAccountStoreObserver>& observer);

  // Takes in what the store answered to a sign-in, and starts the account's fifteen minutes. Null,
  // logged, when the account would be one too many.
  Account addAccountWithAuthenticationResponse(const HSAuthenticationResponse& response,
                                               bool makePrimary);
  // Has somebody asked to sign in. The store itself changes nothing: the account arrives through
  // addAccountWithAuthenticationResponse before the handler is called, on a worker thread. May be
  // empty.
  void signInWithContext(const HSAuthenticationContext& context, SignInHandler completionHandler);
  // Nobody is signed in when this returns; accounts stay known, without their tokens. The store
  // server is told in the background.
  void signOut();
  // Whether the primary account has no token any more that the store would take; yes, too, when
  // there is no primary account.
  bool authIsExpired() const;
  // Takes the credit text out of the protocol dictionary of a store answer, for the account that
  // the answer names, else the primary one.
  void parseCreditStringForProtocol(const Dictionary& protocol);

  // What is known of a service without asking anybody.
  std::optional<bool> eligibilityForService(const std::string& service) const;
  // Asks the store server; the answer is remembered, also that of a question that failed, until the
  // process ends. The service is not named to the server, which knows but one. Returns at once; the
  // handler is required and is called on an operation's thread.
  void getEligibilityForService(const std::string& service, EligibilityHandler completionBlock);

  // Writes once more what the disk has refused, of all stores; false when it refuses again.
  static bool writeWhatWasRefused();

  // The steps of the above, of no use from outside but to their tests. Loading happens once; what
  // was changed here before it could be read stays, and the rest joins it.
  void loadAccountsFromPersistedStore();
  void writeAccountsToPersistedStore();
  void _primaryAccountDidChange();

 private:
  explicit AccountStore(std::shared_ptr<const HSStoreClient> client);

  // On the request queue only.
  Account _nonThreadSafeAccountForDSID(std::optional<std::uint64_t> dsID) const;
  bool hasRoomOnQueue(std::optional<std::uint64_t> dsID) const;
  void addOnQueue(const Account& account);
  void setPrimaryOnQueue(const Account& account);
  void setAccountsOnQueue(std::vector<Account> accounts);

  // Loading; on the request queue. An error where the preferences cannot be read.
  struct Persisted;
  Result<Persisted> readPersisted() const;
  Result<std::optional<Dictionary>> _migratePersistedStore() const;
  Account accountFromMediaStore() const;
  static std::vector<Account> accountsFromRecords(const Value& records, const Account& primary,
                                                  bool hasMigrated);
  void joinOnQueue(Persisted persisted);
  // Writing.
  void writeTo(Preferences::Editor& preferences) const;

  void rememberEligibility(const std::string& service, bool eligible);

  mutable SerialQueue _requestQueue;
  std::vector<Account> _accounts;                              // guarded by _requestQueue
  std::unordered_map<std::uint64_t, Account> _accountsByDSID;  // the first of each; likewise
  Account _primaryAccount;                                     // likewise
  std::uint64_t _changes = 0;          // how often the primary account has changed; likewise
  bool _wasRefused = false;            // the disk lacks the last change; likewise
  std::atomic<bool> _isLoaded{false};  // set on the request queue

  std::vector<std::shared_ptr<HSAccountStoreObserver>> _observers;  // guarded by _observersLock
  std::uint64_t _toldChanges = 0;                                   // likewise
  std::mutex _observersLock;

  HSServiceProxy _serviceProxy;

  std::map<std::string, bool> _subscriptions;  // guarded by _subscriptionsLock
  mutable std::mutex _subscriptionsLock;
};

}  // namespace tallow
