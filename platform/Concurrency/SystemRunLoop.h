#pragma once

#include <memory>

#include "platform/Concurrency/RunLoop.h"

namespace tallow {

// The run loop over the system's event loop. Timers run on a clock that goes on through suspend and
// is never set; they may fire up to a hundredth of their time (at most a quarter of a second) late,
// so that the system can wake once for several.
//
// run() may be called again after it returned. A stop() that comes first ends the next run() at
// once, after the blocks posted before it.
class SystemRunLoop final : public RunLoop {
 public:
  static constexpr const char* kClassName = "SystemRunLoop";  // in log lines

  // Which thread may call run().
  enum class Runner { AnyThread, MainThread };

  explicit SystemRunLoop(Runner runner = Runner::AnyThread);
  ~SystemRunLoop() override;
  SystemRunLoop(const SystemRunLoop&) = delete;
  SystemRunLoop& operator=(const SystemRunLoop&) = delete;

  int run() override;
  void stop(int status) override;
  void post(std::function<void()> block) override;
  std::shared_ptr<Timer> addTimer(double seconds, std::function<void()> block) override;
  // Blocks the signal in the calling thread, and so in all threads it will start.
  void onSignal(int signalNumber, std::function<void()> block) override;
  void onEvents(int descriptor, std::uint32_t events, std::function<void()> block) override;

 private:
  struct State;
  std::shared_ptr<State> _state;
};

}  // namespace tallow
