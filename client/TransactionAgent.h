#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "client/AccountServiceClient.h"
#include "platform/Base/Result.h"
#include "platform/Base/Secret.h"
#include "platform/VendBase/HSAuthenticationContext.h"

namespace tallow {

// A transaction service (com.vantor.HSTransactionService): the account service asks it to sign a
// person in. It asks the person, in whatever way its owner gives it, sends name and password to the
// address that the client's bag names, over https and to a trusted host only, and hands the store's
// answer in. While it lives it owns the service's name on the bus; only the account service is
// answered. On the system bus only root and the group tallowd may own it.
//
// A program that signs in for other clients than its own needs a descriptor with may-act-as-others.
//
// Owned by the program that can ask. Sign-ins go one after the other, on a thread of the agent's.
class TransactionAgent {
 public:
  struct Credentials {
    std::string accountName;
    Secret password;
  };
  // `client` is for whom, its identifier. `complaint` is the store's own words about the attempt
  // before. May take as long as it likes; nothing: the person does not want to.
  using Ask = std::function<std::optional<Credentials>(
      const std::string& client, const HSAuthenticationContext& context,
      const std::optional<std::string>& complaint)>;

  static constexpr int kMaxAttempts = 3;
  // Sign-ins that wait while one is going on; more are refused.
  static constexpr std::size_t kMaxWaiting = 8;

  // An error of AccountServiceClient's domain where there is no bus, the bus does not let this user
  // be the transaction service (kRefused), or somebody else is already (kTaken).
  // `busHasGone` is called, on a thread of the agent's, when the bus has gone away and nobody can
  // ask any more.
  static Result<std::unique_ptr<TransactionAgent>> start(
      AccountServiceClient::Instance instance, Ask ask, std::function<void()> busHasGone = nullptr);
  // Waits for the sign-in that is going on.
  ~TransactionAgent();
  TransactionAgent(const TransactionAgent&) = delete;
  TransactionAgent& operator=(const TransactionAgent&) = delete;

 private:
  class Object;
  struct Export;
  explicit TransactionAgent(std::unique_ptr<Export> exported);
  std::unique_ptr<Export> _export;
};

}  // namespace tallow
