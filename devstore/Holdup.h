#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>

namespace tallow::devstore {

// Where answers wait that are staged slow or never to come. Owned by the store; callable from any
// thread. At most kMostHeld wait at a time, so that held answers never take all of the store's
// threads.
class Holdup {
 public:
  static constexpr std::size_t kMostHeld = 64;

  // A number for an answer, to be taken before it is known whether the answer shall wait: a
  // release() that comes between the two lets it go on as well.
  using Ticket = std::uint64_t;
  Ticket ticket();
  // Waits that long, or (nullopt) until release(); stop() ends either. False, at once, when too
  // many wait already or the store is stopping.
  bool wait(Ticket ticket, std::optional<std::chrono::milliseconds> howLong);
  // Lets everything go on that waits without an end and has its ticket already.
  void release();
  // Lets everything go on, for good.
  void stop();

 private:
  std::mutex _lock;
  std::condition_variable _changed;
  std::size_t _held = 0;
  Ticket _releases = 0;
  bool _stopped = false;
};

}  // namespace tallow::devstore
