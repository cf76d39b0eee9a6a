#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/Base/Value.h"
#include "platform/VendBase/HSPendingReply.h"
#include "platform/VendBase/HSServiceProxy.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// One unit of work for a store client. The subclass's run() does it, synchronously, and sets
// success and error; a plain HSOperation does nothing, with success, and is good for running other
// operations under. Made by shared_ptr, run once (a second run aborts), either synchronously or
// through an HSOperationQueue; read success and error after it has finished. Only the running
// thread touches it meanwhile; cancel() and isCancelled() may be called from any.
class HSOperation : public std::enable_shared_from_this<HSOperation> {
 public:
  using CompletionHandler =
      std::function<void(HSOperation& operation, bool success, const std::optional<Error>& error)>;

  explicit HSOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient);
  virtual ~HSOperation();

  const std::shared_ptr<const HSStoreClient>& storeClient() const { return _storeClient; }
  bool success() const { return _success; }
  void setSuccess(bool success) { _success = success; }
  const std::optional<Error>& error() const { return _error; }
  void setError(std::optional<Error> error) { _error = std::move(error); }

  // The bag type that lookups by key use; the client's own unless set. 0: this operation needs no
  // bag.
  std::uint64_t requiredBagType() const { return _requiredBagType; }
  void setRequiredBagType(std::uint64_t bagType) { _requiredBagType = bagType; }

  void setCompletionHandler(CompletionHandler handler) { _completionHandler = std::move(handler); }

  // The operation's own way to the account service, made on first use. Its service answers for the
  // store client as it is, whatever bag type this operation requires.
  HSServiceProxy& serviceProxy();

  // Looks up a bag value or URL through the account service; waits for the answer, `seconds` at
  // most where they are given.
  Value valueForURLBagKey(const std::string& key, std::optional<double> seconds = std::nullopt);
  std::optional<URL> urlForURLBagKey(const std::string& key,
                                     std::optional<double> seconds = std::nullopt);

  // Runs the operation on this thread, completion handler included. The result is success();
  // *error receives error().
  bool runSyncReturningError(std::optional<Error>* error);
  // The same for an operation that is a step of this one.
  bool runSubOperation(HSOperation& operation, std::optional<Error>* error);

  // In place of a run, which it counts as: ends with this error.
  void failWithoutRunning(Error error);

  // From any thread: asks the operation to end early with kHSErrorCancelled. What it waits for
  // (an answer, an exchange, a sub-operation) is interrupted; one that has not started will not.
  void cancel();
  bool isCancelled() const;

 protected:
  virtual void run();

  // While it lives, cancel() calls `interrupt`: at once when it has been called before, else on the
  // cancelling thread, perhaps while the scope is just ending. So `interrupt` may only touch what
  // it keeps alive itself. Scopes nest; the innermost is the one that is interrupted.
  class CancelScope {
   public:
    CancelScope(HSOperation& operation, std::function<void()> interrupt);
    ~CancelScope();
    CancelScope(const CancelScope&) = delete;
    CancelScope& operator=(const CancelScope&) = delete;

   private:
    HSOperation& _operation;
    std::function<void()> _outer;
  };

  // The answer; nullopt when it will not come, not within `seconds`, or cancel() came first.
  template <class T>
  std::optional<T> waitForReply(const HSPendingReply<T>& reply,
                                std::optional<double> seconds = std::nullopt) {
    const CancelScope scope(*this, [reply] { reply.abandon(); });
    return reply.wait(seconds);
  }

  // The way to the account service whose bag is of the required type.
  HSServiceProxy& bagServiceProxy();

  static Error cancellationError();

 private:
  void _begin();
  void _end();

  std::shared_ptr<const HSStoreClient> _storeClient;
  std::uint64_t _requiredBagType;
  bool _success = false;
  std::optional<Error> _error;
  CompletionHandler _completionHandler;
  std::unique_ptr<HSServiceProxy> _serviceProxy, _bagServiceProxy;
  bool _hasRun = false;
  mutable std::mutex _cancelLock;
  bool _cancelled = false;           // with _interrupt under _cancelLock
  std::function<void()> _interrupt;  // of the innermost scope
};

}  // namespace tallow
