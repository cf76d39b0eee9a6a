#include "platform/VendBase/HSServiceDelegate.h"

#include <utility>

namespace tallow {

HSServiceDelegate::HSServiceDelegate(std::string initWithServiceName)
    : _serviceName(std::move(initWithServiceName)) {}

std::shared_ptr<HSAccountService> HSServiceDelegate::listenerShouldAcceptNewConnection(
    const XPCConnection& connection) {
  return clientInterfaceClass()(connection.storeClient);
}

}  // namespace tallow
