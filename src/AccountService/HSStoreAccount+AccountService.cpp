#include "src/AccountService/HSStoreAccount+AccountService.h"

#include "platform/Concurrency/RunLoop.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/XPCTransaction.h"

namespace tallow {

namespace {}  // namespace

void resetTokenExpirationTimerWithInterval(const std::shared_ptr<HSStoreAccount>& account,
                                           double seconds) {
  const std::uint64_t number = account->retireTokenExpirationTimer();
  if (!account->isAuthenticated()) return;
  logLevel(3, "%@: Starting xpc transaction due to strong token being present",
           HSStoreAccount::kClassName);
  XPCTransaction::begin();
  account->setTokenExpirationTimer(RunLoop::main().addTimer(
      seconds, [account, number] { _tokenExpirationTimerFired(*account, number); }));
}

void _tokenExpirationTimerFired(HSStoreAccount& account, std::uint64_t timerNumber) {
  if (!account.expireTokenForTimer(timerNumber)) return;
  logLevel(3, "%@: Account token invalidated after delay, ending xpc transaction",
           HSStoreAccount::kClassName);
  XPCTransaction::end();
}

}  // namespace tallow
