#include "platform/XPC/RemoteURLBagObserver.h"

#include <utility>

#include "bus/com.vantor.HSURLBagObserver_proxy.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

class RemoteURLBagObserver::Proxy final : public com::vantor::HSURLBagObserver_proxy {
 public:
  explicit Proxy(std::unique_ptr<sdbus::IProxy> proxy)
      : HSURLBagObserver_proxy(*proxy), _proxy(std::move(proxy)) {}

 private:
  std::unique_ptr<sdbus::IProxy> _proxy;
};

RemoteURLBagObserver::RemoteURLBagObserver(std::shared_ptr<BusConnection> connection,
                                           const std::string& uniqueName, const std::string& path,
                                           std::shared_ptr<CallCounts> counts)
    : _connection(std::move(connection)),
      _proxy(std::make_unique<Proxy>(bus::makeProxy(_connection->connection(), uniqueName, path))),
      _counts(std::move(counts)) {}

RemoteURLBagObserver::~RemoteURLBagObserver() = default;

void RemoteURLBagObserver::urlBagDidUpdateWithSuccess(bool success,
                                                      const std::optional<Error>& error) {
  if (_isForgotten) return;
  if (!_counts->mayBeAnswered()) {
    logLevel(
        2, "RemoteURLBagObserver: an observer is not told, since it does not read what it is sent");
    return;
  }
  try {
    wire::takeWrittenBytes();
    _proxy->urlBagDidUpdateWithSuccess(success, wire::optionalError(error));
    _counts->addAnswer(wire::takeWrittenBytes());
  } catch (const sdbus::Error& failure) {
    logLevel(2, "RemoteURLBagObserver: cannot tell an observer: %@", failure.getMessage());
  }
}

}  // namespace tallow
