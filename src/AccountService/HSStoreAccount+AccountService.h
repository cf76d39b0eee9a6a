#pragma once

#include <cstdint>
#include <memory>

#include "platform/VendBase/HSStoreAccount.h"

namespace tallow {

// What the service adds to a store account: its token is kept for a limited time only, and while it
// is kept an open transaction keeps the process, with the token in its memory, from being ended.
//
// Restarts that time; without a token there is none to keep, and no timer. The timer fires on the
// main run loop and holds the account until then. Each restart with a token begins a transaction
// of its own, but only a timer that fires ends one: signing in again and again keeps the process
// alive, and is meant to. Any thread.
void resetTokenExpirationTimerWithInterval(const std::shared_ptr<HSStoreAccount>& account,
                                           double seconds);

// What the timer of that number does. The run loop's thread.
void _tokenExpirationTimerFired(HSStoreAccount& account, std::uint64_t timerNumber);

}  // namespace tallow
