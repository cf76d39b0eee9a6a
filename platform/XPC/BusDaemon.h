#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include "platform/XPC/SDBus.h"

// What the bus itself tells of names: who has one, and when that changes. As SDBus.h.

namespace tallow::bus {

// Calls `handler` with who had the name and who has it now, "" for nobody, on the thread that reads
// the connection, until the slot is let go. Throws sdbus::Error.
template <class Handler>
sdbus::Slot watchOwner(sdbus::IConnection& connection, const std::string& name, Handler handler) {
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
      "member='NameOwnerChanged',arg0='" +
      name + "'";
  return addMatch(connection, rule, [handler = std::move(handler)](auto&& signal) {
    std::string about;
    std::string before;
    std::string now;
    signal >> about >> before >> now;
    handler(before, now);
  });
}

// Blocking questions to the bus, for programs that have nothing else to do. Needs a connection that
// is read on another thread and outlives it. Any thread but that one.
class BusDaemon {
 public:
  explicit BusDaemon(sdbus::IConnection& connection)
      : _proxy(makeProxy(connection, kBusName, kBusPath)) {}

  // The unique name of who has the name. Throws sdbus::Error, NameHasNoOwner when nobody has.
  std::string ownerOf(const std::string& name) const {
    std::string owner;
    _proxy->callMethod("GetNameOwner")
        .onInterface(kBusName)
        .withArguments(name)
        .storeResultsTo(owner);
    return owner;
  }
  // The same of a service that is started if need be: again where it is found just as it leaves.
  std::string ownerOfStarted(const std::string& name) const {
    for (int attempt = 1;; ++attempt) {
      try {
        return ownerOf(name);
      } catch (const sdbus::Error& error) {
        if (errorName(error) != kNobody || attempt == kMaxAttempts) throw;
      }
      std::uint32_t outcome = 0;
      _proxy->callMethod("StartServiceByName")
          .onInterface(kBusName)
          .withTimeout(kStartPatience)
          .withArguments(name, std::uint32_t{0})
          .storeResultsTo(outcome);
    }
  }

 private:
  static constexpr const char* kNobody = "org.freedesktop.DBus.Error.NameHasNoOwner";
  static constexpr int kMaxAttempts = 10;
  // How long starting a service may take: what the bus daemon itself allows, and a little.
  static constexpr std::chrono::seconds kStartPatience{125};

  const std::unique_ptr<sdbus::IProxy> _proxy;
};

}  // namespace tallow::bus
