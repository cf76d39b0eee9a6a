#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Base/Error.h"
#include "platform/Base/URL.h"
#include "platform/XPC/BusConnection.h"

namespace tallow::devstore {

// A stand-in for one of the processes that the service asks on the bus: the push agent, the
// download service, the purchase-permission service. Knows nothing itself: each call goes to a
// running store as POST /peers/NAME/METHOD, whose answer is the call's. Run in a process of its
// own, which the bus starts on demand. Calls come and are answered on the bus's reading thread.
class Peer {
 public:
  static std::vector<std::string> names();

  // The peer under its bus name. Errors (domain "Peer") say what to do.
  static Result<std::unique_ptr<Peer>> start(std::string_view name, const URL& store,
                                             BusConnection::Bus bus);
  ~Peer();

 private:
  struct State;
  explicit Peer(std::unique_ptr<State> state);
  const std::unique_ptr<State> _state;
};

}  // namespace tallow::devstore
