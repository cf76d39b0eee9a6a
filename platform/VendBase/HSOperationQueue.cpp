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

struct HSOperationQueue::State : std::enable_shared_from_this<HSOperationQueue::State> {
  explicit State(std::size_t maxConcurrent) : maxRunning(maxConcurrent) {}

  // One worker's shift: runs what waits until nothing does, or another has taken its place.
  void drain() {
    const Shift shift(this);
    for (;;) {
      std::shared_ptr<HSOperation> operation;
      {
        const std::lock_guard guard(lock);
        if (waiting.empty() || running - givenWay > maxRunning) {
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

  // With the lock held: takes one more worker where one may run. Who asked starts it.
  bool takeWorker() {
    if (waiting.empty() || running - givenWay >= maxRunning) return false;
    ++running;
    return true;
  }
  void startWorker() {
    WorkerPool::shared().async([self = shared_from_this()] { self->drain(); });
  }

  const std::size_t maxRunning;
  mutable std::mutex lock;
  std::condition_variable idle;
  std::deque<std::shared_ptr<HSOperation>> waiting;
  std::size_t running = 0;   // workers; each runs one operation
  std::size_t givenWay = 0;  // of these, whose place others may take

  // The queue that this thread works for.
  static inline thread_local State* current = nullptr;
  struct Shift {
    explicit Shift(State* state) : previous(std::exchange(current, state)) {}
    ~Shift() { current = previous; }
    Shift(const Shift&) = delete;
    Shift& operator=(const Shift&) = delete;
    State* const previous;
  };
};

HSOperationQueue::GivingWay::GivingWay() {
  if (State::current == nullptr) return;
  _state = State::current->shared_from_this();
  bool isTaken = false;
  {
    const std::lock_guard guard(_state->lock);
    ++_state->givenWay;
    isTaken = _state->takeWorker();
  }
  if (isTaken) _state->startWorker();
}

HSOperationQueue::GivingWay::~GivingWay() {
  if (!_state) return;
  const std::lock_guard guard(_state->lock);
  --_state->givenWay;
}

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
    if (!_state->takeWorker()) return;
  }
  _state->startWorker();
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
