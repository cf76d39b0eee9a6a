#include "platform/Base/Clock.h"

#include <ctime>

#include "platform/Base/SharedInstance.h"

namespace tallow {

namespace {

double secondsOf(clockid_t clock) {
  timespec time{};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class SystemClock final : public Clock {
 public:
  Date now() override { return Date{secondsOf(CLOCK_REALTIME)}; }
  double monotonicSeconds() override { return secondsOf(CLOCK_BOOTTIME); }
};

}  // namespace

Clock& Clock::shared() {
  return SharedInstance<Clock>::get([] { return std::make_unique<SystemClock>(); });
}

}  // namespace tallow
