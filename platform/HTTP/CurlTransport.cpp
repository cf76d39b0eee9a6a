#include "platform/HTTP/CurlTransport.h"

#include <dirent.h>
#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "platform/Base/Directories.h"
#include "platform/Concurrency/MemoryPressure.h"
#include "platform/HTTP/CurlExchange.h"
#include "platform/HTTP/CurlLibrary.h"

namespace tallow {
namespace {

constexpr long kPooledConnections = 16;
// The longest sleep while something is under way; what matters ends it earlier.
constexpr int kPollMilliseconds = 60'000;

using ExchangePointer = std::shared_ptr<CurlExchange>;

CurlMultiPointer makeMulti() {
  CurlMultiPointer multi(curl().multiInit());
  if (multi) curl().multiSetOption(multi.get(), CURLMOPT_MAXCONNECTS, kPooledConnections);
  return multi;
}

bool isHashedFolder(const char* path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path), &closedir);
  if (!directory) return false;
  while (const dirent* entry = readdir(directory.get()))
    if (std::string_view(entry->d_name).ends_with(".0")) return true;
  return false;
}

// The system's certificates, as the library was built to find them. Where they also lie in a folder
// by hash, only the folder: it is read as needed, while the one big file costs every connection
// milliseconds and every idle minute megabytes.
CurlExchange::TrustedCertificates trustedCertificates(const std::string& additionalFile) {
  const curl_version_info_data* library = curl().versionInfo(CURLVERSION_NOW);
  CurlExchange::TrustedCertificates trusted;
  if (library->capath != nullptr && isHashedFolder(library->capath))
    trusted.folder = library->capath;
  else if (library->cainfo != nullptr)
    trusted.file = library->cainfo;
  if (!additionalFile.empty()) trusted.file = additionalFile;
  return trusted;
}

// No signal is for this thread; a connection that the peer has closed must not raise SIGPIPE
// either.
void refuseSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
}

}  // namespace

CurlTransport::Options CurlTransport::Options::fromEnvironment() {
  return {.additionalCAFile = authoritiesFile().string()};
}

// What the I/O thread and its callers share. One thread at a time drives the exchanges: the I/O
// thread, or a caller who waits for one and whose turn saves two changes of threads. Exchanges hold
// it weakly, so that one may be cancelled after the transport has gone.
class CurlTransport::Loop : public std::enable_shared_from_this<CurlTransport::Loop> {
 public:
  explicit Loop(Options options) : _options(std::move(options)) {}

  // False when the exchange cannot be driven: the system has no thread left.
  bool submit(ExchangePointer exchange) {
    const std::lock_guard<std::mutex> guard(_lock);
    if (!_running && !startThread()) return false;
    _incoming.push_back(std::move(exchange));
    wakeLocked();
    return true;
  }

  // The same, and drives it, and what else comes meanwhile, on this thread until it has ended,
  // unless another thread is driving: then it returns at once.
  bool submitAndDrive(const ExchangePointer& exchange) {
    std::unique_lock<std::mutex> guard(_lock);
    if (_isDriven || _stopping || !canDrive()) {
      guard.unlock();
      return submit(exchange);
    }
    // It closes the pool later, and takes over what this thread leaves.
    if (!_running && !startThread()) return false;
    _incoming.push_back(exchange);
    _isDriven = true;
    guard.unlock();
    while (!exchange->hasEnded()) step();
    guard.lock();
    leave();
    return true;
  }

  void wake() {
    const std::lock_guard<std::mutex> guard(_lock);
    wakeLocked();
  }

  void stop() {
    {
      std::unique_lock<std::mutex> guard(_lock);
      _stopping = true;
      wakeLocked();
      _changed.notify_all();
      _changed.wait(guard, [this] { return !_isDriven; });
    }
    if (_thread.joinable()) _thread.join();
  }

 private:
  // A connection that the peer has closed must not end the process.
  static bool canDrive() {
    sigset_t blocked;
    return pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 &&
           sigismember(&blocked, SIGPIPE) == 1;
  }

  bool startThread() {
    // A thread that has said it is not running only returns.
    if (_thread.joinable()) _thread.join();
    try {
      _running = true;
      _lastUse = Time::clock::now();
      _thread = std::thread([this] { run(); });
    } catch (const std::system_error&) {
      _running = false;
    }
    return _running;
  }

  // In the one place where somebody may sleep: a wake-up for the other would cost a turn.
  void wakeLocked() {
    if (_isDriven && _multi)
      curl().multiWakeUp(_multi.get());
    else
      _changed.notify_all();
  }

  // With the lock held, after driving.
  void leave() {
    _isDriven = false;
    _lastUse = Time::clock::now();
    if (_stopping || hasWork()) _changed.notify_all();
  }
  // With the lock held, while nobody drives.
  bool hasWork() const { return !_incoming.empty() || !_active.empty(); }

  // The I/O thread.
  void run() {
    refuseSignals();
    pthread_setname_np(pthread_self(), "tallow-http");
    std::unique_lock<std::mutex> guard(_lock);
    do {
      while (waitForWork(guard)) {
        _isDriven = true;
        guard.unlock();
        while (step()) continue;
        guard.lock();
        leave();
      }
      closePool(guard);
    } while (_isDriven || _multi || hasWork());  // somebody has come meanwhile
    _running = false;
  }

  // With the lock held, but not all the time. Gives back what the idle connections and their
  // certificates took.
  void closePool(std::unique_lock<std::mutex>& guard) {
    CurlMultiPointer multi;
    multi.swap(_multi);
    guard.unlock();
    multi.reset();
    giveBackMemory();
    guard.lock();
  }

  // With the lock held. False when nothing has come for as long as the pool is kept, or will ever
  // come.
  bool waitForWork(std::unique_lock<std::mutex>& guard) {
    const auto idle = std::chrono::duration_cast<Time::duration>(
        std::chrono::duration<double>(_options.idleSeconds));
    for (;;) {
      if (!_isDriven && hasWork()) return true;
      if (!_isDriven && _stopping) return false;
      const Time now = Time::clock::now();
      if (!_isDriven && now >= _lastUse + idle) return false;
      _changed.wait_until(guard, (_isDriven ? now : _lastUse) + idle);
    }
  }

  // What follows is the driving thread's.

  // Begins what has been submitted, moves what can be moved, ends what is done, sleeps until there
  // is more. False when nothing is left.
  bool step() {
    std::vector<ExchangePointer> incoming;
    bool stopping = false;
    {
      const std::lock_guard<std::mutex> guard(_lock);
      if (!_multi) _multi = makeMulti();
      incoming.swap(_incoming);
      stopping = _stopping;
    }
    if (stopping) {
      for (const ExchangePointer& exchange : incoming)
        exchange->finish(CurlExchange::cancellation());
      for (const ExchangePointer& exchange : std::exchange(_active, {}))
        end(exchange, CurlExchange::cancellation());
      return false;
    }
    if (!_trusted) _trusted = trustedCertificates(_options.additionalCAFile);
    for (ExchangePointer& exchange : incoming) beginExchange(std::move(exchange));
    endCancelled();
    transfer();
    return !_active.empty();
  }

  void beginExchange(ExchangePointer exchange) {
    if (exchange->isCancelled()) return exchange->finish(CurlExchange::cancellation());
    if (std::optional<Error> error = exchange->prepare(*_trusted))
      return exchange->finish(*std::move(error));
    if (curl().multiAddHandle(_multi.get(), exchange->handle()) != CURLM_OK)
      return exchange->finish(CURLE_OUT_OF_MEMORY);
    _active.push_back(std::move(exchange));
  }

  void endCancelled() {
    const auto firstCancelled = std::stable_partition(
        _active.begin(), _active.end(),
        [](const ExchangePointer& exchange) { return !exchange->isCancelled(); });
    const std::vector<ExchangePointer> cancelled(firstCancelled, _active.end());
    _active.erase(firstCancelled, _active.end());
    for (const ExchangePointer& exchange : cancelled) end(exchange, CurlExchange::cancellation());
  }

  // Moves what can be moved, ends what is done, sleeps until there is more.
  void transfer() {
    int running = 0;
    curl().multiPerform(_multi.get(), &running);
    int waiting = 0;
    bool ended = false;
    while (const CURLMsg* message = curl().multiInfoRead(_multi.get(), &waiting)) {
      if (message->msg != CURLMSG_DONE) continue;
      endTransfer(message->easy_handle, message->data.result);
      ended = true;
    }
    if (!ended && !_active.empty())
      curl().multiPoll(_multi.get(), nullptr, 0, kPollMilliseconds, nullptr);
  }

  void endTransfer(void* handle, CURLcode result) {
    const auto found = std::find_if(
        _active.begin(), _active.end(),
        [handle](const ExchangePointer& exchange) { return exchange->handle() == handle; });
    if (found == _active.end()) return;
    const ExchangePointer exchange = std::move(*found);
    _active.erase(found);
    end(exchange, static_cast<int>(result));
  }

  template <class Outcome>
  void end(const ExchangePointer& exchange, Outcome outcome) {
    curl().multiRemoveHandle(_multi.get(), exchange->handle());
    exchange->finish(std::move(outcome));
  }

  using Time = std::chrono::steady_clock::time_point;

  const Options _options;
  std::mutex _lock;
  std::condition_variable _changed;
  // Under the lock; the pool itself is used by who drives alone, but for waking it.
  std::vector<ExchangePointer> _incoming;
  CurlMultiPointer _multi;
  bool _running = false;  // the I/O thread
  bool _stopping = false;
  bool _isDriven = false;
  Time _lastUse;
  std::thread _thread;
  // Who drives, alone.
  std::optional<CurlExchange::TrustedCertificates> _trusted;
  std::vector<ExchangePointer> _active;
};

CurlTransport::CurlTransport(Options options) : _loop(std::make_shared<Loop>(std::move(options))) {}

CurlTransport::~CurlTransport() {
  _loop->stop();
}

std::shared_ptr<CurlExchange> CurlTransport::exchangeFor(HTTPRequest request,
                                                         Completion completion) const {
  std::optional<Error> refusal = refusalOf(request);
  return std::make_shared<CurlExchange>(std::move(request), std::move(refusal),
                                        std::move(completion), [loop = std::weak_ptr<Loop>(_loop)] {
                                          if (const std::shared_ptr<Loop> alive = loop.lock())
                                            alive->wake();
                                        });
}

void CurlTransport::submit(const std::shared_ptr<CurlExchange>& exchange, Driver driver) {
  if (!CurlLibrary::isAvailable())
    exchange->finish(
        makeError(kErrorDomain, kOther, "The HTTP library (libcurl.so.4) cannot be loaded."));
  else if (!(driver == Driver::Caller ? _loop->submitAndDrive(exchange) : _loop->submit(exchange)))
    exchange->finish(CURLE_OUT_OF_MEMORY);
}

std::shared_ptr<HTTPTransport::Exchange> CurlTransport::start(HTTPRequest request,
                                                              Completion completion) {
  auto exchange = exchangeFor(std::move(request), std::move(completion));
  submit(exchange, Driver::IOThread);
  return exchange;
}

void CurlTransport::startAndHelp(HTTPRequest request, const Started& started,
                                 Completion completion) {
  const auto exchange = exchangeFor(std::move(request), std::move(completion));
  if (started) started(exchange);
  submit(exchange, Driver::Caller);
}

}  // namespace tallow
