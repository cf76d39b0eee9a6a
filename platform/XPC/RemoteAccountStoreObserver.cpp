#include "platform/XPC/RemoteAccountStoreObserver.h"

#include <utility>

#include "bus/com.vantor.HSAccountStoreObserver_proxy.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/WireAccount.h"

namespace tallow {

class RemoteAccountStoreObserver::Proxy final : public com::vantor::HSAccountStoreObserver_proxy {
 public:
  explicit Proxy(std::unique_ptr<sdbus::IProxy> proxy)
      : HSAccountStoreObserver_proxy(*proxy), _proxy(std::move(proxy)) {}

 private:
  std::unique_ptr<sdbus::IProxy> _proxy;
};

RemoteAccountStoreObserver::RemoteAccountStoreObserver(std::shared_ptr<BusConnection> connection,
                                                       const std::string& uniqueName,
                                                       const std::string& path)
    : _connection(std::move(connection)),
      _proxy(std::make_unique<Proxy>(bus::makeProxy(_connection->connection(), uniqueName, path))) {
}

RemoteAccountStoreObserver::~RemoteAccountStoreObserver() = default;

void RemoteAccountStoreObserver::primaryAccountDidChange(
    const std::shared_ptr<HSStoreAccount>& account) {
  if (_isForgotten) return;
  try {
    _proxy->primaryAccountDidChange(wire::optionalAccount(account));
  } catch (const sdbus::Error& failure) {
    logLevel(2, "RemoteAccountStoreObserver: cannot tell an observer: %@", failure.getMessage());
  }
}

}  // namespace tallow
