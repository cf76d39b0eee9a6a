#pragma once

#include <sdbus-c++/sdbus-c++.h>
#include <systemd/sd-bus.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

// The bus library, versions 1.2 and 2. What differs between them is here and nowhere else. Only
// for the .cpp files of platform/XPC and of the client library, and the headers of this folder.

#if __has_include(<sdbus-c++/VTableItems.h>)
#define TALLOW_SDBUS_2 1
#else
#define TALLOW_SDBUS_2 0
#endif

namespace tallow::bus {

#if TALLOW_SDBUS_2
using ServiceName = sdbus::ServiceName;
using CallError = std::optional<sdbus::Error>;
inline sdbus::Error makeError(std::string name, std::string text) {
  return sdbus::Error(sdbus::Error::Name{std::move(name)}, std::move(text));
}
inline std::string errorName(const sdbus::Error& error) {
  return error.getName();
}
inline std::unique_ptr<sdbus::IProxy> makeProxy(sdbus::IConnection& connection,
                                                std::string destination, std::string path) {
  return sdbus::createProxy(connection, sdbus::ServiceName{std::move(destination)},
                            sdbus::ObjectPath{std::move(path)});
}
inline void requestName(sdbus::IConnection& connection, const std::string& name) {
  connection.requestName(sdbus::ServiceName{name});
}
inline void releaseName(sdbus::IConnection& connection, const std::string& name) {
  connection.releaseName(sdbus::ServiceName{name});
}
inline bool processOne(sdbus::IConnection& connection) {
  return connection.processPendingEvent();
}
template <class Handler>
sdbus::Slot addMatch(sdbus::IConnection& connection, const std::string& rule, Handler handler) {
  return connection.addMatch(rule, std::move(handler), sdbus::return_slot);
}
// Another file to poll beside the bus's own; negative where there is none.
inline int eventFile(const sdbus::IConnection::PollData& data) {
  return data.eventFd;
}
#else
using ServiceName = std::string;
using CallError = const sdbus::Error*;
inline sdbus::Error makeError(const std::string& name, const std::string& text) {
  return {name, text};
}
inline std::string errorName(const sdbus::Error& error) {
  return error.getName();
}
inline std::unique_ptr<sdbus::IProxy> makeProxy(sdbus::IConnection& connection,
                                                std::string destination, std::string path) {
  return sdbus::createProxy(connection, std::move(destination), std::move(path));
}
inline void requestName(sdbus::IConnection& connection, const std::string& name) {
  connection.requestName(name);
}
inline void releaseName(sdbus::IConnection& connection, const std::string& name) {
  connection.releaseName(name);
}
inline bool processOne(sdbus::IConnection& connection) {
  return connection.processPendingRequest();
}
template <class Handler>
sdbus::Slot addMatch(sdbus::IConnection& connection, const std::string& rule, Handler handler) {
  return connection.addMatch(rule, std::move(handler));
}
inline int eventFile(const sdbus::IConnection::PollData&) {
  return -1;
}
#endif

// Where the bus itself is called; the name is its interface's, too.
inline constexpr const char* kBusName = "org.freedesktop.DBus";
inline constexpr const char* kBusPath = "/org/freedesktop/DBus";

// The name of the error by which a bus, or a service, says that somebody wants too much at once.
inline constexpr const char* kLimitsExceeded = "org.freedesktop.DBus.Error.LimitsExceeded";

// Whether the name of a call's error, the bus's or the library's, says that nobody could be asked:
// nobody has the name and nobody can be started for it, or the bus has gone.
inline bool saysNobodyIsThere(std::string_view errorName) {
  return errorName.starts_with("org.freedesktop.DBus.Error.Spawn") ||
         errorName == "org.freedesktop.DBus.Error.ServiceUnknown" ||
         errorName == "org.freedesktop.DBus.Error.NameHasNoOwner" ||
         errorName == "org.freedesktop.DBus.Error.Disconnected" ||
         errorName == "System.Error.ENOTCONN" || errorName == "System.Error.ECONNRESET";
}
// The same, or that whoever was asked has not answered in time.
inline bool saysNobodyAnswers(std::string_view errorName) {
  return saysNobodyIsThere(errorName) || errorName == "org.freedesktop.DBus.Error.NoReply" ||
         errorName == "org.freedesktop.DBus.Error.Timeout" ||
         errorName == "org.freedesktop.DBus.Error.TimedOut" ||
         errorName == "System.Error.ETIMEDOUT";
}

// The message underneath. The library's own reading and writing of arrays and variants goes element
// by element; the wire's types read and write the message itself.
class MessageAccess : public sdbus::Message {
 public:
  static sd_bus_message* raw(const sdbus::Message& message) {
    return static_cast<sd_bus_message*>(message.*&MessageAccess::msg_);
  }
  // What a read says at the end of an array: the library's loops stop there.
  static void setAtEnd(sdbus::Message& message) { message.*& MessageAccess::ok_ = false; }
};

inline sd_bus_message* raw(const sdbus::Message& message) {
  return MessageAccess::raw(message);
}

// The message that is being handled. Only in a handler: there the library holds its lock of the
// connection, which calls of sd-bus on it need.
inline sd_bus_message* currentMessage(const sdbus::IObject& object) {
#if TALLOW_SDBUS_2
  return raw(object.getCurrentlyProcessedMessage());
#else
  return raw(*object.getCurrentlyProcessedMessage());
#endif
}

// Whether the answer that is being handled is the bus's own, and not of whom the proxy stands for.
// Only in the answer's handler.
inline bool isFromBus(const sdbus::IProxy& proxy) {
#if TALLOW_SDBUS_2
  sd_bus_message* const answer = raw(proxy.getCurrentlyProcessedMessage());
#else
  sd_bus_message* const answer = raw(*proxy.getCurrentlyProcessedMessage());
#endif
  const char* const sender = sd_bus_message_get_sender(answer);
  return sender != nullptr && std::string_view(sender) == kBusName;
}

}  // namespace tallow::bus
