#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "devstore/Answer.h"
#include "devstore/ReceivedRequest.h"
#include "platform/Base/Result.h"

namespace tallow::devstore {

class Holdup;
class Identity;

// One listening port, plain or TLS, and the connections made to it. Reads requests, hands them to
// the handler, and delivers its answers as they ask to be: late, never, in part. Requests may be
// hostile: paths and bodies are bounded here, headers by the library, and so is the number of
// connections served at a time; more wait.
//
// Owned by the store and used by its thread; the handler is called from any number of threads at
// once.
class HTTPListener {
 public:
  static constexpr std::size_t kMostBodyBytes = 32u << 20;
  static constexpr std::size_t kMostConnections = 256;

  using Handler = std::function<Answer(const ReceivedRequest&)>;

  // Takes the port (0: any free one) of a numeric address. With `identity` it speaks TLS, without
  // it (nullptr) plain HTTP. `holdup`, where answers wait, must outlive the listener.
  static Result<std::unique_ptr<HTTPListener>> bind(const std::string& address, std::uint16_t port,
                                                    const Identity* identity, Holdup& holdup);
  // Stops. `holdup` must have been stopped before, or answers that hang are waited for.
  ~HTTPListener();

  std::uint16_t port() const;
  // Begins to accept; once.
  void start(const Handler& handler);

 private:
  struct State;
  explicit HTTPListener(std::unique_ptr<State> state);

  const std::unique_ptr<State> _state;
};

}  // namespace tallow::devstore
