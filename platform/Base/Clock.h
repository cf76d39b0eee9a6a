#pragma once

#include <atomic>

#include "platform/Base/Date.h"

namespace tallow {

// The one source of time. Everything that asks "what time is it" asks Clock::shared(), so that a
// test can set it. Callable from any thread.
class Clock {
 public:
  virtual ~Clock() = default;

  // Wall-clock time; may jump when the machine's clock is set.
  virtual Date now() = 0;
  // Seconds on a clock that never goes back and counts through suspend; its zero is arbitrary.
  virtual double monotonicSeconds() = 0;

  static Clock& shared();
};

// A clock that stands still until told to move.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Date start) : _now(start.secondsSince1970) {}

  Date now() override { return Date{_now.load()}; }
  double monotonicSeconds() override { return _monotonic.load(); }

  // Moves both clocks.
  void advance(double seconds) {
    _now = _now.load() + seconds;
    _monotonic = _monotonic.load() + seconds;
  }
  // Sets the wall clock only, as an administrator would.
  void set(Date now) { _now = now.secondsSince1970; }

 private:
  std::atomic<double> _now;
  std::atomic<double> _monotonic{0};
};

}  // namespace tallow
