#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/Base/Error.h"
#include "platform/VendBase/HSAccountService.h"
#include "platform/XPC/XPCConnection.h"

namespace tallow {

class XPCListenerDelegate {
 public:
  virtual ~XPCListenerDelegate() = default;
  // The object that serves this connection; null refuses it. Called on the listener's thread,
  // before any call of the connection is delivered.
  virtual std::shared_ptr<HSAccountService> listenerShouldAcceptNewConnection(
      const XPCConnection& connection) = 0;
};

// Publishes the service on the bus: claims the name, exports the object /com/vantor/tallowd, finds
// out who calls, and hands every call to the object that the delegate made for that caller.
//
// Everything a caller can make the service hold is counted against that caller and bounded: calls
// that wait (256; more answer LimitsExceeded), observers, connections per user. A caller that no
// descriptor names is refused with AccessDenied, every operation alike. A reply that is dropped
// unanswered answers com.vantor.Error.NoReply.
class XPCListener {
 public:
  static constexpr const char* kClassName = "XPCListener";  // in log lines

  enum class Bus { Session, System };

  // `serviceName` is the bus name: "com.vantor.tallowd", or "com.vantor.tallowd.daemon" on the
  // system bus.
  static std::unique_ptr<XPCListener> initWithMachServiceName(std::string serviceName, Bus bus);
  virtual ~XPCListener() = default;

  virtual void setDelegate(XPCListenerDelegate* delegate) = 0;  // before resume
  // Connects, exports, claims the name and starts the reader thread. The error when the bus is not
  // there or the name is taken.
  virtual std::optional<Error> resume() = 0;
  // What the status interface's Describe() answers, as JSON, once the listener has added its
  // "callers" (other users' only for root); asked on a worker thread. Before resume.
  virtual void setStatusProvider(std::function<Dictionary()> provider) = 0;
  // Called once, on the listener's thread, when the bus has gone away. Before resume.
  virtual void setInvalidationHandler(std::function<void()> handler) = 0;
  // What callers make the listener hold.
  struct Load {
    std::size_t callers = 0;       // connected, and have called
    std::size_t waitingCalls = 0;  // unanswered
    std::uint64_t calls = 0;       // since the start
  };
  using LoadHandler = std::function<void(const Load&)>;
  // Tells the load on the listener's thread, later, between two messages.
  virtual void tellLoad(LoadHandler told) = 0;
  // Asks `decide` there. Where it says yes, gives up the name, reads the calls that came in for it
  // before the bus took it back, and asks once more: where it says no now, the name is taken back,
  // if nobody else has it by then. `done` is told whether the name is gone, on that thread, and not
  // at all when the bus has gone.
  virtual void giveUpNameIf(std::function<bool(const Load&)> decide,
                            std::function<void(bool gaveUp)> done) = 0;
  // Claims the name again after all. `done` is told whether it could, likewise.
  virtual void takeNameBack(std::function<void(bool hasName)> done) = 0;
  // Whether a service manager looks after the process: it starts no other while this one runs.
  virtual bool hasServiceManager() const = 0;
  // Says that the service is stopping, gives up the name, serves the calls that had come in for it
  // and ends. Calls that still wait are answered as long as the process lives. Not on the
  // listener's thread.
  virtual void stop() = 0;
};

}  // namespace tallow
