#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/VendBase/HSAccountService.h"
#include "platform/XPC/PendingReply.h"
#include "platform/XPC/RemoteAccountStoreObserver.h"
#include "platform/XPC/RemoteDialogAgent.h"
#include "platform/XPC/RemoteURLBagObserver.h"
#include "platform/XPC/XPCConnection.h"

namespace tallow {

// One connection to the bus that has called the service: who it is, the object that serves it, and
// what it makes the service hold. While something is being found out about it, its calls are kept,
// in order. Owned by the CallerTable. Reading thread only; the counts may be lowered by any thread.
class Caller {
 public:
  // More calls than this wait for an answer at a time, and the next is refused; the same for the
  // memory of their arguments, which all callers together may not let grow beyond a bound either.
  static constexpr std::uint32_t kMaxWaitingCalls = 256;
  // Pushes are small, come in bursts, and nobody sends one again that was refused.
  static constexpr std::uint32_t kMaxWaitingPushes = 16'384;
  static constexpr std::size_t kMaxWaitingBytes = std::size_t{32} << 20;
  static constexpr std::size_t kMaxObservers = 64;

  // Why calls are answered with an error instead of being made.
  struct Refusal {
    const char* name;
    std::string text;
  };
  // Run when it has been decided about the caller; null: the call is to be made.
  using KeptCall = std::function<void(Caller&, const Refusal*)>;

  Caller(std::shared_ptr<BusConnection> connection, std::string uniqueName);
  ~Caller() { removeDialogAgent(); }
  Caller(const Caller&) = delete;
  Caller& operator=(const Caller&) = delete;

  const std::string& uniqueName() const { return _uniqueName; }
  const std::shared_ptr<CallCounts>& counts() const { return _counts; }
  bool canWaitFor(std::size_t bytes, std::uint32_t maxCalls = kMaxWaitingCalls) const;

  // Calls have to be kept: it is not known who this is, or something is being asked about it.
  bool isUndecided() const { return _isUndecided; }
  // When decided: null for an accepted caller.
  const Refusal* refusal() const { return _service ? nullptr : &_refusal; }
  // Accepted only.
  const XPCConnection& connection() const { return _connection; }
  HSAccountService& service() const { return *_service; }
  // Of its store client; empty where it has none.
  std::string_view identifier() const {
    const auto& client = _connection.storeClient;
    return client && client->identifier ? std::string_view(*client->identifier) : "";
  }

  void keep(KeptCall call) { _kept.push_back(std::move(call)); }
  // Each decides about the caller, and about the calls that were kept.
  void accept(XPCConnection connection, std::shared_ptr<HSAccountService> service);
  void refuse(Refusal refusal);
  // Undecided again, until resume() puts it back to what it was, or another decision.
  void suspend() { _isUndecided = true; }
  void resume();
  // The kept calls are refused; else as resume().
  void turnAway(const Refusal& refusal);
  // The caller is somebody else from now on, or has left; its dialog agent goes with them.
  void forgetObservers();

  // The one proxy of this caller's observer at `path`, to be added once more; null when it has too
  // many. An observer that is added several times is told several times, and counts as often.
  std::shared_ptr<HSURLBagObserver> observerAt(const std::string& path);
  // The same, which is then no longer held; null when there is none.
  std::shared_ptr<HSURLBagObserver> takeObserverAt(const std::string& path);
  // The same for its observers of accounts. Both kinds together are bounded.
  std::shared_ptr<HSAccountStoreObserver> accountObserverAt(const std::string& path);
  std::shared_ptr<HSAccountStoreObserver> takeAccountObserverAt(const std::string& path);
  std::size_t observerCount() const { return _observerCount; }

  // The dialog agent that the caller exports at `path`, in place of the one it had; false when
  // there are too many in all.
  bool setDialogAgentAt(const std::string& path);
  void removeDialogAgent();
  // Null when it has none.
  const RemoteDialogAgent* dialogAgent() const { return _dialogAgent.get(); }

 private:
  template <class Remote>
  struct Observed {
    std::shared_ptr<Remote> proxy;
    std::size_t timesAdded = 0;
  };
  template <class Remote>
  using ObserversByPath = std::unordered_map<std::string, Observed<Remote>>;

  void _decide(const Refusal* refusal);
  template <class Remote>
  std::shared_ptr<Remote> _observerAt(const std::string& path, ObserversByPath<Remote>& observers);
  template <class Remote>
  std::shared_ptr<Remote> _take(const std::string& path, ObserversByPath<Remote>& observers);

  std::shared_ptr<BusConnection> _bus;
  std::string _uniqueName;
  bool _isUndecided = true;
  std::shared_ptr<CallCounts> _counts = std::make_shared<CallCounts>();
  std::vector<KeptCall> _kept;
  XPCConnection _connection;
  std::shared_ptr<HSAccountService> _service;
  Refusal _refusal{};
  ObserversByPath<RemoteURLBagObserver> _observers;
  ObserversByPath<RemoteAccountStoreObserver> _accountObservers;
  std::size_t _observerCount = 0;
  std::shared_ptr<RemoteDialogAgent> _dialogAgent;
};

}  // namespace tallow
