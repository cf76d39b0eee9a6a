#include "client/ServiceConnection.h"

namespace tallow {

ServiceConnection::ServiceConnection(AccountServiceClient::Instance instance)
    : _instance(instance),
      _serviceName(instance == AccountServiceClient::Instance::Daemon ? "com.vantor.tallowd.daemon"
                                                                      : "com.vantor.tallowd") {}

ServiceConnection::~ServiceConnection() {
  {
    const std::lock_guard lock(_ownerMutex);
    _isEnding = true;
    _ownerChanged.notify_all();
  }
  if (_keeper.joinable()) _keeper.join();
}

void ServiceConnection::actAs(const std::string& identifier) {
  const std::lock_guard lock(_mutex);
  auto before = std::exchange(_identifier, identifier);
  try {
    _session = _newSession();
  } catch (...) {
    _identifier = std::move(before);
    _session.reset();
    throw;
  }
}

template <class Observer, class Remove, class Add>
void ServiceConnection::_exchange(Observer& kept, Observer observer, Remove remove, Add add) {
  const std::lock_guard lock(_mutex);
  Observer before = std::exchange(kept, std::move(observer));
  try {
    const bool isRunning = _session && !_isStale(*_session);
    if (before && isRunning) remove(*_session);
    if (_bus) _bus->exportObserver(kept);
    if (kept && isRunning) add(*_session);
    if (kept && !isRunning) _session = _newSession();  // which adds it
  } catch (...) {
    kept = std::move(before);
    _session.reset();
    throw;
  }
  // It is told which service knows the observer already: another may be there before it looks.
  if (kept && !_keeper.joinable())
    _keeper = std::thread([this, known = _session->uniqueName()] { _keepObserving(known); });
}

void ServiceConnection::observe(AccountServiceClient::BagObserver observer) {
  const sdbus::ObjectPath path{ServiceBus::kObserverPath};
  _exchange(
      _observer, std::move(observer),
      [&](ServiceSession& service) { service.removeURLBagObserver(path); },
      [&](ServiceSession& service) { service.addURLBagObserver(path); });
}

void ServiceConnection::observeAccounts(AccountServiceClient::AccountObserver observer) {
  const sdbus::ObjectPath path{ServiceBus::kAccountObserverPath};
  const auto watch = observer ? std::make_shared<AccountWatch>(std::move(observer)) : nullptr;
  const auto before = [this] {
    const std::lock_guard lock(_mutex);
    return _accountWatch;
  }();
  _exchange(
      _accountWatch, watch,
      [&](ServiceSession& service) { service.removeAccountStoreObserver(path); },
      [&](ServiceSession& service) { service.addAccountWatch(watch); });
  if (before) before->end();
}

std::shared_ptr<ServiceSession> ServiceConnection::session() {
  const std::lock_guard lock(_mutex);
  if (!_session || _isStale(*_session)) _session = _newSession();
  return _session;
}

std::shared_ptr<ServiceSession> ServiceConnection::_newSession() {
  if (!_bus || _bus->hasGone()) {
    _session.reset();
    _bus.reset();
    {
      const std::lock_guard lock(_ownerMutex);
      _owner.reset();
    }
    _bus = std::make_shared<ServiceBus>(
        _instance, _serviceName, [this](const std::string& owner) { _ownerHasChanged(owner); });
    _bus->exportObserver(_observer);
    _bus->exportObserver(_accountWatch);
  }
  auto session = std::make_shared<ServiceSession>(_bus, _bus->findService(_serviceName));
  if (_identifier) session->actAs(*_identifier);
  // The service may know them from a session before; a path that is added twice is told twice.
  if (_observer) {
    session->removeURLBagObserver(sdbus::ObjectPath{ServiceBus::kObserverPath});
    session->addURLBagObserver(sdbus::ObjectPath{ServiceBus::kObserverPath});
  }
  if (_accountWatch) {
    session->removeAccountStoreObserver(sdbus::ObjectPath{ServiceBus::kAccountObserverPath});
    session->addAccountWatch(_accountWatch);
  }
  return session;
}

bool ServiceConnection::_isStale(const ServiceSession& session) {
  if (session.bus().hasGone()) return true;
  const std::lock_guard lock(_ownerMutex);
  return _owner && *_owner != session.uniqueName();
}

void ServiceConnection::_ownerHasChanged(const std::string& owner) {
  const std::lock_guard lock(_ownerMutex);
  _owner = owner;
  _ownerChanged.notify_all();
}

void ServiceConnection::_keepObserving(std::string known) {
  std::unique_lock lock(_ownerMutex);
  while (!_isEnding) {
    if (!_owner || *_owner == known) {
      _ownerChanged.wait(lock);
      continue;
    }
    known = *_owner;
    if (known.empty()) continue;
    lock.unlock();
    try {
      session();
    } catch (const sdbus::Error&) {
      // Whoever calls next is told.
    }
    lock.lock();
  }
}

bool ServiceConnection::wasNotDelivered(const sdbus::Error& error) {
  const std::string name = bus::errorName(error);
  return name == "org.freedesktop.DBus.Error.ServiceUnknown" ||
         name == "org.freedesktop.DBus.Error.NameHasNoOwner";
}

}  // namespace tallow
