#include "platform/VendBase/HSOperationQueue.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"

namespace tallow {

namespace {

// An operation mostly waits for a server, so this is a bound on open exchanges, not on processors.
constexpr std::size_t kMainQueueConcurrency = 8;

}  // namespace

struct HSOperationQueue::State {
  explicit State(std::size_t maxConcurrent) : maxRunning(maxConcurrent) {}

  // One worker's shift: runs what waits until nothing does.
  void drain() {
    for (;;) {
      std::shared_ptr<HSOperation> operation;
      {
        const std::lock_guard guard(lock);
        if (waiting.empty()) {
          --running;
          idle.notify_all();
          return;
        }
        operation = std::move(waiting.front());
        waiting.pop_front();
      }
      operation->runSyncReturningError(nullptr);
    }
  }

  const std::size_t maxRunning;
  mutable std::mutex lock;
  std::condition_variable idle;
  std::deque<std::shared_ptr<HSOperation>> waiting;
  std::size_t running = 0;  // workers; each runs one operation
};

HSOperationQueue& HSOperationQueue::mainQueue() {
  return SharedInstance<HSOperationQueue>::get(
      [] { return std::make_unique<HSOperationQueue>(kMainQueueConcurrency); });
}

HSOperationQueue::HSOperationQueue(std::size_t maxConcurrent)
    : _state(std::make_shared<State>(maxConcurrent)) {}

HSOperationQueue::~HSOperationQueue() = default;

void HSOperationQueue::addOperation(std::shared_ptr<HSOperation> operation) {
  {
    const std::lock_guard guard(_state->lock);
    _state->waiting.push_back(std::move(operation));
    if (_state->running == _state->maxRunning) return;
    ++_state->running;
  }
  WorkerPool::shared().async([state = _state] { state->drain(); });
}

std::size_t HSOperationQueue::operationCount() const {
  const std::lock_guard guard(_state->lock);
  return _state->waiting.size() + _state->running;
}

void HSOperationQueue::waitUntilAllOperationsAreFinished() {
  std::unique_lock lock(_state->lock);
  _state->idle.wait(lock, [&] { return _state->waiting.empty() && _state->running == 0; });
}

}  // namespace tallow
