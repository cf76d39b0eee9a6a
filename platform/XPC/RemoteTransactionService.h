#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "platform/VendBase/HSStoreClient.h"
#include "platform/VendBase/HSTransactionService.h"

namespace tallow {

// The transaction service on the bus, asked on behalf of one client. Any thread.
class RemoteTransactionService final : public HSTransactionService {
 public:
  // A person reads, looks for a password, types it wrongly, types it again.
  static constexpr std::chrono::seconds kPatience{600};
  static constexpr const char* kName = "com.vantor.transactionservice";

  // Whether it is just asked to sign somebody in for the client with the identifier.
  static bool isAskedFor(const std::string& identifier);

  explicit RemoteTransactionService(std::shared_ptr<const HSStoreClient> storeClient);

  void dsidByAuthenticatingWithContext(HSAuthenticationContext context, Reply reply) override;

 private:
  const std::shared_ptr<const HSStoreClient> _storeClient;
};

}  // namespace tallow
