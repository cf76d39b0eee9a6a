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
                                                       const std::string& path,
                                                       std::shared_ptr<CallCounts> counts)
    : _connection(std::move(connection)),
      _proxy(std::make_unique<Proxy>(bus::makeProxy(_connection->connection(), uniqueName, path))),
      _counts(std::move(counts)) {}

RemoteAccountStoreObserver::~RemoteAccountStoreObserver() = default;

void RemoteAccountStoreObserver::primaryAccountDidChange(
    const std::shared_ptr<HSStoreAccount>& account) {
  if (_isForgotten) return;
  if (!_counts->mayBeAnswered()) {
    logLevel(2,
             "RemoteAccountStoreObserver: an observer is not told, since it does not read what it "
             "is sent");
    return;
  }
  try {
    wire::takeWrittenBytes();
    _proxy->primaryAccountDidChange(wire::optionalAccount(account));
    _counts->addAnswer(wire::takeWrittenBytes());
  } catch (const sdbus::Error& failure) {
    logLevel(2, "RemoteAccountStoreObserver: cannot tell an observer: %@", failure.getMessage());
  }
}

}  // namespace tallow
