#pragma once

#include <functional>
#include <memory>
#include <string>

#include "client/TransactionAgent.h"

namespace tallow::devstore {

// A transaction service for tests without a person: signs in under the name it was given, or the
// one that is asked for, with the password that this store takes.
// `busHasGone` is TransactionAgent's.
Result<std::unique_ptr<TransactionAgent>> startScriptedTransactionService(
    std::string accountName, std::function<void()> busHasGone);

}  // namespace tallow::devstore
