#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "devstore/ReceivedRequest.h"

namespace tallow::devstore {

// What the store has received, oldest first; bounded, the oldest go first. Owned by the store;
// callable from any thread.
class RequestLog {
 public:
  static constexpr std::size_t kMostRequests = 2000;
  static constexpr std::size_t kMostBodyBytes = 32u << 20;  // of all requests together

  void add(ReceivedRequest request);
  // Those for `path`, or all when it is empty.
  std::vector<ReceivedRequest> requests(std::string_view path = {}) const;
  // How many have been dropped since the last clear().
  std::uint64_t dropped() const;
  void clear();

  // Waits until there are `count` requests for `path` (any when empty), at most `timeout`; says
  // whether there are.
  bool wait(std::string_view path, std::size_t count, std::chrono::milliseconds timeout) const;
  // Ends every wait, for good.
  void stop();

 private:
  std::size_t countFor(std::string_view path) const;

  mutable std::mutex _lock;
  mutable std::condition_variable _changed;
  // All guarded by _lock.
  std::deque<ReceivedRequest> _requests;
  std::size_t _bodyBytes = 0;
  std::uint64_t _dropped = 0;
  bool _stopped = false;
};

}  // namespace tallow::devstore
