#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "bus/com.vantor.HSAccountService_proxy.h"
#include "bus/com.vantor.HSAccountStoreObserver_adaptor.h"
#include "bus/com.vantor.HSServiceRemoteObject_proxy.h"
#include "bus/com.vantor.HSURLBagObserver_adaptor.h"
#include "bus/com.vantor.tallowd.Status_proxy.h"
#include "client/AccountServiceClient.h"
#include "client/AccountWatch.h"
#include "client/BusReader.h"
#include "platform/XPC/BusDaemon.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

// The service's object.
inline constexpr const char* kServicePath = "/com/vantor/tallowd";

// A connection to the bus, read by a thread of its own, with the observer objects that the client
// exports there.
class ServiceBus {
 public:
  // Throws sdbus::Error. `ownerChanged` is called on the reading thread with the new owner of
  // `serviceName`, "" when nobody owns it any more.
  ServiceBus(AccountServiceClient::Instance instance, const std::string& serviceName,
             const std::function<void(const std::string&)>& ownerChanged);
  ~ServiceBus();
  ServiceBus(const ServiceBus&) = delete;
  ServiceBus& operator=(const ServiceBus&) = delete;

  bool hasGone() const { return _hasGone; }
  sdbus::IConnection& connection() { return *_connection; }
  std::string uniqueName() const { return _connection->getUniqueName(); }
  // The unique name of who owns the service's name, started if need be. Throws sdbus::Error.
  std::string findService(const std::string& serviceName) const {
    return _busDaemon.ownerOfStarted(serviceName);
  }
  // Each exports the observer at its path; an empty one takes it back.
  void exportObserver(const AccountServiceClient::BagObserver& observer);
  void exportObserver(const std::shared_ptr<AccountWatch>& watch);

  static constexpr const char* kObserverPath = "/com/vantor/tallowd/client/bag";
  static constexpr const char* kAccountObserverPath = "/com/vantor/tallowd/client/accounts";

 private:
  class Observer;
  class AccountsObserver;

  std::unique_ptr<sdbus::IConnection> _connection;
  const bus::BusDaemon _busDaemon;
  const sdbus::Slot _ownerWatch;
  std::unique_ptr<Observer> _observer;
  std::unique_ptr<AccountsObserver> _accountsObserver;
  std::atomic<bool> _hasGone{false};
  std::optional<BusReader> _reader;
};

// One running service, addressed by its unique name: a call never reaches another one that was
// started later and does not know whom this client acts for.
class ServiceSession final : public sdbus::ProxyInterfaces<com::vantor::HSAccountService_proxy,
                                                           com::vantor::HSServiceRemoteObject_proxy,
                                                           com::vantor::tallowd::Status_proxy> {
 public:
  ServiceSession(std::shared_ptr<ServiceBus> bus, std::string uniqueName);
  ~ServiceSession();
  ServiceSession(const ServiceSession&) = delete;
  ServiceSession& operator=(const ServiceSession&) = delete;

  // Adds the observer, and asks who is signed in: the answer is told to it on the reading thread.
  void addAccountWatch(const std::shared_ptr<AccountWatch>& watch);

  const std::string& uniqueName() const { return _uniqueName; }
  const ServiceBus& bus() const { return *_bus; }

 private:
  std::shared_ptr<ServiceBus> _bus;
  std::string _uniqueName;
};

}  // namespace tallow
