#include "platform/XPC/Caller.h"

#include <utility>

namespace tallow {

Caller::Caller(std::shared_ptr<BusConnection> connection, std::string uniqueName)
    : _bus(std::move(connection)), _uniqueName(std::move(uniqueName)) {}

bool Caller::canWaitFor(std::size_t bytes, std::uint32_t maxCalls) const {
  return _counts->waiting.load(std::memory_order_relaxed) < maxCalls &&
         _counts->waitingBytes.load(std::memory_order_relaxed) + bytes <= kMaxWaitingBytes &&
         CallCounts::totalWaitingBytes.load(std::memory_order_relaxed) + bytes <=
             CallCounts::kMaxTotalWaitingBytes;
}

void Caller::accept(XPCConnection connection, std::shared_ptr<HSAccountService> service) {
  _connection = std::move(connection);
  _service = std::move(service);
  resume();
}

void Caller::refuse(Refusal refusal) {
  _service.reset();
  _refusal = std::move(refusal);
  resume();
}

void Caller::resume() {
  _decide(refusal());
}

void Caller::turnAway(const Refusal& refusal) {
  _decide(&refusal);
}

void Caller::_decide(const Refusal* refusal) {
  _isUndecided = false;
  std::vector<KeptCall> calls = std::exchange(_kept, {});
  for (auto& call : calls) {
    // One of them may have suspended the caller: the rest waits again.
    if (_isUndecided) {
      _kept.push_back(std::move(call));
    } else {
      call(*this, refusal);
    }
  }
}

void Caller::forgetObservers() {
  removeDialogAgent();
  _observerCount = 0;
  for (auto& [path, observer] : std::exchange(_observers, {})) {
    observer.proxy->forget();
    if (_service) _service->removeURLBagObserver(observer.proxy, {});
  }
  for (auto& [path, observer] : std::exchange(_accountObservers, {})) {
    observer.proxy->forget();
    if (_service) _service->removeAccountStoreObserver(observer.proxy, {});
  }
}

template <class Remote>
std::shared_ptr<Remote> Caller::_observerAt(const std::string& path,
                                            ObserversByPath<Remote>& observers) {
  if (_observerCount >= kMaxObservers) return nullptr;
  ++_observerCount;
  Observed<Remote>& observer = observers[path];
  ++observer.timesAdded;
  if (!observer.proxy) observer.proxy = std::make_shared<Remote>(_bus, _uniqueName, path, _counts);
  return observer.proxy;
}

template <class Remote>
std::shared_ptr<Remote> Caller::_take(const std::string& path, ObserversByPath<Remote>& observers) {
  auto taken = observers.extract(path);
  if (!taken) return nullptr;
  _observerCount -= taken.mapped().timesAdded;
  return std::move(taken.mapped().proxy);
}

std::shared_ptr<HSURLBagObserver> Caller::observerAt(const std::string& path) {
  return _observerAt(path, _observers);
}

std::shared_ptr<HSURLBagObserver> Caller::takeObserverAt(const std::string& path) {
  return _take(path, _observers);
}

std::shared_ptr<HSAccountStoreObserver> Caller::accountObserverAt(const std::string& path) {
  return _observerAt(path, _accountObservers);
}

std::shared_ptr<HSAccountStoreObserver> Caller::takeAccountObserverAt(const std::string& path) {
  return _take(path, _accountObservers);
}

bool Caller::setDialogAgentAt(const std::string& path) {
  const auto& client = _connection.storeClient;
  auto agent = std::make_shared<RemoteDialogAgent>(_uniqueName, path,
                                                   client ? client->identifier.value_or("") : "");
  if (!HSDialogCenter::shared().addAgent(agent)) return false;
  removeDialogAgent();
  _dialogAgent = std::move(agent);
  return true;
}

void Caller::removeDialogAgent() {
  if (const auto agent = std::exchange(_dialogAgent, nullptr))
    HSDialogCenter::shared().removeAgent(agent);
}

}  // namespace tallow
