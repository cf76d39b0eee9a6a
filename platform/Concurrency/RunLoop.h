#pragma once

#include <cstdint>
#include <functional>
#include <memory>

namespace tallow {

// The main thread's run loop: timers, signals and blocks posted from other threads, nothing else.
class RunLoop {
 public:
  // A one-shot timer. invalidate() from any thread; after it returns the callback will not start.
  class Timer {
   public:
    virtual ~Timer() = default;
    virtual void invalidate() = 0;
    virtual bool isValid() const = 0;
  };

  virtual ~RunLoop() = default;

  // The process's main loop. Made on first use; run() may only be called on the main thread.
  static RunLoop& main();

  // Runs until stop(); returns what stop was given. In the service it never returns in normal
  // operation.
  virtual int run() = 0;
  virtual void stop(int status) = 0;  // any thread

  virtual void post(std::function<void()> block) = 0;  // any thread
  // Calls `block` once, on the loop's thread, `seconds` from now. Timers fire in the order of their
  // time, also when they are late together. Any thread.
  virtual std::shared_ptr<Timer> addTimer(double seconds, std::function<void()> block) = 0;
  // Calls `block` on the loop's thread whenever the signal arrives. Before other threads start.
  virtual void onSignal(int signalNumber, std::function<void()> block) = 0;
  // Calls `block` on the loop's thread as long as the descriptor has one of `events` (epoll(7)),
  // for as long as the loop lives; one that has an error or has been closed is not watched any
  // longer. The descriptor stays the caller's. Before the loop runs.
  virtual void onEvents(int descriptor, std::uint32_t events, std::function<void()> block) = 0;
};

}  // namespace tallow
