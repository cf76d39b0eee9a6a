#include "src/AccountService/IdleExit.h"

#include <cmath>
#include <cstdlib>
#include <utility>

#include "platform/Concurrency/RunLoop.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/XPCTransaction.h"

namespace tallow {

namespace {

// How often it is looked whether the last call has been answered, once the name has been given up.
constexpr double kLeavingSeconds = 0.05;

bool nothingRuns() {
  const WorkerPool::Counts pool = WorkerPool::shared().counts();
  return XPCTransaction::count() == 0 && HSOperationQueue::mainQueue().operationCount() == 0 &&
         pool.waiting == 0 && pool.idle == pool.threads;
}

}  // namespace

// Shared with the blocks that the listener still holds when this ends.
struct IdleExit::State : std::enable_shared_from_this<State> {
  State(XPCListener& listenerToWatch, double secondsToWait)
      : listener(listenerToWatch), seconds(secondsToWait) {}

  void lookAgain(double after, void (State::*next)()) {
    if (hasEnded) return;
    timer = RunLoop::main().addTimer(after, [self = shared_from_this(), next] {
      if (!self->hasEnded) (*self.*next)();
    });
  }

  // The bus reader decides, so that no call comes in between the decision and giving up the name.
  void leaveIfIdle() {
    listener.giveUpNameIf(
        [self = shared_from_this()](const XPCListener::Load& load) {
          const bool wasCalled = std::exchange(self->callsBefore, load.calls) != load.calls;
          return !wasCalled && load.callers == 0 && nothingRuns();
        },
        [self = shared_from_this()](bool gaveUp) {
          RunLoop::main().post([self, gaveUp] {
            if (gaveUp) logLevel(2, "%@: Leaving, as nobody needs the service", kClassName);
            self->lookAgain(gaveUp ? kLeavingSeconds : self->seconds,
                            gaveUp ? &State::stopIfAnswered : &State::leaveIfIdle);
          });
        });
  }

  // What came in at the last moment may have opened a transaction: then that is waited for, too.
  void stopIfAnswered() {
    listener.tellLoad([self = shared_from_this()](const XPCListener::Load& load) {
      const bool isAnswered = load.waitingCalls == 0 && nothingRuns();
      RunLoop::main().post([self, isAnswered] {
        if (!isAnswered)
          self->lookAgain(kLeavingSeconds, &State::stopIfAnswered);
        else if (!self->hasEnded)
          RunLoop::main().stop(kLeft);
      });
    });
  }

  XPCListener& listener;
  const double seconds;
  bool hasEnded = false;
  std::shared_ptr<RunLoop::Timer> timer;
  std::uint64_t callsBefore = 0;  // the listener's thread only
};

std::optional<double> IdleExit::secondsFromEnvironment() {
  const char* text = std::getenv(kVariable);
  if (text == nullptr || *text == '\0') return std::nullopt;
  char* end = nullptr;
  const double seconds = std::strtod(text, &end);
  if (*end != '\0' || !std::isfinite(seconds) || seconds < 0) {
    logLevel(1, "%@: %s is no number of seconds: %@", kClassName, kVariable, text);
    return std::nullopt;
  }
  return seconds > 0 ? std::optional(seconds) : std::nullopt;
}

IdleExit::IdleExit(XPCListener& listener, double seconds)
    : _state(std::make_shared<State>(listener, seconds)) {
  _state->lookAgain(seconds, &State::leaveIfIdle);
}

IdleExit::~IdleExit() {
  _state->hasEnded = true;
  if (_state->timer) _state->timer->invalidate();
}

}  // namespace tallow
