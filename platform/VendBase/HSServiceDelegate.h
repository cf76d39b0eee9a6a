#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/VendBase/HSServiceClientInterface.h"
#include "platform/XPC/XPCListener.h"

namespace tallow {

// Base of a service's listener delegate: accepts connections and gives each its own client
// interface. The subclass says of which class. Owned by the service's main for the life of the
// process; called on the listener's thread.
class HSServiceDelegate : public XPCListenerDelegate {
 public:
  // Makes the interface object of one connection (the "client interface class").
  using ClientInterfaceClass = std::function<std::shared_ptr<HSServiceClientInterface>(
      std::shared_ptr<const HSStoreClient>)>;

  explicit HSServiceDelegate(std::string initWithServiceName);

  // What the host calls the service; hosts of several tell their delegates apart by it.
  const std::string& serviceName() const { return _serviceName; }
  virtual ClientInterfaceClass clientInterfaceClass() const = 0;

  std::shared_ptr<HSAccountService> listenerShouldAcceptNewConnection(
      const XPCConnection& connection) override;

 private:
  std::string _serviceName;
};

}  // namespace tallow
