#include "platform/Concurrency/WorkerPool.h"

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Base/Activity.h"
#include "platform/Base/Sanitizers.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/MemoryPressure.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// Reserved, not used: only touched pages cost memory. Enough for values nested as deep as the
// property-list decoder lets through, and below the size of a huge page.
constexpr std::size_t kThreadStackBytes = kIsSanitized ? 8u << 20 : 1u << 20;

// A blocked block holds its thread. There are twice as many as callers can be served at once
// (CallerTable), for what they wait for needs threads, too.
constexpr std::size_t kSharedPoolThreads = 1024;

constexpr auto kRetryThreadCreation = std::chrono::milliseconds(10);

// Threads of the pool take no signals but those a thread causes itself.
sigset_t workerSignalMask() {
  sigset_t mask;
  sigfillset(&mask);
  for (const int own : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS}) {
    sigdelset(&mask, own);
  }
  return mask;
}

}  // namespace

struct WorkerPool::State : std::enable_shared_from_this<WorkerPool::State> {
  using Block = std::function<void()>;

  // Where a thread sleeps while it is idle. The one that went idle last is woken first, so that the
  // others can leave.
  struct Bed {
    std::condition_variable wake;
    Block block;  // given by whoever wakes it
  };

  State(std::size_t bound, double idleSeconds) : maxThreads(bound), idleTime(idleSeconds) {}

  void submit(Block block);
  void waitUntilIdle();
  void finish();
  int startThread();
  static void* threadMain(void* argument);
  void work();
  bool nextBlock(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Bed>& own, Block& block);
  bool waitForBlock(std::unique_lock<std::mutex>& lock, const std::shared_ptr<Bed>& own,
                    Block& block);

  const std::size_t maxThreads;
  const std::chrono::duration<double> idleTime;
  mutable std::mutex mutex;  // guards everything below
  std::deque<Block> waiting;
  std::vector<std::shared_ptr<Bed>> idle;
  std::size_t threads = 0;
  std::size_t running = 0;  // blocks that run, or have been given to a thread
  bool isFinishing = false;
  std::condition_variable becameIdle;
  std::condition_variable threadLeft;
  // The thread that left last; the next one to leave joins it.
  std::optional<pthread_t> leaver;
};

namespace {
// The pool this thread belongs to.
thread_local const void* currentPool = nullptr;
}  // namespace

void WorkerPool::State::submit(Block block) {
  std::unique_lock lock(mutex);
  if (!idle.empty()) {
    const std::shared_ptr<Bed> bed = std::move(idle.back());
    idle.pop_back();
    ++running;
    bed->block = std::move(block);
    lock.unlock();  // which the thread needs as soon as it is awake
    bed->wake.notify_one();
    return;
  }
  waiting.push_back(std::move(block));
  if (threads >= maxThreads) return;
  int error = startThread();
  if (error == 0) return;
  const bool nobodyLeft = threads == 0;
  lock.unlock();
  logLevel(1, "%@: could not start a thread: %@", WorkerPool::kClassName,
           std::generic_category().message(error));
  if (!nobodyLeft) return;  // a thread that is there will come to the block
  // Work that has been accepted is not dropped: wait until the system has a thread to give.
  for (lock.lock(); threads == 0 && !waiting.empty(); lock.lock()) {
    if (startThread() == 0) return;
    lock.unlock();
    std::this_thread::sleep_for(kRetryThreadCreation);
  }
}

// With the mutex held. Returns 0 or an errno value.
int WorkerPool::State::startThread() {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kThreadStackBytes);
  const sigset_t mask = workerSignalMask();
  pthread_attr_setsigmask_np(&attributes, &mask);
  auto argument = std::make_unique<std::shared_ptr<State>>(shared_from_this());
  pthread_t thread;
  const int error = pthread_create(&thread, &attributes, threadMain, argument.get());
  pthread_attr_destroy(&attributes);
  if (error != 0) return error;
  static_cast<void>(argument.release());  // the thread's now
  ++threads;
  return 0;
}

void* WorkerPool::State::threadMain(void* argument) {
  const std::unique_ptr<std::shared_ptr<State>> state(
      static_cast<std::shared_ptr<State>*>(argument));
  pthread_setname_np(pthread_self(), "tallow-worker");
  currentPool = state->get();
  (*state)->work();
  return nullptr;
}

void WorkerPool::State::work() {
  const auto bed = std::make_shared<Bed>();
  std::unique_lock lock(mutex);
  Block block;
  while (nextBlock(lock, bed, block)) {
    lock.unlock();
    [&]() noexcept {
      block();
      block = nullptr;
    }();
    lock.lock();
    --running;
    if (running == 0 && waiting.empty()) becameIdle.notify_all();
  }
  const bool isLast = --threads == 0;
  const std::optional<pthread_t> previous = std::exchange(leaver, pthread_self());
  threadLeft.notify_all();
  lock.unlock();
  if (previous) pthread_join(*previous, nullptr);
  // The work is over for now: what it needed goes back to the system, not only its stacks.
  if (isLast) giveBackMemory();
}

// The next block to run, already counted as running; false when the thread is to leave.
bool WorkerPool::State::nextBlock(std::unique_lock<std::mutex>& lock,
                                  const std::shared_ptr<Bed>& own, Block& block) {
  if (waiting.empty()) return waitForBlock(lock, own, block);
  block = std::move(waiting.front());
  waiting.pop_front();
  ++running;
  return true;
}

bool WorkerPool::State::waitForBlock(std::unique_lock<std::mutex>& lock,
                                     const std::shared_ptr<Bed>& own, Block& block) {
  if (isFinishing) return false;
  idle.push_back(own);
  own->wake.wait_for(lock, idleTime, [&] { return own->block != nullptr || isFinishing; });
  if (own->block != nullptr) {
    block = std::exchange(own->block, nullptr);
    return true;
  }
  std::erase(idle, own);
  return false;
}

void WorkerPool::State::waitUntilIdle() {
  if (currentPool == this) {
    std::fputs("WorkerPool: waitUntilIdle on a thread of the pool\n", stderr);
    std::abort();
  }
  std::unique_lock lock(mutex);
  becameIdle.wait(lock, [&] { return running == 0 && waiting.empty(); });
}

void WorkerPool::State::finish() {
  waitUntilIdle();
  std::unique_lock lock(mutex);
  isFinishing = true;
  for (const auto& bed : idle) bed->wake.notify_one();
  threadLeft.wait(lock, [&] { return threads == 0; });
  const std::optional<pthread_t> last = std::exchange(leaver, std::nullopt);
  lock.unlock();
  if (last) pthread_join(*last, nullptr);
}

WorkerPool::WorkerPool(std::size_t maxThreads, double idleSeconds)
    : _state(std::make_shared<State>(maxThreads, idleSeconds)) {}

WorkerPool::~WorkerPool() {
  _state->finish();
}

void WorkerPool::async(std::function<void()> block) {
  _state->submit(Activity::carriedTo(std::move(block)));
}

void WorkerPool::waitUntilIdle() {
  _state->waitUntilIdle();
}

WorkerPool::Counts WorkerPool::counts() const {
  const std::lock_guard lock(_state->mutex);
  return {_state->threads, _state->idle.size(), _state->waiting.size()};
}

WorkerPool& WorkerPool::shared() {
  return SharedInstance<WorkerPool>::get(
      [] { return std::make_unique<WorkerPool>(kSharedPoolThreads); });
}

}  // namespace tallow
