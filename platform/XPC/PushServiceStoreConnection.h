#pragma once

#include <functional>
#include <memory>

#include "platform/VendBase/PushServiceStoreProtocol.h"

namespace tallow {

// One connection that a listener of the push-service-store protocol is asked to accept. Nothing is
// delivered before resume(). Any thread. No listener of this program is one: what its clients ask
// of the protocol comes in through the account service. For a process that serves nothing else.
class PushServiceStoreConnection {
 public:
  using Handler = std::function<void()>;

  virtual ~PushServiceStoreConnection() = default;
  virtual void setExportedObject(std::shared_ptr<PushServiceStoreProtocol> object) = 0;
  // The peer has gone away, or the connection has ended.
  virtual void setInterruptionHandler(Handler handler) = 0;
  virtual void setInvalidationHandler(Handler handler) = 0;
  virtual void resume() = 0;
};

// Decides about the connections of such a listener.
class PushServiceStoreListenerDelegate {
 public:
  virtual ~PushServiceStoreListenerDelegate() = default;
  virtual bool listenerShouldAcceptNewConnection(PushServiceStoreConnection& connection) = 0;
};

}  // namespace tallow
