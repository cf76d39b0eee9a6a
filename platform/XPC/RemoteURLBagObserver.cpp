#include "platform/XPC/RemoteURLBagObserver.h"

#include "bus/com.vantor.HSURLBagObserver_proxy.h"

namespace tallow {

void RemoteURLBagObserver::urlBagDidUpdateWithSuccess(bool success,
                                                      const std::optional<Error>& error) {
  tell<com::vantor::HSURLBagObserver_proxy>([&](auto& observer) {
    observer.urlBagDidUpdateWithSuccess(success, wire::optionalError(error));
  });
}

}  // namespace tallow
