#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

namespace tallow {

// Runs blocks one at a time, in the order they were submitted, on no thread in particular: async
// blocks on the shared WorkerPool, sync blocks on the calling thread when their turn comes.
//
// Calling sync() from inside a block of the same queue cannot ever proceed; it is a programmer
// error and aborts with the queue's label. Blocks must not throw. Any thread may submit. The queue
// object may go away while blocks wait: they still run.
class SerialQueue {
 public:
  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  // Submits and returns at once.
  void async(std::function<void()> block);

  // Waits for its turn, runs `block` on this thread, returns its result.
  template <class Block>
  auto sync(Block&& block) const -> std::invoke_result_t<Block&> {
    Turn turn(*this);
    return block();
  }

  // Runs `block` on this thread if the queue is idle right now (nothing running, nothing waiting)
  // and returns true; otherwise returns false without running it. Never waits. Also false (never an
  // abort) when this thread is already inside the queue.
  template <class Block>
  bool trySync(Block&& block) const {
    Turn turn(*this, Turn::TryToLock());
    if (!turn) return false;
    block();
    return true;
  }

  // How many blocks wait or run, of all queues of the process where any do, by label.
  static std::map<std::string, std::size_t> busyQueues();

 private:
  struct State;
  // One thread's turn at the queue.
  class Turn {
   public:
    struct TryToLock {};
    explicit Turn(const SerialQueue& queue);
    Turn(const SerialQueue& queue, TryToLock);
    ~Turn();
    explicit operator bool() const { return _state != nullptr; }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    std::shared_ptr<State> _state;
  };

  std::shared_ptr<State> _state;
};

}  // namespace tallow
