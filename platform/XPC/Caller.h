#pragma once

#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/VendBase/HSAccountService.h"
#include "platform/XPC/PendingReply.h"
#include "platform/XPC/RemoteURLBagObserver.h"
#include "platform/XPC/XPCConnection.h"

namespace tallow {

// One connection to the bus that has called the service: who it is, the object that serves it, and
// what it makes the service hold. While it is being found out who it is, its calls are kept, in
// order. Owned by the CallerTable. Reading thread only; the counts may be lowered by any thread.
class Caller {
 public:
  // More calls than this wait for an answer at a time, and the next is refused; the same for the
  // memory of their arguments.
  static constexpr std::uint32_t kMaxWaitingCalls = 256;
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{32} << 20;
  static constexpr std::size_t kMaxObservers = 64;

  enum class State { Unknown, Accepted, Refused };
  // Run when the caller's state has become known.
  using KeptCall = std::function<void(Caller&)>;

  Caller(std::shared_ptr<BusConnection> connection, std::string uniqueName);

  const std::string& uniqueName() const { return _uniqueName; }
  State state() const { return _state; }
  const std::shared_ptr<WaitingCalls>& waiting() const { return _waiting; }
  bool canWaitFor(std::size_t bytes) const;

  // Accepted only.
  const XPCConnection& connection() const { return _connection; }
  HSAccountService& service() const { return *_service; }
  // Refused only: why.
  const char* refusalName() const { return _refusalName; }
  const std::string& refusalText() const { return _refusalText; }

  void keep(KeptCall call) { _kept.push_back(std::move(call)); }
  // Both run the calls that were kept.
  void accept(XPCConnection connection, std::shared_ptr<HSAccountService> service);
  void refuse(const char* name, std::string text);
  // An accepted caller goes back to having its calls kept, until accept(), refuse() or resume().
  void suspend() { _state = State::Unknown; }
  void resume();
  // The caller is somebody else from now on, or has left.
  void forgetObservers();

  // The one proxy of this caller's observer at `path`; null when it has too many.
  std::shared_ptr<HSURLBagObserver> observerAt(const std::string& path);
  // The same, which is then no longer held; null when there is none.
  std::shared_ptr<HSURLBagObserver> takeObserverAt(const std::string& path);
  std::size_t observerCount() const { return _observers.size(); }

 private:
  void _runKept();

  std::shared_ptr<BusConnection> _bus;
  std::string _uniqueName;
  State _state = State::Unknown;
  std::shared_ptr<WaitingCalls> _waiting = std::make_shared<WaitingCalls>();
  std::vector<KeptCall> _kept;
  XPCConnection _connection;
  std::shared_ptr<HSAccountService> _service;
  const char* _refusalName = nullptr;
  std::string _refusalText;
  std::unordered_map<std::string, std::shared_ptr<RemoteURLBagObserver>> _observers;
};

}  // namespace tallow
