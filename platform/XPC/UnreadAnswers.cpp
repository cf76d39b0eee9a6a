#include "platform/XPC/UnreadAnswers.h"

#include <map>
#include <utility>

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// Whether the bus daemon will never say.
bool isRefusal(const std::string& errorName) {
  for (const char* refusal : {"UnknownMethod", "UnknownInterface", "UnknownObject", "AccessDenied"})
    if (errorName == std::string("org.freedesktop.DBus.Error.") + refusal) return true;
  return false;
}

}  // namespace

UnreadAnswers::UnreadAnswers(sdbus::IConnection& connection)
    : _busDaemon(bus::makeProxy(connection, bus::kBusName, bus::kBusPath)) {}

void UnreadAnswers::ask(const std::string& uniqueName,
                        std::function<void(std::optional<std::uint64_t>)> done) {
  _busDaemon->callMethodAsync("GetConnectionStats")
      .onInterface("org.freedesktop.DBus.Debug.Stats")
      .withArguments(uniqueName)
      .uponReplyInvoke(
          [canAsk = _canAsk, done = std::move(done)](
              bus::CallError error, const std::map<std::string, sdbus::Variant>& statistics) {
            const auto bytes = statistics.find("OutgoingBytes");
            if (!error && bytes != statistics.end() &&
                bytes->second.containsValueOfType<std::uint32_t>()) {
              done(bytes->second.get<std::uint32_t>());
              return;
            }
            // A caller that has left, or a bus that was busy, is no reason to give up.
            if (!error || isRefusal(bus::errorName(*error))) {
              *canAsk = false;
              logLevel(3, "UnreadAnswers: the bus does not say what its clients have not read");
            }
            done(std::nullopt);
          });
}

}  // namespace tallow
