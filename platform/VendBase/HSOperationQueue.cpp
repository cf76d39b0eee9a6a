#include "platform/VendBase/HSOperationQueue.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/Base/Activity.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/RecentFailures.h"

namespace tallow {

namespace {

// An operation mostly waits for a server, so this is a bound on open exchanges, not on processors.
constexpr std::size_t kMainQueueConcurrency = 8;
// However slow one client's store is, others have places.
constexpr std::size_t kOfOneClient = 4;

}  // namespace

struct HSOperationQueue::State : std::enable_shared_from_this<HSOperationQueue::State> {
  State(std::size_t maxConcurrent, std::size_t maxOfOneClient)
      : maxRunning(maxConcurrent), maxRunningOfOne(maxOfOneClient) {}

  // One worker's shift, on its thread: for which queue, and for which client just now.
  struct Shift {
    explicit Shift(State* of) : state(of), previous(std::exchange(current, this)) {}
    ~Shift() { current = previous; }
    Shift(const Shift&) = delete;
    Shift& operator=(const Shift&) = delete;

    State* const state;
    std::optional<std::string> client;
    Shift* const previous;
    static inline thread_local Shift* current = nullptr;
  };
  struct Added {
    std::shared_ptr<HSOperation> operation;
    std::shared_ptr<const Activity> activity;  // of who has added it
  };
  using Waiting = std::deque<Added>;

  // Runs what waits until nothing may run any more, or another has taken this worker's place.
  void drain() {
    Shift shift(this);
    while (const std::optional<Added> added = next(shift)) {
      const Activity::Scope scope(added->activity);
      std::optional<Error> error;
      if (!added->operation->runSyncReturningError(&error) && error)
        RecentFailures::shared().note(*error, clientOf(*added->operation));
    }
  }

  std::optional<Added> next(Shift& shift) {
    const std::lock_guard guard(lock);
    if (shift.client) leave(*shift.client);
    const auto found = running - givenWay > maxRunning ? waiting.end() : firstThatMayRun();
    if (found == waiting.end()) {
      --running;
      idle.notify_all();
      return std::nullopt;
    }
    Added added = std::move(*found);
    waiting.erase(found);
    shift.client = clientOf(*added.operation);
    Share& share = shares[*shift.client];
    --share.waiting;
    ++share.running;
    return added;
  }

  // What follows, with the lock held.

  // The first whose client has not all the places that one client may have.
  Waiting::iterator firstThatMayRun() {
    return std::find_if(waiting.begin(), waiting.end(), [&](const Added& added) {
      return shares[clientOf(*added.operation)].running < maxRunningOfOne;
    });
  }
  static std::string clientOf(const HSOperation& operation) {
    return operation.storeClient() ? operation.storeClient()->identifier.value_or("") : "";
  }
  void leave(const std::string& client) {
    const auto found = shares.find(client);
    if (--found->second.running == 0 && found->second.waiting == 0) shares.erase(found);
  }
  // False when too many of its client wait already.
  bool enter(std::shared_ptr<HSOperation>& operation) {
    Share& share = shares[clientOf(*operation)];
    if (share.waiting >= kMaxWaitingOfOneClient) return false;
    ++share.waiting;
    waiting.push_back({std::move(operation), Activity::current()});
    return true;
  }
  // Takes one more worker where one may run. Who asked starts it.
  bool takeWorker() {
    if (running - givenWay >= maxRunning || firstThatMayRun() == waiting.end()) return false;
    ++running;
    return true;
  }

  void startWorker() {
    const Activity::Scope nobody(nullptr);  // each operation brings its own
    WorkerPool::shared().async([self = shared_from_this()] { self->drain(); });
  }

  const std::size_t maxRunning;
  const std::size_t maxRunningOfOne;
  mutable std::mutex lock;
  std::condition_variable idle;
  Waiting waiting;
  std::size_t running = 0;   // workers; each runs one operation
  std::size_t givenWay = 0;  // of these, whose place others may take
  // What one client has in the queue.
  struct Share {
    std::size_t running = 0;  // without those that have given way
    std::size_t waiting = 0;
  };
  std::map<std::string, Share> shares;
};

HSOperationQueue::GivingWay::GivingWay() {
  const State::Shift* const shift = State::Shift::current;
  if (shift == nullptr) return;
  _state = shift->state->shared_from_this();
  bool isTaken = false;
  {
    const std::lock_guard guard(_state->lock);
    ++_state->givenWay;
    _state->leave(*shift->client);
    isTaken = _state->takeWorker();
  }
  if (isTaken) _state->startWorker();
}

HSOperationQueue::GivingWay::~GivingWay() {
  if (!_state) return;
  const std::lock_guard guard(_state->lock);
  --_state->givenWay;
  ++_state->shares[*State::Shift::current->client].running;
}

HSOperationQueue& HSOperationQueue::mainQueue() {
  return SharedInstance<HSOperationQueue>::get(
      [] { return std::make_unique<HSOperationQueue>(kMainQueueConcurrency, kOfOneClient); });
}

HSOperationQueue::HSOperationQueue(std::size_t maxConcurrent)
    : HSOperationQueue(maxConcurrent, maxConcurrent) {}

HSOperationQueue::HSOperationQueue(std::size_t maxConcurrent, std::size_t maxOfOneClient)
    : _state(std::make_shared<State>(maxConcurrent, maxOfOneClient)) {}

HSOperationQueue::~HSOperationQueue() = default;

void HSOperationQueue::addOperation(std::shared_ptr<HSOperation> operation) {
  bool isEntered = false;
  {
    const std::lock_guard guard(_state->lock);
    isEntered = _state->enter(operation);
    if (isEntered && !_state->takeWorker()) return;
  }
  if (isEntered) return _state->startWorker();
  // Not on this thread: the operation's handler may do anything.
  WorkerPool::shared().async([refused = std::move(operation)] {
    refused->failWithoutRunning(HSError(kHSErrorServiceUnavailable, std::nullopt,
                                        "Too many requests of this client wait already"));
  });
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
