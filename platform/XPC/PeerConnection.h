#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "platform/Base/Activity.h"
#include "platform/Base/Error.h"
#include "platform/XPC/BusConnection.h"
#include "platform/XPC/WireTypes.h"

namespace tallow {

// The way to one peer of the service: an object on the bus, found under a well-known name and
// started by the bus if need be. Calls go out on the connection that the service serves on, so that
// a peer can tell who asks, and never wait. Any thread.
class PeerConnection {
 public:
  static constexpr const char* kClassName = "PeerConnection";  // in log lines

  // Where a peer is found. Copied by a call.
  struct Address {
    const char* what;  // for people: "download service"
    const char* name;
    const char* path;
    const char* interface;
  };
  // What the bus itself waits for an answer.
  static constexpr std::chrono::seconds kUsualPatience{25};

  // The connection that peers are called on; nullptr takes it back. By the listener.
  static void setBus(std::shared_ptr<BusConnection> bus);
  static std::shared_ptr<BusConnection> bus();

  // Whether an error of a call says that nothing can be asked under the peer's name: nobody has it
  // and nobody can be started, or there is no bus. Else the peer was there, or was only slow.
  static bool cannotBeReached(const Error& error);
  // Whether the bus has not passed the call on, as too many are open: later there may be room.
  static bool wasRefusedByBus(const Error& error);
  // User-info key of the bus's own name for the error.
  static constexpr const char* kBusErrorKey = "busError";

  // Calls the peer's method. `reply` runs exactly once, on the bus's reading thread or, where there
  // is no bus, on the calling one, or on the one that ends the reading; it must not block. Its
  // error is kHSErrorServiceUnavailable when the peer is not there and cannot be started, goes away
  // before it has answered, or does not answer within `patience`; any other error of the bus is
  // passed on with its text.
  template <class... Results, class... Arguments>
  static void call(const Address& to, const char* method, std::chrono::seconds patience,
                   std::function<void(std::optional<Error>, Results...)> reply,
                   Arguments... arguments) {
    const auto pending = std::make_shared<Pending<Results...>>(to.what, std::move(reply));
    const std::shared_ptr<BusConnection> connection = bus();
    if (!connection) return;  // which answers
    connection->postAfterAnswers([weak = std::weak_ptr(connection), name = std::string(to.name),
                                  path = std::string(to.path), interface = to.interface, method,
                                  patience, pending, ... arguments = std::move(arguments)] {
      const auto open = weak.lock();
      if (!open) return;
      try {
        const std::shared_ptr<sdbus::IProxy> peer = bus::makeProxy(open->connection(), name, path);
        peer->callMethodAsync(method)
            .onInterface(interface)
            .withTimeout(patience)
            .withArguments(arguments...)
            .uponReplyInvoke([weak, peer = peer.get(), pending](bus::CallError error,
                                                                const Results&... results) {
              if (error) {
                pending->fail(*error, bus::isFromBus(*peer));
              } else {
                pending->answer(results...);
              }
              // The proxy is in use until this handler has returned.
              if (const auto still = weak.lock())
                still->post([weak, peer] {
                  if (const auto reading = weak.lock()) reading->release(peer);
                });
            });
        open->keepWhileReading(peer);
      } catch (const sdbus::Error& error) {
        pending->fail(error);
      }
    });
  }

 private:
  // Answers in the end, if only because nobody is left who could.
  template <class... Results>
  class Pending {
   public:
    Pending(const char* what, std::function<void(std::optional<Error>, Results...)> reply)
        : _what(what), _activity(Activity::current()), _reply(std::move(reply)) {}
    ~Pending() {
      if (_reply) _finish(_absent(_what, "there is no bus"), Results()...);
    }
    Pending(const Pending&) = delete;
    Pending& operator=(const Pending&) = delete;

    void answer(const Results&... results) { _finish(std::nullopt, results...); }
    void fail(const sdbus::Error& error, bool isFromBus = false) {
      _finish(_errorFrom(_what, error, isFromBus), Results()...);
    }

   private:
    void _finish(std::optional<Error> error, Results... results) {
      const Activity::Scope scope(_activity);
      if (const auto reply = std::exchange(_reply, nullptr))
        reply(std::move(error), std::move(results)...);
    }
    const char* const _what;
    const std::shared_ptr<const Activity> _activity;  // of who calls, for what the answer causes
    std::function<void(std::optional<Error>, Results...)> _reply;
  };

  static Error _absent(const char* peer, const std::string& why);
  static Error _errorFrom(const char* peer, const sdbus::Error& error, bool isFromBus);
};

}  // namespace tallow
