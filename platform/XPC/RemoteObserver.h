#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/BusConnection.h"
#include "platform/XPC/PendingReply.h"

namespace tallow {

// The live proxy of an observer that a caller exports. Sends without waiting and asks for no reply;
// says nothing any more once its caller has left, nor to one that leaves what it is sent unread: it
// counts among its answers. Any thread.
template <class Observer>
class RemoteObserver : public Observer {
 public:
  RemoteObserver(std::shared_ptr<BusConnection> connection, const std::string& uniqueName,
                 const std::string& path, std::shared_ptr<CallCounts> counts)
      : _connection(std::move(connection)),
        _proxy(bus::makeProxy(_connection->connection(), uniqueName, path)),
        _counts(std::move(counts)) {}

  void forget() { _isForgotten = true; }

 protected:
  // Calls the observer with `Interface`, which the bus library has generated for it.
  template <class Interface, class Call>
  void tell(Call call) const {
    if (_isForgotten) return;
    if (!_counts->mayBeAnswered()) {
      logLevel(2,
               "RemoteObserver: an observer is not told, since it does not read what it is sent");
      return;
    }
    struct Caller final : Interface {
      explicit Caller(sdbus::IProxy& proxy) : Interface(proxy) {}
    };
    try {
      Caller caller(*_proxy);
      wire::takeWrittenBytes();
      call(caller);
      _counts->addAnswer(wire::takeWrittenBytes());
    } catch (const sdbus::Error& failure) {
      logLevel(2, "RemoteObserver: cannot tell an observer: %@", failure.getMessage());
    }
  }

 private:
  std::shared_ptr<BusConnection> _connection;
  std::unique_ptr<sdbus::IProxy> _proxy;
  const std::shared_ptr<CallCounts> _counts;
  std::atomic<bool> _isForgotten{false};
};

}  // namespace tallow
