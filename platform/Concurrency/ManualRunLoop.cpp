#include "platform/Concurrency/ManualRunLoop.h"

#include <poll.h>

#include <algorithm>
#include <condition_variable>
#include <limits>
#include <utility>

#include "platform/Concurrency/OneShotTimer.h"

namespace tallow {

struct ManualRunLoop::State {
  mutable std::mutex mutex;  // guards everything below
  std::condition_variable wasPosted;
  std::deque<std::function<void()>> posted;
  std::multimap<double, std::shared_ptr<OneShotTimer>> timers;  // by deadline
  std::map<int, std::function<void()>> signals;
  struct Watched {
    std::uint32_t events;
    std::function<void()> block;
  };
  std::map<int, Watched> descriptors;
  bool isStopping = false;
  int exitStatus = 0;
};

ManualRunLoop::ManualRunLoop(ManualClock& clock)
    : _clock(clock), _state(std::make_unique<State>()) {}

// What a timer's block holds often holds the timer, too: nobody else would let go of either.
ManualRunLoop::~ManualRunLoop() {
  for (const auto& [due, timer] : std::exchange(_state->timers, {})) timer->invalidate();
}

void ManualRunLoop::advance(double seconds) {
  const double end = _clock.monotonicSeconds() + seconds;
  runPosted();
  while (const std::shared_ptr<OneShotTimer> timer = takeTimerDueBy(end)) {
    timer->fire();
    runPosted();
  }
  _clock.advance(std::max(0.0, end - _clock.monotonicSeconds()));
}

void ManualRunLoop::raise(int signalNumber) {
  std::unique_lock lock(_state->mutex);
  const auto found = _state->signals.find(signalNumber);
  if (found == _state->signals.end()) return;
  const std::function<void()> block = found->second;
  lock.unlock();
  post(block);
}

std::size_t ManualRunLoop::pendingTimers() const {
  const std::lock_guard lock(_state->mutex);
  return static_cast<std::size_t>(
      std::count_if(_state->timers.begin(), _state->timers.end(),
                    [](const auto& entry) { return entry.second->isValid(); }));
}

int ManualRunLoop::run() {
  for (;;) {
    runPosted();
    {
      const std::lock_guard lock(_state->mutex);
      if (std::exchange(_state->isStopping, false)) return _state->exitStatus;
      if (!_state->posted.empty()) continue;
    }
    if (const auto timer = takeTimerDueBy(std::numeric_limits<double>::infinity())) {
      timer->fire();
    } else {
      waitForPost();
    }
  }
}

void ManualRunLoop::stop(int status) {
  post([this, status] {
    const std::lock_guard lock(_state->mutex);
    _state->isStopping = true;
    _state->exitStatus = status;
  });
}

void ManualRunLoop::post(std::function<void()> block) {
  const std::lock_guard lock(_state->mutex);
  _state->posted.push_back(std::move(block));
  _state->wasPosted.notify_all();
}

std::shared_ptr<RunLoop::Timer> ManualRunLoop::addTimer(double seconds,
                                                        std::function<void()> block) {
  auto timer = std::make_shared<OneShotTimer>(std::move(block));
  const std::lock_guard lock(_state->mutex);
  _state->timers.emplace(_clock.monotonicSeconds() + std::max(0.0, seconds), timer);
  _state->wasPosted.notify_all();
  return timer;
}

void ManualRunLoop::onSignal(int signalNumber, std::function<void()> block) {
  const std::lock_guard lock(_state->mutex);
  _state->signals[signalNumber] = std::move(block);
}

void ManualRunLoop::onEvents(int descriptor, std::uint32_t events, std::function<void()> block) {
  const std::lock_guard lock(_state->mutex);
  _state->descriptors[descriptor] = {events, std::move(block)};
}

// What has happened by now. The events that poll(2) knows are those of epoll(7).
void ManualRunLoop::runEvents() {
  std::unique_lock lock(_state->mutex);
  const auto descriptors = _state->descriptors;
  lock.unlock();
  for (const auto& [descriptor, watched] : descriptors) {
    pollfd state = {descriptor, static_cast<short>(watched.events), 0};
    if (poll(&state, 1, 0) < 1) continue;
    if ((state.revents & state.events) != 0) {
      watched.block();
    } else {
      lock.lock();
      _state->descriptors.erase(descriptor);
      lock.unlock();
    }
  }
}

void ManualRunLoop::runPosted() {
  runEvents();
  std::unique_lock lock(_state->mutex);
  while (!_state->posted.empty() && !_state->isStopping) {
    const std::function<void()> block = std::move(_state->posted.front());
    _state->posted.pop_front();
    lock.unlock();
    block();
    lock.lock();
  }
}

std::shared_ptr<OneShotTimer> ManualRunLoop::takeTimerDueBy(double deadline) {
  const std::lock_guard lock(_state->mutex);
  auto& timers = _state->timers;
  std::erase_if(timers, [](const auto& entry) { return !entry.second->isValid(); });
  if (timers.empty() || timers.begin()->first > deadline) return nullptr;
  const auto [due, timer] = std::move(*timers.begin());
  timers.erase(timers.begin());
  _clock.advance(std::max(0.0, due - _clock.monotonicSeconds()));
  return timer;
}

void ManualRunLoop::waitForPost() {
  std::unique_lock lock(_state->mutex);
  _state->wasPosted.wait(lock, [&] { return !_state->posted.empty() || !_state->timers.empty(); });
}

}  // namespace tallow
