#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

namespace tallow {

// What other threads have told a test, in order.
template <class T>
class Heard {
 public:
  void note(T what) {
    const std::lock_guard lock(_mutex);
    _all.push_back(std::move(what));
    _changed.notify_all();
  }
  // The one after the last that has been taken; waits for it. A failure when nothing comes.
  T next() {
    std::unique_lock lock(_mutex);
    if (_waitFor(lock, _taken + 1)) return _all[_taken++];
    ADD_FAILURE() << "nothing more was heard";
    return T{};
  }
  // All so far, once there are `count`; fewer when they do not come.
  std::vector<T> waitFor(std::size_t count) {
    std::unique_lock lock(_mutex);
    _waitFor(lock, count);
    return _all;
  }
  bool hasNothingMore() {
    const std::lock_guard lock(_mutex);
    return _taken == _all.size();
  }

 private:
  bool _waitFor(std::unique_lock<std::mutex>& lock, std::size_t count) {
    return _changed.wait_for(lock, std::chrono::seconds(30), [&] { return _all.size() >= count; });
  }

  std::mutex _mutex;
  std::condition_variable _changed;
  std::vector<T> _all;
  std::size_t _taken = 0;
};

}  // namespace tallow
