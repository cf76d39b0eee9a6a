#pragma once

#include <functional>
#include <mutex>
#include <utility>

#include "platform/Concurrency/RunLoop.h"

namespace tallow {

// What every run loop's timer is made of: a block that is taken out once, by whoever comes first,
// the loop that fires it or the thread that invalidates it. Any thread.
class OneShotTimer : public RunLoop::Timer {
 public:
  explicit OneShotTimer(std::function<void()> block) : _block(std::move(block)) {}

  // The loop's thread only.
  void fire() {
    if (const std::function<void()> block = take()) block();
  }
  void invalidate() override {
    // What the block holds is let go of here, outside the lock.
    if (const std::function<void()> block = take()) didInvalidate();
  }
  bool isValid() const override {
    const std::lock_guard lock(_mutex);
    return _block != nullptr;
  }

 protected:
  // Called once, on the invalidating thread, when the timer will not fire any more.
  virtual void didInvalidate() {}

 private:
  std::function<void()> take() {
    const std::lock_guard lock(_mutex);
    return std::exchange(_block, nullptr);
  }

  mutable std::mutex _mutex;
  std::function<void()> _block;
};

}  // namespace tallow
