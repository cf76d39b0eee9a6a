#include "platform/VendBase/HSOperation.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include "platform/VendBase/HSError.h"

namespace tallow {

HSOperation::HSOperation(std::shared_ptr<const HSStoreClient> initWithStoreClient)
    : _storeClient(std::move(initWithStoreClient)),
      _requiredBagType(_storeClient ? _storeClient->requiredBagType : 0) {}

HSOperation::~HSOperation() = default;

void HSOperation::run() {
  setSuccess(true);
}

HSServiceProxy& HSOperation::serviceProxy() {
  if (!_serviceProxy) _serviceProxy = std::make_unique<HSServiceProxy>(_storeClient);
  return *_serviceProxy;
}

HSServiceProxy& HSOperation::bagServiceProxy() {
  // A changed description of an Outfitter client would make the registries of the service switch
  // over to it: such a client always looks into its own bag.
  if (!_storeClient || _requiredBagType == _storeClient->requiredBagType ||
      _storeClient->clientType == kHSStoreClientTypeOutfitter)
    return serviceProxy();
  if (!_bagServiceProxy) {
    auto client = std::make_shared<HSStoreClient>(*_storeClient);
    client->requiredBagType = _requiredBagType;
    _bagServiceProxy = std::make_unique<HSServiceProxy>(std::move(client));
  }
  return *_bagServiceProxy;
}

Value HSOperation::valueForURLBagKey(const std::string& key, std::optional<double> seconds) {
  if (_requiredBagType == 0) return Value();
  const std::shared_ptr<HSAccountService> service = bagServiceProxy().accountService();
  if (!service) return Value();
  const HSPendingReply<Value> reply;
  service->valueForURLBagKey(key, reply.callback());
  std::optional<Value> value = waitForReply(reply, seconds);
  return value.has_value() ? *std::move(value) : Value();
}

std::optional<URL> HSOperation::urlForURLBagKey(const std::string& key,
                                                std::optional<double> seconds) {
  const Value value = valueForURLBagKey(key, seconds);
  const std::string* text = value.string();
  return text != nullptr ? URL::parse(*text) : std::nullopt;
}

bool HSOperation::runSyncReturningError(std::optional<Error>* error) {
  _begin();
  if (!isCancelled()) run();
  if (!_success && !_error && isCancelled()) setError(cancellationError());
  _end();
  if (error != nullptr) *error = _error;
  return _success;
}

void HSOperation::failWithoutRunning(Error error) {
  _begin();
  setError(std::move(error));
  _end();
}

void HSOperation::_begin() {
  if (!std::exchange(_hasRun, true)) return;
  std::fputs("HSOperation: an operation was run twice\n", stderr);
  std::abort();
}

// The handler is called once and let go, so that one that keeps the operation alive is no cycle.
void HSOperation::_end() {
  if (const CompletionHandler handler = std::exchange(_completionHandler, nullptr))
    handler(*this, _success, _error);
}

bool HSOperation::runSubOperation(HSOperation& operation, std::optional<Error>* error) {
  const CancelScope scope(*this, [weak = operation.weak_from_this()] {
    if (const auto running = weak.lock()) running->cancel();
  });
  return operation.runSyncReturningError(error);
}

void HSOperation::cancel() {
  std::function<void()> interrupt;
  {
    const std::lock_guard guard(_cancelLock);
    _cancelled = true;
    interrupt = _interrupt;
  }
  if (interrupt) interrupt();
}

bool HSOperation::isCancelled() const {
  const std::lock_guard guard(_cancelLock);
  return _cancelled;
}

Error HSOperation::cancellationError() {
  return HSError(kHSErrorCancelled, std::nullopt, "The operation was cancelled");
}

HSOperation::CancelScope::CancelScope(HSOperation& operation, std::function<void()> interrupt)
    : _operation(operation) {
  bool isLate = false;
  {
    const std::lock_guard guard(operation._cancelLock);
    isLate = operation._cancelled;
    _outer = std::exchange(operation._interrupt, interrupt);
  }
  if (isLate) interrupt();
}

HSOperation::CancelScope::~CancelScope() {
  const std::lock_guard guard(_operation._cancelLock);
  _operation._interrupt = std::move(_outer);
}

}  // namespace tallow
