#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/XPC/Caller.h"
#include "platform/XPC/CallerIdentification.h"
#include "platform/XPC/UnreadAnswers.h"
#include "platform/XPC/XPCListener.h"

namespace tallow {

// The callers of the service, by unique name. A caller is entered at its first call and leaves when
// its name leaves the bus. Finds out who it is beside the reading of the bus, so that one slow
// answer holds up nobody else. Owned by the listener; reading thread only.
class CallerTable {
 public:
  static constexpr const char* kClassName = "CallerTable";  // in log lines

  // One that has left counts until its calls have been answered.
  static constexpr std::size_t kMaxCallersPerUser = 256;
  // Of all users together: each may hold a thread of the WorkerPool, which has twice as many.
  static constexpr std::size_t kMaxCallers = 512;
  // Callers of whom not even the user is known yet.
  static constexpr std::size_t kMaxUnknownCallers = 1024;
  // After this much in answers the bus is asked whether the caller reads them; one that has left
  // more unread has its calls refused until it has read.
  static constexpr std::size_t kAnsweredBytesBeforeAsking = std::size_t{8} << 20;
  static constexpr std::size_t kMaxUnreadBytes = std::size_t{16} << 20;
  // The same when all callers together may have left much unread: then everybody is asked about.
  static constexpr std::size_t kBytesBeforeAskingWhenMuch = std::size_t{1} << 20;
  static constexpr std::size_t kMaxUnreadBytesWhenMuch = std::size_t{4} << 20;
  // When more than the first waits in all, one user's connections may hold the second, and so may
  // all together of whom the user is not known yet.
  static constexpr std::size_t kMuchWaitingBytes = std::size_t{64} << 20;
  static constexpr std::size_t kMaxWaitingBytesPerUser = std::size_t{64} << 20;

  static constexpr const char* kAccessDenied = "org.freedesktop.DBus.Error.AccessDenied";
  static constexpr const char* kLimitsExceeded = bus::kLimitsExceeded;
  static constexpr const char* kInvalidArgs = "org.freedesktop.DBus.Error.InvalidArgs";
  static constexpr const char* kNoSuchClient = "com.vantor.Error.NoSuchClient";

  // `ownUserOnly`: callers of other users are refused always.
  CallerTable(std::shared_ptr<BusConnection> connection, XPCListenerDelegate& delegate,
              bool ownUserOnly);
  ~CallerTable();
  CallerTable(const CallerTable&) = delete;
  CallerTable& operator=(const CallerTable&) = delete;

  // Hands the call that is being handled to its caller's object: `invoke(Caller&,
  // std::shared_ptr<PendingReply<Results...>>)` runs at once where it is known who calls, else as
  // soon as it is. Calls that are refused (who calls, what it already holds) are answered here.
  // `bytes` is what the arguments hold.
  template <class... Results, class Invoke>
  void deliver(sd_bus_message* call, sdbus::Result<Results...>&& result, std::size_t bytes,
               Invoke&& invoke, std::uint32_t maxWaiting = Caller::kMaxWaitingCalls);

  // Makes the caller act as another client from its next call on. `done` is told the name and text
  // of an error, or nullptr. As the client that it is anybody may act; as another, whom the
  // descriptor lets. On the system bus that would be for other users too: there it has to be root,
  // or the transaction service, while it is asked to sign somebody in for that client; then it is
  // itself again.
  using ActedAs = std::function<void(const char* errorName, const std::string& errorText)>;
  void actAs(Caller& caller, std::string identifier, ActedAs done);

  // Waits until what has been sent so far is with the bus: calls are not taken faster than the bus
  // takes their answers. In the handler of `call`.
  static void writeOut(sd_bus_message* call);

  // What Describe() says of the callers to a user: all to root, else the user's own.
  Array describeTo(std::uint32_t uid) const;
  std::size_t waitingCalls() const;
  std::size_t count() const { return _callers.size(); }
  std::uint64_t calls() const { return _calls; }

 private:
  struct Entry {
    std::shared_ptr<Caller> caller;
    std::optional<std::uint32_t> uid;  // once known
    // Who it is itself, while it acts for another client as the transaction service that is asked.
    std::optional<XPCConnection> own;
  };

  // Null when there are too many.
  Caller* _callerNamed(const std::string& sender);
  Caller* _addCaller(const std::string& sender);
  // Whether the caller's user may make the service hold so much more in arguments.
  bool _mayHold(const std::string& sender, std::size_t bytes) const;
  // May leave the caller undecided, and any other.
  void _makeSureThatItReads(Caller& caller);
  void _makeSureThatAllRead();
  void _gotUnreadBytes(const std::string& uniqueName, std::optional<std::uint64_t> unread);
  void _identified(const std::string& uniqueName, const std::weak_ptr<Caller>& who,
                   CallerIdentification::Outcome outcome);
  void _callerHasLeft(const std::string& uniqueName);
  bool _count(Entry& entry, std::uint32_t uid);
  void _accept(Caller& caller, XPCConnection connection);
  // Both of a suspended caller, which may have left.
  void _become(const std::string& uniqueName, std::string identifier, bool isAsked, ActedAs done);
  void _stayAs(const std::string& uniqueName, const char* errorName, const std::string& errorText,
               const ActedAs& done);
  // Those who are no longer asked to sign in whom they act for.
  void _takeBack();
  // How many connections have left, of the user or of all, whose calls are still being answered.
  std::size_t _countOfThoseWhoHaveLeft(std::optional<std::uint32_t> uid = std::nullopt) const;
  template <class... Results>
  static void _refuse(Caller& caller, const sdbus::Result<Results...>& result, const char* name,
                      const std::string& text);

  std::shared_ptr<BusConnection> _connection;
  XPCListenerDelegate& _delegate;
  const bool _ownUserOnly;
  CallerIdentification _identification;
  UnreadAnswers _unreadAnswers;
  std::size_t _unreadQuestions = 0;  // that the bus has not answered yet
  std::unordered_map<std::string, Entry> _callers;
  // Of which user's connections that have left calls are still being answered.
  std::vector<std::pair<std::uint32_t, std::weak_ptr<CallCounts>>> _leftBehind;
  std::unordered_map<std::uint32_t, std::size_t> _callersOfUser;
  std::size_t _unknownCallers = 0;
  std::uint64_t _calls = 0;
  sdbus::Slot _nameOwnerChanged;
};

template <class... Results, class Invoke>
void CallerTable::deliver(sd_bus_message* call, sdbus::Result<Results...>&& result,
                          std::size_t bytes, Invoke&& invoke, std::uint32_t maxWaiting) {
  ++_calls;
  writeOut(call);
  Caller* const caller = _callerNamed(sd_bus_message_get_sender(call));
  if (caller == nullptr) {
    result.returnError(bus::makeError(kLimitsExceeded, "too many connections"));
    return;
  }
  if (CallCounts::isMuchUnread() && _unreadQuestions == 0) _makeSureThatAllRead();
  if (!caller->isUndecided()) _makeSureThatItReads(*caller);
  if (!caller->isUndecided() && caller->refusal() != nullptr) {
    _refuse(*caller, result, caller->refusal()->name, caller->refusal()->text);
  } else if (!caller->canWaitFor(bytes, maxWaiting)) {
    _refuse(*caller, result, kLimitsExceeded, "too many calls of this connection wait");
  } else if (!_mayHold(caller->uniqueName(), bytes)) {
    _refuse(*caller, result, kLimitsExceeded, "too much of this user waits");
  } else {
    auto reply = std::make_shared<PendingReply<Results...>>(_connection, caller->counts(), bytes,
                                                            std::move(result));
    if (!caller->isUndecided()) {
      invoke(*caller, std::move(reply));
      return;
    }
    caller->keep([invoke = std::forward<Invoke>(invoke), reply](
                     Caller& decided, const Caller::Refusal* refusal) mutable {
      if (refusal == nullptr) {
        invoke(decided, std::move(reply));
      } else {
        reply->fail(refusal->name, refusal->text);
      }
    });
  }
}

template <class... Results>
void CallerTable::_refuse(Caller& caller, const sdbus::Result<Results...>& result, const char* name,
                          const std::string& text) {
  if (!caller.counts()->mayBeAnswered()) return;
  caller.counts()->addAnswer(text.size());
  result.returnError(bus::makeError(name, text));
}

}  // namespace tallow
