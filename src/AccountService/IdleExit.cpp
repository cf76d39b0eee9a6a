#include "src/AccountService/IdleExit.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "platform/Base/Clock.h"
#include "platform/Concurrency/RunLoop.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"
#include "platform/VendBase/HSDialogCenter.h"
#include "platform/VendBase/HSOperationQueue.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/XPCTransaction.h"
#include "src/AccountService/AccountStore.h"
#include "src/CookieStorage.h"

namespace tallow {

namespace {

// How often it is looked whether the last call has been answered, once the name has been given up.
constexpr double kLeavingSeconds = 0.05;

// Once more where the disk has refused it.
bool everythingIsWritten() {
  return AccountStore::writeWhatWasRefused() && CookieStorage::writeWhatWasRefused() &&
         Preferences::shared().synchronize(kDaemonDefaultsID, Preferences::User::Current,
                                           Preferences::Host::Any);
}

bool nothingRuns() {
  const WorkerPool::Counts pool = WorkerPool::shared().counts();
  return HSOperationQueue::mainQueue().operationCount() == 0 && pool.waiting == 0 &&
         pool.idle == pool.threads;
}

bool nobodyNeedsIt(const XPCListener::Load& load) {
  return load.callers == 0 && load.waitingCalls == 0 && XPCTransaction::count() == 0;
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

  // What a full disk has refused is only in memory: as long as it is, there is no leaving.
  void leaveIfIdle() {
    WorkerPool::shared().async([self = shared_from_this()] {
      const bool isWritten = everythingIsWritten();
      RunLoop::main().post([self, isWritten] {
        if (isWritten)
          self->giveUpNameIfIdle();
        else
          self->lookAgain(self->seconds, &State::leaveIfIdle);
      });
    });
  }

  // The bus reader decides, so that no call comes in between the decision and giving up the name.
  void giveUpNameIfIdle() {
    if (hasEnded || latest) return;
    auto isFirst = std::make_shared<bool>(true);
    listener.giveUpNameIf(
        [self = shared_from_this(), isFirst](const XPCListener::Load& load) {
          // The time begins anew with each call, and when the last caller has left.
          const bool wasQuiet = self->before.calls == load.calls && self->before.callers == 0;
          if (std::exchange(*isFirst, false)) self->before = load;
          return wasQuiet && nobodyNeedsIt(load) && nothingRuns();
        },
        [self = shared_from_this()](bool gaveUp) { self->nameIsGone(gaveUp); });
  }

  void nameIsGone(bool isGone) {
    RunLoop::main().post([self = shared_from_this(), isGone] {
      self->lookAgain(isGone ? kLeavingSeconds : self->seconds,
                      isGone ? &State::stopIfAnswered : &State::leaveIfIdle);
    });
  }

  void leaveNow() {
    if (latest) return;
    logLevel(2, "%@: Leaving, as the service is told to stop", kClassName);
    latest = Clock::shared().monotonicSeconds() + kPatienceSeconds;
    HSDialogCenter::shared()
        .close();  // whose calls are then answered, not left to wait for a person
    if (timer) timer->invalidate();
    WorkerPool::shared().async([self = shared_from_this()] {
      if (!everythingIsWritten())
        logLevel(1, "%@: Leaving although the disk refuses changes", kClassName);
      RunLoop::main().post([self] {
        self->listener.giveUpNameIf([](const XPCListener::Load&) { return true; },
                                    [self](bool) { self->nameIsGone(true); });
      });
    });
  }

  // Somebody who had asked for the service's address before the name was gone may call only now:
  // then the name is taken back, and life goes on. Where another process has it by then, callers go
  // there; this one answers what it has begun, and keeps a token for whoever is connected.
  void stopIfAnswered() {
    listener.tellLoad([self = shared_from_this()](const XPCListener::Load& load) {
      RunLoop::main().post([self, load] { self->judge(load); });
    });
  }
  void judge(const XPCListener::Load& load) {
    if (hasEnded) return;
    const bool isAnswered = load.waitingCalls == 0 && nothingRuns();
    const bool isUnreachable = load.callers == 0 || XPCTransaction::count() == 0;
    // What is told to leave gives up what it keeps. What has been begun is finished always.
    const bool mayLeave = XPCTransaction::workCount() == 0 && (latest || isUnreachable);
    if (!latest && !isSuperseded && !nobodyNeedsIt(load)) {
      listener.takeNameBack([self = shared_from_this()](bool hasName) {
        self->isSuperseded = !hasName;
        self->nameIsGone(!hasName);
      });
    } else if (isAnswered && !latest && !isSuperseded && listener.hasServiceManager()) {
      lookOnceMore();
    } else if (isAnswered && mayLeave) {
      stop("nobody needs the service");
    } else if (latest && Clock::shared().monotonicSeconds() > *latest) {
      logLevel(1, "%@: Leaving although calls wait, or peers have not answered", kClassName);
      stop("nothing more is waited for");
    } else {
      lookAgain(kLeavingSeconds, &State::stopIfAnswered);
    }
  }

  // Who wanted the service while it had no name is waiting for it: a service manager, which sees it
  // run, starts no other. With the name back they are heard, and make it stay.
  void lookOnceMore() {
    listener.takeNameBack([self = shared_from_this()](bool hasName) {
      self->isSuperseded = !hasName;
      if (!hasName) {
        self->nameIsGone(true);
        return;
      }
      const std::uint64_t calls = self->before.calls;
      self->listener.giveUpNameIf(
          [calls](const XPCListener::Load& load) {
            return load.calls == calls && nobodyNeedsIt(load) && nothingRuns();
          },
          [self](bool isGone) {
            if (!isGone) {
              self->nameIsGone(false);
              return;
            }
            RunLoop::main().post([self] {
              if (!self->hasEnded) self->stop("nobody needs the service");
            });
          });
    });
  }

  void stop(const char* reason) {
    logLevel(2, "%@: Leaving, as %s", kClassName, reason);
    RunLoop::main().stop(kLeft);
  }

  XPCListener& listener;
  const double seconds;
  bool hasEnded = false;
  std::atomic<bool> isSuperseded{false};  // another process has the name
  std::optional<double> latest;           // monotonic seconds, once it is told to leave
  std::shared_ptr<RunLoop::Timer> timer;
  XPCListener::Load before;  // at the look before; the listener's thread only
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
