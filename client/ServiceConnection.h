#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "client/AccountServiceClient.h"
#include "client/ServiceSession.h"

namespace tallow {

// The client's standing connection to the service. The bus may go away and come back, and the
// service may end and be started again at any time: then whom the client acts for and its observers
// are told to the new one before it is asked anything. Owned by the client; any thread.
class ServiceConnection {
 public:
  explicit ServiceConnection(AccountServiceClient::Instance instance);
  ~ServiceConnection();
  ServiceConnection(const ServiceConnection&) = delete;
  ServiceConnection& operator=(const ServiceConnection&) = delete;

  // Runs `call(ServiceSession&)`, which may throw sdbus::Error. Once more with a new service where
  // the one that was called had left before the call reached it; a call that may have been carried
  // out is never repeated.
  template <class Call>
  auto call(Call call) -> decltype(call(std::declval<ServiceSession&>())) {
    const std::shared_ptr<ServiceSession> tried = session();
    try {
      return call(*tried);
    } catch (const sdbus::Error& error) {
      if (!wasNotDelivered(error)) throw;
      const std::lock_guard lock(_mutex);
      if (_session == tried) _session.reset();  // else another thread has found the next service
    }
    return call(*session());
  }

  // Each throws sdbus::Error when it fails, and then nothing has changed.
  void actAs(const std::string& identifier);
  void observe(AccountServiceClient::BagObserver observer);
  void observeAccounts(AccountServiceClient::AccountObserver observer);

  // The running service: found, started and told what it must know first, if need be. Throws
  // sdbus::Error.
  std::shared_ptr<ServiceSession> session();

 private:
  static bool wasNotDelivered(const sdbus::Error& error);
  bool _isStale(const ServiceSession& session);
  std::shared_ptr<ServiceSession> _newSession();
  void _ownerHasChanged(const std::string& owner);
  // Puts an observer in place of the one that is kept. The running service is told with `remove`
  // that the one before is no more, and with `add` of the new one.
  template <class Observer, class Remove, class Add>
  void _exchange(Observer& kept, Observer observer, Remove remove, Add add);
  void _keepObserving(std::string known);

  const AccountServiceClient::Instance _instance;
  const std::string _serviceName;

  // Held while the service is being found; never taken by the thread that reads the bus.
  std::mutex _mutex;
  std::shared_ptr<ServiceBus> _bus;
  std::shared_ptr<ServiceSession> _session;
  std::optional<std::string> _identifier;
  AccountServiceClient::BagObserver _observer;
  std::shared_ptr<AccountWatch> _accountWatch;

  // Never held while something is waited for.
  std::mutex _ownerMutex;
  std::condition_variable _ownerChanged;
  std::optional<std::string> _owner;  // what the bus has last said; nothing before it says anything
  bool _isEnding = false;
  // Finds the service that has come back while an observer waits and nobody calls.
  std::thread _keeper;
};

}  // namespace tallow
