#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>

#include "platform/Base/Clock.h"
#include "platform/Concurrency/RunLoop.h"

namespace tallow {

class OneShotTimer;

// A run loop for tests: its time is a ManualClock's, and passes only when the test says so. Blocks
// run on the thread that calls advance() or run(); posting, adding and invalidating are for any
// thread.
//
//   ManualClock clock(Date{0});
//   ManualRunLoop loop(clock);
//   const ScopedShared<RunLoop> scope(loop);
//   ...
//   loop.advance(900);  // fires, in order, what is due within these 15 minutes
class ManualRunLoop final : public RunLoop {
 public:
  explicit ManualRunLoop(ManualClock& clock);
  ~ManualRunLoop() override;

  // Moves the clock on, stopping at each due timer to fire it, and runs posted blocks in between.
  void advance(double seconds);
  // As if the signal had arrived.
  void raise(int signalNumber);
  std::size_t pendingTimers() const;

  // Runs until stop(); jumps to the next timer whenever nothing else is left to do.
  int run() override;
  void stop(int status) override;
  void post(std::function<void()> block) override;
  std::shared_ptr<Timer> addTimer(double seconds, std::function<void()> block) override;
  void onSignal(int signalNumber, std::function<void()> block) override;
  void onEvents(int descriptor, std::uint32_t events, std::function<void()> block) override;

 private:
  void runPosted();
  void runEvents();
  // The earliest timer that is valid and due by `deadline`, taken out; null when there is none.
  std::shared_ptr<OneShotTimer> takeTimerDueBy(double deadline);
  void waitForPost();

  struct State;
  ManualClock& _clock;
  const std::unique_ptr<State> _state;
};

}  // namespace tallow
