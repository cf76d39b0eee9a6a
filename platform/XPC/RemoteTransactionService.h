#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
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

  // Each waits for a person: of one client, and in all. What is over it is answered with an error.
  static constexpr std::size_t kMaxQuestionsOfClient = 8;
  static constexpr std::size_t kMaxQuestions = 32;

  // Whether it is just asked to sign somebody in for the client with the identifier.
  static bool isAskedFor(const std::string& identifier);

  // Called whenever it has answered, on any thread; must not block. By the listener; null ends it.
  static void setQuestionEndedHandler(std::function<void()> handler);

  explicit RemoteTransactionService(std::shared_ptr<const HSStoreClient> storeClient);

  void dsidByAuthenticatingWithContext(HSAuthenticationContext context, Reply reply) override;

 private:
  const std::shared_ptr<const HSStoreClient> _storeClient;
};

}  // namespace tallow
