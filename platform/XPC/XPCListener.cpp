#include "platform/XPC/XPCListener.h"

#include <systemd/sd-daemon.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/AccountServiceObject.h"
#include "platform/XPC/BusConnection.h"
#include "platform/XPC/CallerTable.h"
#include "platform/XPC/DialogServiceObject.h"
#include "platform/XPC/LogControlObject.h"
#include "platform/XPC/NotificationCenterObject.h"
#include "platform/XPC/PeerConnection.h"

namespace tallow {

namespace {

// How long a service manager is waited for.
constexpr std::uint64_t kBarrierMicroseconds = 5'000'000;
// How long calls are waited for that came in at the very end, and how often it is looked.
constexpr std::chrono::seconds kPatience{5};
constexpr std::chrono::milliseconds kPause{5};

class BusListener final : public XPCListener {
 public:
  BusListener(std::string serviceName, Bus bus) : _serviceName(std::move(serviceName)), _bus(bus) {}
  ~BusListener() override { stop(); }

  void setDelegate(XPCListenerDelegate* delegate) override { _delegate = delegate; }
  void setStatusProvider(std::function<Dictionary()> provider) override {
    *_status = std::move(provider);
  }
  void setInvalidationHandler(std::function<void()> handler) override {
    _invalidated = std::move(handler);
  }

  std::optional<Error> resume() override {
    if (_delegate == nullptr) {
      std::fprintf(stderr, "%s: resume without a delegate\n", XPCListener::kClassName);
      std::abort();
    }
    const bool isSession = _bus == Bus::Session;
    auto connection =
        BusConnection::open(isSession ? BusConnection::Bus::Session : BusConnection::Bus::System);
    if (!connection) return connection.error();
    _connection = *connection;
    try {
      _publish(isSession);
    } catch (const sdbus::Error& error) {
      _withdraw();
      return makeError(XPCListener::kClassName, -1,
                       "cannot publish " + _serviceName + ": " + error.getMessage());
    }
    PeerConnection::setBus(_connection);
    _connection->start(_invalidated);
    sd_notify(0, "READY=1");
    logLevel(3, "%@: serving %@", XPCListener::kClassName, _serviceName);
    return std::nullopt;
  }

  void tellLoad(LoadHandler told) override {
    _connection->post([this, told = std::move(told)] { told(_load()); });
  }

  void giveUpNameIf(std::function<bool(const Load&)> decide,
                    std::function<void(bool)> done) override {
    _connection->post([this, decide = std::move(decide), done = std::move(done)] {
      if (decide(_load())) {
        _giveUpName();
        if (!_hasName && !decide(_load())) _takeNameBack();
      }
      done(!_hasName);
    });
  }

  void takeNameBack(std::function<void(bool)> done) override {
    _connection->post([this, done = std::move(done)] {
      _takeNameBack();
      done(_hasName);
    });
  }

  bool hasServiceManager() const override { return std::getenv("NOTIFY_SOCKET") != nullptr; }

  void stop() override {
    if (!_connection) return;
    // Once it has taken note, a service manager starts another process for whoever calls.
    const bool isManaged = sd_notify(0, "STOPPING=1") > 0;
    if (isManaged) sd_notify_barrier(0, kBarrierMicroseconds);
    _serveTheRest(isManaged);
    PeerConnection::setBus(nullptr);
    _connection->stop();
    _withdraw();
  }

 private:
  void _publish(bool isSession) {
    sdbus::IConnection& connection = _connection->connection();
    _callers = std::make_unique<CallerTable>(_connection, *_delegate, isSession);
    _object = std::make_shared<AccountServiceObject>(connection, *_callers, _status);
    _dialogService = std::make_shared<DialogServiceObject>(connection, *_callers, isSession);
    _logControl = std::make_unique<LogControlObject>(connection);
    _notificationCenter =
        std::make_unique<NotificationCenterObject>(connection, AccountServiceObject::kPath);
    bus::requestName(connection, _serviceName);
    _hasName = true;
  }

  Load _load() const { return {_callers->count(), _callers->waitingCalls(), _callers->calls()}; }

  // Once the bus has taken the name back, nothing new comes in for it; what came before is read.
  // Both on the reading thread.
  void _giveUpName() {
    try {
      if (_hasName) bus::releaseName(_connection->connection(), _serviceName);
      _hasName = false;
      _connection->readArrived();
    } catch (const sdbus::Error& error) {
      logLevel(1, "%@: cannot give up %@: %@", XPCListener::kClassName, _serviceName,
               error.getMessage());
    }
  }
  void _takeNameBack() {
    try {
      if (!_hasName) bus::requestName(_connection->connection(), _serviceName);
      _hasName = true;
    } catch (const sdbus::Error& error) {
      logLevel(1, "%@: cannot take %@ back: %@", XPCListener::kClassName, _serviceName,
               error.getMessage());
    }
  }

  // What came in at the last moment is read, and answered if that can be done soon. Calls for which
  // a manager has started nobody, since it saw this process run, wait for somebody to take the
  // name.
  void _serveTheRest(bool isManaged) {
    const std::optional<Load> before = _onReadingThread([this] { return _load(); });
    const std::optional<Load> after = _onReadingThread([this, isManaged] {
      if (isManaged) _takeNameBack();
      _giveUpName();
      return _load();
    });
    if (!before || !after || after->calls == before->calls) return;
    const auto latest = std::chrono::steady_clock::now() + kPatience;
    for (auto load = after; load && load->waitingCalls > before->waitingCalls;
         load = _onReadingThread([this] { return _load(); })) {
      if (std::chrono::steady_clock::now() > latest) return;
      std::this_thread::sleep_for(kPause);
    }
  }
  // Nothing when that thread has ended already.
  std::optional<Load> _onReadingThread(std::function<Load()> look) {
    auto seen = std::make_shared<std::promise<Load>>();
    std::future<Load> load = seen->get_future();
    _connection->post(
        [look = std::move(look), seen = std::move(seen)] { seen->set_value(look()); });
    try {
      return load.get();
    } catch (const std::future_error&) {
      return std::nullopt;
    }
  }

  void _withdraw() {
    _notificationCenter.reset();
    _logControl.reset();
    _connection->keepUntilClosed(std::move(_dialogService));
    _connection->keepUntilClosed(std::move(_object));
    _callers.reset();
    _connection.reset();
  }

  std::string _serviceName;
  Bus _bus;
  bool _hasName = false;  // the reading thread's, once it runs
  XPCListenerDelegate* _delegate = nullptr;
  std::shared_ptr<std::function<Dictionary()>> _status =
      std::make_shared<std::function<Dictionary()>>();
  std::function<void()> _invalidated;
  std::shared_ptr<BusConnection> _connection;
  std::unique_ptr<CallerTable> _callers;
  std::shared_ptr<AccountServiceObject> _object;
  std::shared_ptr<DialogServiceObject> _dialogService;
  std::unique_ptr<LogControlObject> _logControl;
  std::unique_ptr<NotificationCenterObject> _notificationCenter;
};

}  // namespace

std::unique_ptr<XPCListener> XPCListener::initWithMachServiceName(std::string serviceName,
                                                                  Bus bus) {
  return std::make_unique<BusListener>(std::move(serviceName), bus);
}

}  // namespace tallow
