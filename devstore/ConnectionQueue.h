#pragma once

#include <httplib.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

#include "platform/Concurrency/WorkerPool.h"

namespace tallow::devstore {

// Runs the HTTP library's connections on an elastic pool of threads, one thread each, and ends them
// when the server stops: the library itself waits until a client has closed its idle connection, or
// for seconds. Owned by the library's server, which calls it from its own thread.
class ConnectionQueue final : public httplib::TaskQueue {
 public:
  // `port` is the one that the server listens on.
  ConnectionQueue(std::size_t mostConnections, std::uint16_t port)
      : _pool(mostConnections), _port(port) {}

  // Later versions of the library ask for a boolean.
  using EnqueueResult = decltype(std::declval<httplib::TaskQueue&>().enqueue({}));
  EnqueueResult enqueue(std::function<void()> connection) override {
    _pool.async(std::move(connection));
    return static_cast<EnqueueResult>(true);
  }
  void shutdown() override;

 private:
  WorkerPool _pool;
  const std::uint16_t _port;
};

}  // namespace tallow::devstore
