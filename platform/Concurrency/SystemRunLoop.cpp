#include "platform/Concurrency/SystemRunLoop.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <utility>

#include "platform/Base/SharedInstance.h"
#include "platform/Concurrency/OneShotTimer.h"
#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

constexpr double kMicrosecondsPerSecond = 1e6;
// Longer than any process lives; keeps the sum of time and delay far from overflow.
constexpr double kLongestDelay = 1e10;
constexpr double kLeastAccuracy = 0.001, kMostAccuracy = 0.25;

struct EventUnref {
  void operator()(sd_event* event) const { sd_event_unref(event); }
};
// Also ends the source's effect: a source that nothing refers to is removed from its loop.
struct SourceUnref {
  void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using EventPointer = std::unique_ptr<sd_event, EventUnref>;
using SourcePointer = std::unique_ptr<sd_event_source, SourceUnref>;

// For what only fails when the process is out of its most basic means, or was used wrongly.
void require(int result, const char* what) {
  if (result >= 0) return;
  std::fprintf(stderr, "%s: %s: %s\n", SystemRunLoop::kClassName, what,
               std::generic_category().message(-result).c_str());
  std::abort();
}

std::uint64_t microseconds(double seconds) {
  return static_cast<std::uint64_t>(seconds * kMicrosecondsPerSecond);
}

// The clock of the timers, in microseconds.
std::uint64_t bootTime() {
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace

struct SystemRunLoop::State : std::enable_shared_from_this<SystemRunLoop::State> {
  class SystemTimer;
  struct Handler {
    std::function<void()> block;
    SourcePointer source;
  };

  explicit State(Runner whoRuns);
  ~State() { close(wakeDescriptor); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  void post(std::function<void()> block);
  void runPosted();
  void wake() const;
  void add(const std::shared_ptr<SystemTimer>& timer);
  void remove(const SystemTimer& timer);
  void fireDueTimers();
  void setAlarm();

  const Runner runner;
  EventPointer event;
  int wakeDescriptor = -1;
  SourcePointer wakeSource;
  SourcePointer alarm;

  std::mutex mutex;  // guards posted
  std::deque<std::function<void()>> posted;

  // The loop's thread only.
  std::multimap<std::uint64_t, std::shared_ptr<SystemTimer>> timers;  // by deadline
  std::map<int, Handler> signals;
  std::map<int, Handler> descriptors;
  bool isStopping = false;
  int exitStatus = 0;
};

class SystemRunLoop::State::SystemTimer final
    : public OneShotTimer,
      public std::enable_shared_from_this<SystemRunLoop::State::SystemTimer> {
 public:
  SystemTimer(State& loop, double delay, std::function<void()> block)
      : OneShotTimer(std::move(block)),
        deadline(bootTime() + microseconds(delay)),
        accuracy(microseconds(std::clamp(delay / 100, kLeastAccuracy, kMostAccuracy))),
        _loop(loop.weak_from_this()) {}

  const std::uint64_t deadline;
  const std::uint64_t accuracy;  // how much later will do

 private:
  void didInvalidate() override {
    const std::shared_ptr<State> loop = _loop.lock();
    if (!loop) return;
    loop->post([loop = loop.get(), self = shared_from_this()] { loop->remove(*self); });
  }

  const std::weak_ptr<State> _loop;
};

SystemRunLoop::State::State(Runner whoRuns) : runner(whoRuns) {
  sd_event* madeEvent = nullptr;
  require(sd_event_new(&madeEvent), "cannot make an event loop");
  event.reset(madeEvent);
  // Where the service manager watches over the service, the loop shows it that it is alive.
  sd_event_set_watchdog(event.get(), 1);

  wakeDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  require(wakeDescriptor < 0 ? -errno : 0, "cannot make an event descriptor");
  sd_event_source* madeSource = nullptr;
  const auto woken = [](sd_event_source*, int descriptor, std::uint32_t, void* state) {
    eventfd_t count = 0;
    eventfd_read(descriptor, &count);
    static_cast<State*>(state)->runPosted();
    return 0;
  };
  require(sd_event_add_io(event.get(), &madeSource, wakeDescriptor, EPOLLIN, woken, this),
          "cannot watch the event descriptor");
  wakeSource.reset(madeSource);

  const auto due = [](sd_event_source*, std::uint64_t, void* state) {
    static_cast<State*>(state)->fireDueTimers();
    return 0;
  };
  require(sd_event_add_time(event.get(), &madeSource, CLOCK_BOOTTIME, 0, 0, due, this),
          "cannot make the alarm");
  alarm.reset(madeSource);
  setAlarm();
}

void SystemRunLoop::State::wake() const {
  eventfd_write(wakeDescriptor, 1);
}

void SystemRunLoop::State::post(std::function<void()> block) {
  bool isFirst;
  {
    const std::lock_guard lock(mutex);
    isFirst = posted.empty();
    posted.push_back(std::move(block));
  }
  if (isFirst) wake();
}

// Runs what has been posted by now; what these blocks post in turn waits, so that timers and
// signals get their chance.
void SystemRunLoop::State::runPosted() {
  std::unique_lock lock(mutex);
  for (std::size_t count = posted.size(); count > 0 && !isStopping; --count) {
    // Stays in the list while it runs, so that nobody who posts meanwhile needs to wake the loop.
    const std::function<void()> block = std::move(posted.front());
    lock.unlock();
    block();
    lock.lock();
    posted.pop_front();
  }
  if (!posted.empty()) wake();
}

void SystemRunLoop::State::add(const std::shared_ptr<SystemTimer>& timer) {
  if (!timer->isValid()) return;
  timers.emplace(timer->deadline, timer);
  setAlarm();
}

void SystemRunLoop::State::remove(const SystemTimer& timer) {
  const auto [first, last] = timers.equal_range(timer.deadline);
  const auto found =
      std::find_if(first, last, [&](const auto& entry) { return entry.second.get() == &timer; });
  if (found == last) return;
  timers.erase(found);
  setAlarm();
}

// One alarm for all timers, so that those that are late together still fire in order.
void SystemRunLoop::State::fireDueTimers() {
  const std::uint64_t now = bootTime();
  while (!timers.empty() && timers.begin()->first <= now) {
    const std::shared_ptr<SystemTimer> timer = timers.begin()->second;
    timers.erase(timers.begin());
    timer->fire();
  }
  setAlarm();
}

void SystemRunLoop::State::setAlarm() {
  if (timers.empty()) {
    require(sd_event_source_set_enabled(alarm.get(), SD_EVENT_OFF), "cannot stop the alarm");
    return;
  }
  const SystemTimer& next = *timers.begin()->second;
  require(sd_event_source_set_time(alarm.get(), next.deadline), "cannot set the alarm");
  require(sd_event_source_set_time_accuracy(alarm.get(), next.accuracy), "cannot set the alarm");
  require(sd_event_source_set_enabled(alarm.get(), SD_EVENT_ONESHOT), "cannot start the alarm");
}

SystemRunLoop::SystemRunLoop(Runner runner) : _state(std::make_shared<State>(runner)) {}

SystemRunLoop::~SystemRunLoop() = default;

int SystemRunLoop::run() {
  State& state = *_state;
  if (state.runner == Runner::MainThread && gettid() != getpid()) {
    std::fprintf(stderr, "%s: run() of the main loop on another thread\n",
                 SystemRunLoop::kClassName);
    std::abort();
  }
  while (!state.isStopping) {
    const int result = sd_event_run(state.event.get(), UINT64_MAX);
    if (result >= 0) continue;
    logLevel(1, "%@: the event loop failed: %@", SystemRunLoop::kClassName,
             std::generic_category().message(-result));
    return EXIT_FAILURE;
  }
  state.isStopping = false;
  return state.exitStatus;
}

void SystemRunLoop::stop(int status) {
  _state->post([state = _state.get(), status] {
    state->isStopping = true;
    state->exitStatus = status;
  });
}

void SystemRunLoop::post(std::function<void()> block) {
  _state->post(std::move(block));
}

std::shared_ptr<RunLoop::Timer> SystemRunLoop::addTimer(double seconds,
                                                        std::function<void()> block) {
  const double delay = std::clamp(seconds, 0.0, kLongestDelay);
  auto timer = std::make_shared<State::SystemTimer>(*_state, delay, std::move(block));
  _state->post([state = _state.get(), timer] { state->add(timer); });
  return timer;
}

void SystemRunLoop::onSignal(int signalNumber, std::function<void()> block) {
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, signalNumber);
  require(-pthread_sigmask(SIG_BLOCK, &mask, nullptr), "cannot block a signal");
  State::Handler& signal = _state->signals[signalNumber];
  signal.source.reset();
  signal.block = std::move(block);
  sd_event_source* source = nullptr;
  const auto arrived = [](sd_event_source*, const signalfd_siginfo*, void* handler) {
    static_cast<State::Handler*>(handler)->block();
    return 0;
  };
  require(sd_event_add_signal(_state->event.get(), &source, signalNumber, arrived, &signal),
          "cannot watch a signal");
  signal.source.reset(source);
}

void SystemRunLoop::onEvents(int descriptor, std::uint32_t events, std::function<void()> block) {
  State::Handler& handler = _state->descriptors[descriptor];
  handler.source.reset();
  handler.block = std::move(block);
  const auto happened = [](sd_event_source* source, int watched, std::uint32_t what, void* user) {
    if ((what & (EPOLLERR | EPOLLHUP)) != 0) {
      logLevel(1, "%@: descriptor %d has failed and is not watched any longer", kClassName,
               watched);
      return sd_event_source_set_enabled(source, SD_EVENT_OFF);
    }
    static_cast<State::Handler*>(user)->block();
    return 0;
  };
  sd_event_source* source = nullptr;
  require(sd_event_add_io(_state->event.get(), &source, descriptor, events, happened, &handler),
          "cannot watch a descriptor");
  handler.source.reset(source);
}

RunLoop& RunLoop::main() {
  return SharedInstance<RunLoop>::get(
      [] { return std::make_unique<SystemRunLoop>(SystemRunLoop::Runner::MainThread); });
}

}  // namespace tallow
