#include "client/ServiceSession.h"

#include <utility>

#include "client/ClientCalls.h"

namespace tallow {

class ServiceBus::Observer final
    : public sdbus::AdaptorInterfaces<com::vantor::HSURLBagObserver_adaptor> {
 public:
  Observer(sdbus::IConnection& connection, AccountServiceClient::BagObserver observer)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{kObserverPath}),
        _observer(std::move(observer)) {
    registerAdaptor();
  }
  ~Observer() { unregisterAdaptor(); }
  Observer(const Observer&) = delete;
  Observer& operator=(const Observer&) = delete;

 private:
  void urlBagDidUpdateWithSuccess(const bool& success,
                                  const std::vector<WireError>& error) override {
    _observer(success, firstOf(error));
  }

  const AccountServiceClient::BagObserver _observer;
};

class ServiceBus::AccountsObserver final
    : public sdbus::AdaptorInterfaces<com::vantor::HSAccountStoreObserver_adaptor> {
 public:
  AccountsObserver(sdbus::IConnection& connection, std::shared_ptr<AccountWatch> watch)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{kAccountObserverPath}),
        _watch(std::move(watch)) {
    registerAdaptor();
  }
  ~AccountsObserver() { unregisterAdaptor(); }
  AccountsObserver(const AccountsObserver&) = delete;
  AccountsObserver& operator=(const AccountsObserver&) = delete;

 private:
  void primaryAccountDidChange(const std::vector<WireDictionary>& account) override {
    _watch->changed(firstOf(account));
  }

  const std::shared_ptr<AccountWatch> _watch;
};

namespace {

// A bus that does not let this process in is, for it, not there: nobody has refused the call.
std::unique_ptr<sdbus::IConnection> openBus(AccountServiceClient::Instance instance) {
  try {
    return instance == AccountServiceClient::Instance::Daemon ? sdbus::createSystemBusConnection()
                                                              : sdbus::createSessionBusConnection();
  } catch (const sdbus::Error& error) {
    if (bus::errorName(error) != "org.freedesktop.DBus.Error.AccessDenied") throw;
    throw bus::makeError("org.freedesktop.DBus.Error.NoServer", error.getMessage());
  }
}

}  // namespace

ServiceBus::ServiceBus(AccountServiceClient::Instance instance, const std::string& serviceName,
                       const std::function<void(const std::string&)>& ownerChanged)
    : _connection(openBus(instance)),
      _busDaemon(*_connection),
      _ownerWatch(bus::watchOwner(
          *_connection, serviceName,
          [ownerChanged](const std::string&, const std::string& now) { ownerChanged(now); })) {
  _reader.emplace(*_connection, [this, ownerChanged] {
    _hasGone = true;
    ownerChanged("");
  });
}

ServiceBus::~ServiceBus() {
  _reader.reset();
}

void ServiceBus::exportObserver(const AccountServiceClient::BagObserver& observer) {
  _observer.reset();
  if (observer) _observer = std::make_unique<Observer>(*_connection, observer);
}

void ServiceBus::exportObserver(const std::shared_ptr<AccountWatch>& watch) {
  _accountsObserver.reset();
  if (watch) _accountsObserver = std::make_unique<AccountsObserver>(*_connection, watch);
}

ServiceSession::ServiceSession(std::shared_ptr<ServiceBus> bus, std::string uniqueName)
    : ProxyInterfaces(bus->connection(), bus::ServiceName{uniqueName},
                      sdbus::ObjectPath{kServicePath}),
      _bus(std::move(bus)),
      _uniqueName(std::move(uniqueName)) {
  registerProxy();
}

void ServiceSession::addAccountWatch(const std::shared_ptr<AccountWatch>& watch) {
  addAccountStoreObserver(sdbus::ObjectPath{ServiceBus::kAccountObserverPath});
  getProxy()
      .callMethodAsync("primaryAccount")
      .onInterface(com::vantor::HSAccountService_proxy::INTERFACE_NAME)
      .uponReplyInvoke([watch, changes = watch->changes()](
                           bus::CallError error, const std::vector<WireDictionary>& account) {
        if (!error) watch->found(firstOf(account), changes);
      });
}

ServiceSession::~ServiceSession() {
  unregisterProxy();
}

}  // namespace tallow
