#include "devstore/ScriptedTransactionService.h"

#include <utility>

#include "devstore/AuthenticateEndpoint.h"

namespace tallow::devstore {

Result<std::unique_ptr<TransactionAgent>> startScriptedTransactionService(
    std::string accountName, std::function<void()> busHasGone) {
  return TransactionAgent::start(
      AccountServiceClient::Instance::Agent,
      [accountName = std::move(accountName)](const std::string&,
                                             const HSAuthenticationContext& context,
                                             const std::optional<std::string>& complaint)
          -> std::optional<TransactionAgent::Credentials> {
        if (complaint) return std::nullopt;
        return TransactionAgent::Credentials{context.identifier.value_or(accountName),
                                             Secret(AuthenticateEndpoint::kPassword)};
      },
      std::move(busHasGone));
}

}  // namespace tallow::devstore
