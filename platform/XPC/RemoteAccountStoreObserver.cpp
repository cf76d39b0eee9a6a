#include "platform/XPC/RemoteAccountStoreObserver.h"

#include "bus/com.vantor.HSAccountStoreObserver_proxy.h"
#include "platform/XPC/WireAccount.h"

namespace tallow {

void RemoteAccountStoreObserver::primaryAccountDidChange(
    const std::shared_ptr<HSStoreAccount>& account) {
  tell<com::vantor::HSAccountStoreObserver_proxy>(
      [&](auto& observer) { observer.primaryAccountDidChange(wire::optionalAccount(account)); });
}

}  // namespace tallow
