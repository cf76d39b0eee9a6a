#include "client/DialogAgent.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "bus/com.vantor.HSDialogAgent_adaptor.h"
#include "bus/com.vantor.HSDialogService_proxy.h"
#include "bus/com.vantor.HSServiceRemoteObject_proxy.h"
#include "client/BusReader.h"
#include "client/ClientCalls.h"
#include "platform/Base/FileDescriptor.h"
#include "platform/XPC/BusDaemon.h"
#include "platform/XPC/SDBus.h"

namespace tallow {

namespace {

constexpr const char* kServiceName = "com.vantor.tallowd";
constexpr const char* kAgentPath = "/com/vantor/tallowd/client/dialogs";

// The service's two interfaces that an agent speaks.
class Service final : public sdbus::ProxyInterfaces<com::vantor::HSDialogService_proxy,
                                                    com::vantor::HSServiceRemoteObject_proxy> {
 public:
  // `uniqueName`: a call never reaches one that was started later.
  Service(sdbus::IConnection& connection, const std::string& uniqueName)
      : ProxyInterfaces(connection, bus::ServiceName{uniqueName}, sdbus::ObjectPath{kServicePath}) {
    registerProxy();
  }
  ~Service() { unregisterProxy(); }
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;
};

}  // namespace

class DialogAgent::Agent {
 public:
  Agent(std::string client, Show show) : _client(std::move(client)), _show(std::move(show)) {}
  ~Agent();
  Agent(const Agent&) = delete;
  Agent& operator=(const Agent&) = delete;

  // Throws sdbus::Error.
  void start();

 private:
  class Object;
  struct Waiting {
    std::string service;  // who asks: its unique name
    std::uint64_t number = 0;
    Dictionary contents;
  };

  void _register();
  void _work();
  void _showOne(const Waiting& waiting);
  void _add(std::uint64_t number, Dictionary contents);
  void _dismiss(std::uint64_t number);
  void _serviceHasChanged(const std::string& owner);
  // With the lock held.
  void _takeAway() {
    _isGone = true;
    eventfd_write(_gone.get(), 1);
  }
  bool _isService(const std::string& uniqueName);
  // With the lock held.
  bool _mustRegister() const { return !_owner.empty() && _owner != _registeredWith; }

  const std::string _client;
  const Show _show;

  std::mutex _lock;
  std::condition_variable _changed;
  std::deque<Waiting> _waiting;  // guarded by _lock, as what follows
  std::uint64_t _shown = 0;      // the number of the dialog that is shown
  FileDescriptor _gone;          // of that dialog
  std::string _owner;            // the service's unique name
  bool _isGone = false;
  std::string _registeredWith;  // or tried to
  std::uint64_t _ownersHeard = 0;
  bool _isEnding = false;

  std::unique_ptr<sdbus::IConnection> _connection;
  std::optional<bus::BusDaemon> _busDaemon;
  std::unique_ptr<Object> _object;
  sdbus::Slot _ownerWatch;
  std::optional<BusReader> _reader;
  std::thread _worker;
};

// What the service calls, on the thread that reads the bus.
class DialogAgent::Agent::Object final
    : public sdbus::AdaptorInterfaces<com::vantor::HSDialogAgent_adaptor> {
 public:
  Object(sdbus::IConnection& connection, Agent& agent)
      : AdaptorInterfaces(connection, sdbus::ObjectPath{kAgentPath}), _agent(agent) {
    registerAdaptor();
  }
  ~Object() { unregisterAdaptor(); }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

 private:
  void showDialog(sdbus::Result<>&& result, std::uint64_t number, WireDictionary dialog) override {
    answer(result, [&] { _agent._add(number, std::move(dialog.value)); });
  }
  void dismissDialog(sdbus::Result<>&& result, std::uint64_t number) override {
    answer(result, [&] { _agent._dismiss(number); });
  }

  // Whoever else calls would have a person type a password for it.
  template <class Work>
  void answer(const sdbus::Result<>& result, Work work) {
    const char* const sender = sd_bus_message_get_sender(bus::currentMessage(getObject()));
    if (sender == nullptr || !_agent._isService(sender)) {
      result.returnError(bus::makeError("org.freedesktop.DBus.Error.AccessDenied",
                                        "This agent shows the account service's dialogs only."));
      return;
    }
    work();
    result.returnResults();
  }

  Agent& _agent;
};

void DialogAgent::Agent::start() {
  _connection = sdbus::createSessionBusConnection();
  _ownerWatch = bus::watchOwner(
      *_connection, kServiceName,
      [this](const std::string&, const std::string& now) { _serviceHasChanged(now); });
  _object = std::make_unique<Object>(*_connection, *this);
  _busDaemon.emplace(*_connection);
  _reader.emplace(*_connection);
  _register();
  _worker = std::thread([this] { _work(); });
}

DialogAgent::Agent::~Agent() {
  {
    const std::lock_guard guard(_lock);
    _isEnding = true;
    _waiting.clear();
    if (_shown != 0) _takeAway();
  }
  _changed.notify_all();
  if (_worker.joinable()) _worker.join();
  _reader.reset();
}

// With one service, even if another takes its place meanwhile: that one is registered with next.
void DialogAgent::Agent::_register() {
  std::uint64_t heardBefore = 0;
  {
    const std::lock_guard guard(_lock);
    heardBefore = _ownersHeard;
  }
  const std::string owner = _busDaemon->ownerOfStarted(kServiceName);
  {
    const std::lock_guard guard(_lock);
    if (_ownersHeard == heardBefore) _owner = owner;  // else what was heard is newer
    _registeredWith = owner;
  }
  Service service(*_connection, owner);
  if (!_client.empty()) service.actAs(_client);
  service.registerDialogAgent(sdbus::ObjectPath{kAgentPath});
}

void DialogAgent::Agent::_serviceHasChanged(const std::string& owner) {
  const std::lock_guard guard(_lock);
  _owner = owner;
  ++_ownersHeard;
  _waiting.clear();  // nobody waits for these any more
  if (_shown != 0) _takeAway();
  _changed.notify_all();
}

bool DialogAgent::Agent::_isService(const std::string& uniqueName) {
  const std::lock_guard guard(_lock);
  return uniqueName == _owner;
}

void DialogAgent::Agent::_add(std::uint64_t number, Dictionary contents) {
  const std::lock_guard guard(_lock);
  _waiting.push_back({_owner, number, std::move(contents)});
  _changed.notify_all();
}

void DialogAgent::Agent::_dismiss(std::uint64_t number) {
  const std::lock_guard guard(_lock);
  std::erase_if(_waiting, [&](const Waiting& each) { return each.number == number; });
  if (_shown == number) _takeAway();
}

void DialogAgent::Agent::_work() {
  std::unique_lock lock(_lock);
  for (;;) {
    _changed.wait(lock, [&] { return _isEnding || _mustRegister() || !_waiting.empty(); });
    if (_isEnding) return;
    if (_mustRegister()) {
      // Once only: where that fails the service dismisses its dialogs, and nobody is left waiting.
      _registeredWith = _owner;
      lock.unlock();
      try {
        _register();
      } catch (const sdbus::Error&) {
        // The next service may take it.
      }
      lock.lock();
      continue;
    }
    const Waiting next = std::move(_waiting.front());
    _waiting.pop_front();
    _shown = next.number;
    _gone = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    _isGone = false;
    lock.unlock();
    _showOne(next);
    lock.lock();
    _shown = 0;
  }
}

void DialogAgent::Agent::_showOne(const Waiting& waiting) {
  const Answer answer = _show({waiting.contents, _gone.get()});
  WireSecret password;
  password.value = answer.password;
  {
    const std::lock_guard guard(_lock);
    if (_isGone) return;
  }
  try {
    // To who has asked and to nobody else, nor to one who would be started for it.
    bus::makeProxy(*_connection, waiting.service, kServicePath)
        ->callMethod("answerDialog")
        .onInterface("com.vantor.HSDialogService")
        .withArguments(waiting.number,
                       answer.button ? static_cast<std::int32_t>(*answer.button) : -1,
                       answer.accountName, password);
  } catch (const sdbus::Error&) {
    // Dismissed meanwhile, or the service has gone: there is nobody to tell.
  }
}

Result<std::unique_ptr<DialogAgent>> DialogAgent::start(const std::string& client, Show show) {
  try {
    auto agent = std::make_unique<Agent>(client, std::move(show));
    agent->start();
    return std::unique_ptr<DialogAgent>(new DialogAgent(std::move(agent)));
  } catch (const sdbus::Error& error) {
    return clientErrorFrom(error);
  }
}

DialogAgent::DialogAgent(std::unique_ptr<Agent> agent) : _agent(std::move(agent)) {}

DialogAgent::~DialogAgent() = default;

}  // namespace tallow
