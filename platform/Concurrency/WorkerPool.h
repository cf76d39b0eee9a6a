#pragma once

#include <cstddef>
#include <functional>
#include <memory>

namespace tallow {

// An elastic pool of threads for work that may block: grows while work waits and no thread is idle,
// up to a bound; idle threads leave after a few seconds. The "global concurrent queue" of the
// system. Any thread may submit; blocks must not throw.
class WorkerPool {
 public:
  static constexpr const char* kClassName = "WorkerPool";  // in log lines

  explicit WorkerPool(std::size_t maxThreads, double idleSeconds = 3);
  ~WorkerPool();  // waits for the work that has been submitted

  void async(std::function<void()> block);
  // Returns once everything submitted so far, and what that work submitted, has run (tests).
  void waitUntilIdle();

  struct Counts {
    std::size_t threads = 0, idle = 0, waiting = 0;
  };
  Counts counts() const;

  static WorkerPool& shared();

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace tallow
