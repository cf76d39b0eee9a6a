#include "platform/XPC/RemoteTransactionService.h"

#include <string>
#include <utility>
#include <vector>

#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {
constexpr PeerConnection::Address kPeer = {"transaction service", "com.vantor.transactionservice",
                                           "/com/vantor/transactionservice",
                                           "com.vantor.HSTransactionService"};
}  // namespace

RemoteTransactionService::RemoteTransactionService(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)) {}

void RemoteTransactionService::dsidByAuthenticatingWithContext(HSAuthenticationContext context,
                                                               Reply reply) {
  using Answer = std::function<void(std::optional<Error>, bool, std::vector<std::uint64_t>,
                                    std::vector<WireError>)>;
  const std::string client = _storeClient ? _storeClient->identifier.value_or("") : "";
  WireDictionary wireContext;
  wireContext.value = context.dictionaryRepresentation();
  PeerConnection::call<bool, std::vector<std::uint64_t>, std::vector<WireError>>(
      kPeer, "dsidByAuthenticatingWithContext", kPatience,
      Answer([reply = std::move(reply)](std::optional<Error> absent, bool success,
                                        const std::vector<std::uint64_t>& dsID,
                                        const std::vector<WireError>& error) {
        if (!reply) return;
        if (!absent && !error.empty()) absent = error.front().value;
        reply(success, dsID.empty() ? std::nullopt : std::optional(dsID.front()),
              std::move(absent));
      }),
      client, std::move(wireContext));
}

}  // namespace tallow
