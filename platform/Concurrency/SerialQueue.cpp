#include "platform/Concurrency/SerialQueue.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <mutex>
#include <set>

#include "platform/Base/Activity.h"
#include "platform/Concurrency/WorkerPool.h"

namespace tallow {

namespace {

// How many blocks one visit of a pool thread runs before it queues up again behind other work.
constexpr int kBlocksPerBatch = 64;

}  // namespace

// The turn is one word: whoever moves it from 0 to kTaken has it. While others wait (kWaiting), the
// turn is never given up but handed to the first of them, so nobody overtakes.
struct SerialQueue::State : std::enable_shared_from_this<SerialQueue::State> {
  static constexpr std::uint32_t kTaken = 1;
  static constexpr std::uint32_t kWaiting = 2;

  // A thread that waits in sync(); lives on that thread's stack.
  struct Waiter {
    std::condition_variable wake;
    bool hasTurn = false;
  };
  // Either a block for the pool or a waiting thread.
  struct Entry {
    std::function<void()> block;
    Waiter* waiter = nullptr;
  };

  // All queues, for status reports.
  struct Registry {
    std::mutex mutex;
    std::set<const State*> queues;
  };
  static Registry& registry() {
    static Registry& all = *std::make_unique<Registry>().release();  // queues outlive statics
    return all;
  }

  explicit State(std::string name) : label(std::move(name)) {
    const std::lock_guard lock(registry().mutex);
    registry().queues.insert(this);
  }
  ~State() {
    const std::lock_guard lock(registry().mutex);
    registry().queues.erase(this);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  std::size_t depth() const {
    const std::lock_guard lock(mutex);
    const bool isRunning = owner.load(std::memory_order_relaxed) != pthread_t{};
    return entries.size() + (isRunning ? 1 : 0);
  }
  bool isCurrent() const { return owner.load(std::memory_order_relaxed) == pthread_self(); }

  bool tryTake() {
    std::uint32_t idle = 0;
    if (!turn.compare_exchange_strong(idle, kTaken, std::memory_order_acquire,
                                      std::memory_order_relaxed)) {
      return false;
    }
    owner.store(pthread_self(), std::memory_order_relaxed);
    return true;
  }

  void take();
  void leave();
  void submit(std::function<void()> block);
  void scheduleDrain();
  void drain();

  const std::string label;
  std::atomic<std::uint32_t> turn{0};
  // The thread that has the turn. Compared with oneself only, so relaxed order is enough.
  std::atomic<pthread_t> owner{};
  // Guards entries; taken only when the turn is contended, and by async.
  mutable std::mutex mutex;
  std::list<Entry> entries;

 private:
  // Says that somebody waits, or takes the turn if it has become free; true in that case. With the
  // mutex held.
  bool takeOrAnnounceWaiting();
  void handOver(std::unique_lock<std::mutex>& lock);
};

bool SerialQueue::State::takeOrAnnounceWaiting() {
  std::uint32_t seen = turn.load(std::memory_order_relaxed);
  for (;;) {
    const std::uint32_t wanted = seen == 0 ? kTaken : seen | kWaiting;
    if (turn.compare_exchange_weak(seen, wanted, std::memory_order_acquire,
                                   std::memory_order_relaxed)) {
      return seen == 0;
    }
  }
}

void SerialQueue::State::take() {
  if (tryTake()) return;
  if (isCurrent()) {
    std::fprintf(stderr, "SerialQueue: sync on \"%s\" from inside it\n", label.c_str());
    std::abort();
  }
  Waiter waiter;
  std::list<Entry> own;
  own.push_back(Entry{nullptr, &waiter});
  std::unique_lock lock(mutex);
  if (!takeOrAnnounceWaiting()) {
    entries.splice(entries.end(), own);
    waiter.wake.wait(lock, [&] { return waiter.hasTurn; });
  }
  owner.store(pthread_self(), std::memory_order_relaxed);
}

void SerialQueue::State::leave() {
  owner.store(pthread_t{}, std::memory_order_relaxed);
  std::uint32_t alone = kTaken;
  if (turn.compare_exchange_strong(alone, 0, std::memory_order_release,
                                   std::memory_order_relaxed)) {
    return;
  }
  std::unique_lock lock(mutex);
  handOver(lock);
}

// Gives the turn, which is this thread's, to the first entry. There is one: kWaiting is only set
// together with an entry, and cleared when the last one goes.
void SerialQueue::State::handOver(std::unique_lock<std::mutex>& lock) {
  Waiter* const waiter = entries.front().waiter;
  if (waiter == nullptr) {
    lock.unlock();
    scheduleDrain();
    return;
  }
  entries.pop_front();
  if (entries.empty()) turn.store(kTaken, std::memory_order_relaxed);
  waiter->hasTurn = true;
  waiter->wake.notify_one();  // under the lock: the waiter goes away as soon as it can run
}

void SerialQueue::State::submit(std::function<void()> block) {
  std::list<Entry> own;
  own.push_back(Entry{std::move(block), nullptr});
  bool taken;
  {
    const std::lock_guard lock(mutex);
    taken = takeOrAnnounceWaiting();
    if (taken) turn.store(kTaken | kWaiting, std::memory_order_relaxed);
    entries.splice(entries.end(), own);
  }
  if (taken) scheduleDrain();
}

void SerialQueue::State::scheduleDrain() {
  const Activity::Scope nobody(nullptr);  // each block brings its own
  WorkerPool::shared().async([self = shared_from_this()] { self->drain(); });
}

// Runs blocks on a pool thread, which enters with the turn; ends by passing the turn on.
void SerialQueue::State::drain() {
  for (int count = 0; count < kBlocksPerBatch; ++count) {
    std::list<Entry> first;
    {
      std::unique_lock lock(mutex);
      if (entries.front().waiter != nullptr) {
        handOver(lock);
        return;
      }
      first.splice(first.begin(), entries, entries.begin());
      if (entries.empty()) turn.store(kTaken, std::memory_order_relaxed);
    }
    owner.store(pthread_self(), std::memory_order_relaxed);
    first.front().block();
    first.clear();  // what the block held goes while the turn is still this queue's
    owner.store(pthread_t{}, std::memory_order_relaxed);

    std::uint32_t alone = kTaken;
    if (turn.compare_exchange_strong(alone, 0, std::memory_order_release,
                                     std::memory_order_relaxed)) {
      return;
    }
  }
  leave();
}

SerialQueue::SerialQueue(std::string label) : _state(std::make_shared<State>(std::move(label))) {}

SerialQueue::~SerialQueue() = default;

void SerialQueue::async(std::function<void()> block) {
  _state->submit(Activity::carriedTo(std::move(block)));
}

std::map<std::string, std::size_t> SerialQueue::busyQueues() {
  std::map<std::string, std::size_t> busy;
  State::Registry& all = State::registry();
  const std::lock_guard lock(all.mutex);
  for (const State* const queue : all.queues)
    if (const std::size_t depth = queue->depth(); depth > 0) busy[queue->label] += depth;
  return busy;
}

SerialQueue::Turn::Turn(const SerialQueue& queue) : _state(queue._state) {
  _state->take();
}

SerialQueue::Turn::Turn(const SerialQueue& queue, TryToLock) {
  if (queue._state->tryTake()) _state = queue._state;
}

SerialQueue::Turn::~Turn() {
  if (_state) _state->leave();
}

}  // namespace tallow
