#include "src/AccountService/IdleExit.h"

#include <cmath>
#include <cstdlib>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/HSDialogCenter.h"
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

  void giveUpName(std::function<bool(const XPCListener::Load&)> decide, const char* reason) {
    listener.giveUpNameIf(std::move(decide), [self = shared_from_this(), reason](bool gaveUp) {
      RunLoop::main().post([self, gaveUp, reason] {
        if (gaveUp) logLevel(2, "%@: Leaving, as %s", kClassName, reason);
        self->lookAgain(gaveUp ? kLeavingSeconds : self->seconds,
                        gaveUp ? &State::stopIfAnswered : &State::leaveIfIdle);
      });
    });
  }

  void lookAgain(double after, void (State::*next)()) {
    if (hasEnded) return;
    timer = RunLoop::main().addTimer(after, [self = shared_from_this(), next] {
      if (!self->hasEnded) (*self.*next)();
    });
  }

  // The bus reader decides, so that no call comes in between the decision and giving up the name.
  void leaveIfIdle() {
    giveUpName(
        [self = shared_from_this()](const XPCListener::Load& load) {
          const bool wasCalled = std::exchange(self->callsBefore, load.calls) != load.calls;
          return !wasCalled && load.callers == 0 && nothingRuns();
        },
        "nobody needs the service");
  }

  void leaveNow() {
    if (latest) return;
    latest = Clock::shared().monotonicSeconds() + kPatienceSeconds;
    HSDialogCenter::shared()
        .close();  // whose calls are then answered, not left to wait for a person
    giveUpName([](const XPCListener::Load&) { return true; }, "the service is told to stop");
  }

  // What came in at the last moment may have opened a transaction: then that is waited for, too.
  void stopIfAnswered() {
    listener.tellLoad([self = shared_from_this()](const XPCListener::Load& load) {
      const bool isAnswered = load.waitingCalls == 0 && nothingRuns();
      RunLoop::main().post([self, isAnswered] {
        const bool isLate = self->latest && Clock::shared().monotonicSeconds() > *self->latest;
        if (isLate) logLevel(1, "%@: Leaving although calls wait", kClassName);
        if (!isAnswered && !isLate)
          self->lookAgain(kLeavingSeconds, &State::stopIfAnswered);
        else if (!self->hasEnded)
          RunLoop::main().stop(kLeft);
      });
    });
  }

  XPCListener& listener;
  const double seconds;
  bool hasEnded = false;
  std::optional<double> latest;  // monotonic seconds, once it is told to leave
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

IdleExit::IdleExit(XPCListener& listener, std::optional<double> seconds)
    : _state(std::make_shared<State>(listener, seconds.value_or(0))) {
  if (seconds) _state->lookAgain(*seconds, &State::leaveIfIdle);
}

void IdleExit::leaveNow() {
  _state->leaveNow();
}

IdleExit::~IdleExit() {
  _state->hasEnded = true;
  if (_state->timer) _state->timer->invalidate();
}

}  // namespace tallow
