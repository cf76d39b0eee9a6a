#include "platform/XPC/BusConnection.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

namespace {

// How long the bus is given to pass answers on.
constexpr timespec kMoment{0, 100'000};

}  // namespace

Result<std::shared_ptr<BusConnection>> BusConnection::open(Bus bus) {
  try {
    auto connection = bus == Bus::Session ? sdbus::createSessionBusConnection()
                                          : sdbus::createSystemBusConnection();
    return std::shared_ptr<BusConnection>(new BusConnection(std::move(connection)));
  } catch (const sdbus::Error& error) {
    return makeError(BusConnection::kClassName, -1, error.getMessage());
  }
}

BusConnection::BusConnection(std::unique_ptr<sdbus::IConnection> connection)
    : _connection(std::move(connection)), _wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (_wakeUp < 0) throw sdbus::createError(errno, "cannot make an event file");
}

BusConnection::~BusConnection() {
  stop();
  close(_wakeUp);
}

void BusConnection::start(std::function<void()> disconnected) {
  // Signals belong to the main thread.
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  _thread = std::thread([this, disconnected = std::move(disconnected)] { _read(disconnected); });
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  pthread_setname_np(_thread.native_handle(), "tallow-bus");
}

void BusConnection::stop() {
  _stopping = true;
  _wake();
  if (_thread.joinable()) _thread.join();
  std::exchange(_keptWhileReading, {}).clear();
}

void BusConnection::keepWhileReading(std::shared_ptr<void> object) {
  const void* const key = object.get();
  _keptWhileReading.insert_or_assign(key, std::move(object));
}

void BusConnection::post(std::function<void()> task) {
  _add(std::move(task), _posted);
}

void BusConnection::postAfterAnswers(std::function<void()> task) {
  _add(std::move(task), _later);
}

void BusConnection::_add(std::function<void()> task, Tasks& to) {
  {
    const std::lock_guard lock(_mutex);
    if (_hasEnded) return;
    to.push_back(std::move(task));
    _hasPosted = !_posted.empty();
    _laterCount = _later.size();
  }
  // The reading thread itself looks again before it waits.
  if (_reader != std::this_thread::get_id()) _wake();
}

void BusConnection::_read(const std::function<void()>& disconnected) {
  _reader = std::this_thread::get_id();
  try {
    while (!_stopping) {
      _readUntilIdle();
      if (_stopping) break;
      // Were a call to go out at once, the bus would on a busy processor pass it on, and whoever is
      // called would run, before the caller has its answer.
      const bool hasLater = _laterCount > 0;
      _wait(hasLater ? Wait::AMoment : Wait::ForMessages);
      if (hasLater) _run(_later);
    }
    // What has been put off until somebody is answered is done, also where that was the last call.
    _run(_posted);
    _run(_later);
  } catch (const sdbus::Error& error) {
    logLevel(1, "%@: the bus has gone away: %@", BusConnection::kClassName, error.getMessage());
    if (disconnected) disconnected();
  }
  Tasks abandoned, abandonedLater;
  const std::lock_guard lock(_mutex);
  _hasEnded = true;
  abandoned.swap(_posted);
  abandonedLater.swap(_later);
}

void BusConnection::readArrived() {
  // Not without an end: who calls again and again would keep the service from stopping.
  constexpr int kMostMessages = 4096;
  for (int i = 0; i < kMostMessages && bus::processOne(*_connection); ++i) continue;
}

void BusConnection::_readUntilIdle() {
  do {
    if (_hasPosted) _run(_posted);
  } while (!_stopping && (_readOne() || _hasPosted));
}

bool BusConnection::_readOne() {
  const bool hasLater = _laterCount > 0;
  if (!bus::processOne(*_connection)) return false;
  // While there is no pause, what was put off goes out one message later.
  if (hasLater) _run(_later);
  return true;
}

void BusConnection::_run(Tasks& waiting) {
  Tasks tasks;
  {
    const std::lock_guard lock(_mutex);
    tasks.swap(waiting);
    _hasPosted = !_posted.empty();
    _laterCount = _later.size();
  }
  for (const auto& task : tasks) task();
}

void BusConnection::_wait(Wait how) {
  const auto data = _connection->getEventLoopPollData();
  pollfd files[] = {
      {data.fd, data.events, 0}, {_wakeUp, POLLIN, 0}, {bus::eventFile(data), POLLIN, 0}};
  const int milliseconds = data.getPollTimeout();
  if (how == Wait::AMoment && milliseconds != 0)
    ppoll(files, std::size(files), &kMoment, nullptr);
  else
    poll(files, std::size(files), milliseconds);
  if ((files[1].revents & POLLIN) != 0) {
    eventfd_t count = 0;
    eventfd_read(_wakeUp, &count);
  }
}

void BusConnection::_wake() const {
  eventfd_write(_wakeUp, 1);
}

}  // namespace tallow
