#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "platform/VendBase/ClientDescriptor.h"
#include "platform/XPC/BusConnection.h"
#include "platform/XPC/ProcessIdentity.h"

namespace tallow {

// Finds out who is behind a unique name: asks the bus daemon for its credentials, the kernel about
// the process, and the client descriptors whether one names it. Nothing waits on the reading
// thread: the bus is asked without waiting, the rest runs on the worker pool. Owned by the
// CallerTable; reading thread only.
class CallerIdentification {
 public:
  static constexpr const char* kClassName = "CallerIdentification";  // in log lines

  struct Outcome {
    std::optional<std::uint32_t> uid;  // nothing is known when absent: the caller has left
    ProcessIdentity process;
    // Null: no descriptor names the process, or it is another user's.
    std::shared_ptr<const ClientDescriptor> descriptor;
    std::string refusal;
    bool mayPass = false;  // the refusal: the next time may be better
  };
  using Done = std::function<void(Outcome)>;

  CallerIdentification(std::shared_ptr<BusConnection> connection, bool ownUserOnly);

  // `done` runs on the reading thread, later.
  void identify(const std::string& uniqueName, Done done);
  // The process that owns the name, as the bus daemon knows it; nothing when nobody does.
  void findProcess(const std::string& name,
                   std::function<void(std::optional<std::uint32_t>)> found);

 private:
  struct Credentials;
  void _gotCredentials(const std::string& uniqueName, Credentials credentials, Done done);
  void _confirm(const std::string& uniqueName, Outcome outcome, Done done);

  std::shared_ptr<BusConnection> _connection;
  bool _ownUserOnly;
  std::unique_ptr<sdbus::IProxy> _busDaemon;
};

}  // namespace tallow
