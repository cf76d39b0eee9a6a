// The operations of the interface that are about accounts and signing in.

#include <utility>

#include "platform/Concurrency/WorkerPool.h"
#include "platform/MerrowKit/MKMachine.h"
#include "platform/MerrowKit/MKRetailDemoMode.h"
#include "platform/QelAccounts/ACAccountStore.h"
#include "platform/QelAccounts/QelAccounts.h"
#include "platform/VendBase/VBLogManager.h"
#include "src/AccountService/AccountServiceInterface.h"
#include "src/AccountService/AccountStore.h"

namespace tallow {

std::shared_ptr<AccountStore> AccountServiceInterface::accountStore() const {
  return AccountStore::accountStoreForClient(storeClient());
}

void AccountServiceInterface::accounts(Reply<std::vector<Account>> reply) {
  onRequestQueue([this, reply] {
    const auto store = accountStore();
    send(reply, store ? store->accounts() : std::vector<Account>());
  });
}

void AccountServiceInterface::strongTokenForAccount(Account,
                                                    Reply<std::optional<std::string>> reply) {
  // The primary account's, whichever was passed: there is no other token that anybody could use.
  onRequestQueue([this, reply] {
    const auto store = accountStore();
    const Account primary = store ? store->primaryAccount() : nullptr;
    send(reply, primary ? primary->token() : std::nullopt);
  });
}

void AccountServiceInterface::authIsExpired(Reply<bool> reply) {
  onRequestQueue([this, reply] {
    const auto store = accountStore();
    send(reply, store && store->authIsExpired());
  });
}

void AccountServiceInterface::primaryAccount(Reply<Account> reply) {
  nowOrOnRequestQueue(
      [&] {
        const auto store = AccountStore::accountStoreForClientIfAtHand(storeClient());
        const auto primary = store ? store->primaryAccountIfIdle() : std::nullopt;
        if (primary) send(reply, *primary);
        return primary.has_value();
      },
      [this, reply] {
        const auto store = accountStore();
        send(reply, store ? store->primaryAccount() : nullptr);
      });
}

void AccountServiceInterface::accountWithDSID(std::optional<std::uint64_t> dsID,
                                              Reply<Account> reply) {
  onRequestQueue([this, dsID, reply] {
    const auto store = accountStore();
    send(reply, store ? store->accountWithDSID(dsID) : nullptr);
  });
}

void AccountServiceInterface::accountWithVantorID(std::optional<std::string> vantorID,
                                                  Reply<Account> reply) {
  onRequestQueue([this, vantorID = std::move(vantorID), reply] {
    const auto store = accountStore();
    send(reply, store ? store->accountWithVantorID(vantorID) : nullptr);
  });
}

void AccountServiceInterface::addAccountWithAuthenticationResponse(
    HSAuthenticationResponse response, bool makePrimary, Reply<Account> reply) {
  onRequestQueue([this, response = std::move(response), makePrimary, reply] {
    const auto store = accountStore();
    const auto account =
        store ? store->addAccountWithAuthenticationResponse(response, makePrimary) : nullptr;
    // One too many: the reply goes unanswered, which whoever waits for it takes as a refusal.
    if (!store || account) send(reply, account);
  });
}

void AccountServiceInterface::addAccount(Account account, Done reply) {
  onRequestQueue([this, account = std::move(account), reply] {
    const auto store = accountStore();
    if (!store || !account || store->addAccount(account)) send(reply);
  });
}

void AccountServiceInterface::signInWithContext(HSAuthenticationContext context,
                                                Reply<bool, Account, std::optional<Error>> reply) {
  onRequestQueue([this, context = std::move(context), reply] {
    if (!storeClient()) {
      send(reply, false, nullptr, makeError(kClassName, -1, "storeClient is nil"));
      return;
    }
    // Where there is no store, the reply goes unanswered, and the caller is told that much.
    if (const auto store = accountStore()) store->signInWithContext(context, reply);
  });
}

void AccountServiceInterface::signOut(Done reply) {
  onRequestQueue([this, reply] {
    if (const auto store = accountStore()) store->signOut();
    send(reply);
  });
}

void AccountServiceInterface::parseCreditStringForProtocol(Dictionary protocol, Done reply) {
  onRequestQueue([this, protocol = std::move(protocol), reply] {
    if (const auto store = accountStore()) store->parseCreditStringForProtocol(protocol);
    send(reply);
  });
}

void AccountServiceInterface::addAccountStoreObserver(
    std::shared_ptr<HSAccountStoreObserver> observer, Done reply) {
  onRequestQueue([this, observer = std::move(observer), reply] {
    if (const auto store = accountStore()) store->addAccountStoreObserver(observer);
    send(reply);
  });
}

void AccountServiceInterface::removeAccountStoreObserver(
    std::shared_ptr<HSAccountStoreObserver> observer, Done reply) {
  onRequestQueue([this, observer = std::move(observer), reply] {
    if (const auto store = accountStore()) store->removeAccountStoreObserver(observer);
    send(reply);
  });
}

void AccountServiceInterface::eligibilityForService(std::uint64_t service,
                                                    Reply<std::optional<bool>> reply) {
  onRequestQueue([this, service, reply] {
    const auto store = accountStore();
    send(reply, store ? store->eligibilityForService(std::to_string(service)) : std::nullopt);
  });
}

void AccountServiceInterface::getEligibilityForService(std::uint64_t service,
                                                       Reply<bool, std::optional<Error>> reply) {
  onRequestQueue([this, service, reply] {
    if (const auto store = accountStore())
      store->getEligibilityForService(std::to_string(service),
                                      [reply](bool eligible, const std::optional<Error>& error) {
                                        send(reply, eligible, error);
                                      });
  });
}

// Without the queue: it waits for no earlier call. But not on the thread that brings calls, either:
// preferences may have to wait for the disk, and that thread is everybody's.
void AccountServiceInterface::retailStoreDemoMode(
    Reply<bool, std::optional<std::string>, std::optional<std::string>, bool> reply) {
  WorkerPool::shared().async([reply] {
    const MKRetailDemoMode::Settings settings = MKRetailDemoMode::shared().settings();
    // With the password: it is the one that every demonstration machine of a shop has.
    logLevel(3, "retailStoreDemoMode %d, vantorID %@, password %@, autoLogInFlag %d",
             settings.demoMode, settings.accountName, settings.accountPassword, settings.autoLogin);
    send(reply, settings.demoMode, settings.accountName, settings.accountPassword,
         settings.autoLogin);
  });
}

void AccountServiceInterface::nimboDSID(Reply<std::optional<std::string>> reply) {
  onRequestQueue([reply] {
    const auto account = MKOnRecoveryPartition() ? nullptr : QKCopyLoggedInAccount();
    const Value dsID = account ? QKAccountCopyProperty(*account, kQKPropertyAccountDSID) : Value();
    std::optional<std::string> text = dsID.stringOrNil();
    if (dsID.isNumber())
      text = dsID.stringValue();
    else if (!text && !dsID.isNil())
      logLevel(1, "%@: QKAccountCopyProperty returned invalid value %@", kClassName, dsID);
    send(reply, text);
  });
}

void AccountServiceInterface::recommendedVantorIDForAccountSignIn(
    Reply<std::optional<std::string>> reply) {
  onRequestQueue([reply] {
    send(reply, ACAccountStore::shared().icaRecommendedVantorIDForAccountSignInWithTypeIdentifier(
                    ACAccountTypeIdentifierHarlowStore));
  });
}

}  // namespace tallow
