#include "platform/XPC/CallerTable.h"

#include <algorithm>
#include <vector>

#include "platform/Base/Format.h"
#include "platform/Concurrency/WorkerPool.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/RecentFailures.h"
#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/RemoteTransactionService.h"

namespace tallow {

namespace {

// One rule for all callers: a rule for each would cost two calls of the bus daemon per caller, make
// it try every one of them at every name that comes or goes, and it allows a connection only a few
// hundred.
constexpr const char* kNameHasLeft =
    "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
    "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg2=''";

// Tells programs apart, and not the runs or connections of one: who tries again and again is one
// failure.
std::string failureText(const CallerIdentification::Outcome& outcome) {
  const ProcessIdentity& process = outcome.process;
  const std::string& who = process.executable.empty() ? process.doubt : process.executable;
  if (who.empty()) return outcome.refusal;
  return format("No client descriptor names %s of user %u", who, *outcome.uid);
}

}  // namespace

CallerTable::CallerTable(std::shared_ptr<BusConnection> connection, XPCListenerDelegate& delegate,
                         bool ownUserOnly)
    : _connection(std::move(connection)),
      _delegate(delegate),
      _ownUserOnly(ownUserOnly),
      _identification(_connection, ownUserOnly),
      _unreadAnswers(_connection->connection()),
      _nameOwnerChanged(
          bus::addMatch(_connection->connection(), kNameHasLeft, [this](auto&& signal) {
            std::string name;
            signal >> name;
            _callerHasLeft(name);
          })) {
  if (_ownUserOnly) return;
  RemoteTransactionService::setQuestionEndedHandler(
      [this, bus = _connection] { bus->post([this] { _takeBack(); }); });
}

CallerTable::~CallerTable() {
  if (!_ownUserOnly) RemoteTransactionService::setQuestionEndedHandler(nullptr);
}

void CallerTable::writeOut(sd_bus_message* call) {
  sd_bus* const connection = sd_bus_message_get_bus(call);
  std::uint64_t queued = 0;
  if (sd_bus_get_n_queued_write(connection, &queued) >= 0 && queued > 0)
    sd_bus_flush(connection);  // a failure shows when the next message is read
}

Caller* CallerTable::_callerNamed(const std::string& sender) {
  const auto found = _callers.find(sender);
  return found != _callers.end() ? found->second.caller.get() : _addCaller(sender);
}

Caller* CallerTable::_addCaller(const std::string& sender) {
  if (_unknownCallers >= kMaxUnknownCallers) return nullptr;
  ++_unknownCallers;
  const auto caller = std::make_shared<Caller>(_connection, sender);
  _callers.emplace(sender, Entry{caller, std::nullopt, std::nullopt});
  _identification.identify(
      sender, [this, sender, who = std::weak_ptr(caller)](CallerIdentification::Outcome outcome) {
        _identified(sender, who, std::move(outcome));
      });
  return caller.get();
}

void CallerTable::_makeSureThatAllRead() {
  for (const auto& [name, entry] : _callers)
    if (!entry.caller->isUndecided()) _makeSureThatItReads(*entry.caller);
}

void CallerTable::_makeSureThatItReads(Caller& caller) {
  const std::size_t enough =
      CallCounts::isMuchUnread() ? kBytesBeforeAskingWhenMuch : kAnsweredBytesBeforeAsking;
  if (caller.counts()->answeredBytes() < enough) return;
  // Where nobody can tell what is unread, a caller that goes on calling is taken to have read.
  if (!_unreadAnswers.canAsk()) {
    caller.counts()->setAnsweredBytes(0);
    return;
  }
  caller.suspend();
  ++_unreadQuestions;
  _unreadAnswers.ask(caller.uniqueName(),
                     [this, uniqueName = caller.uniqueName()](std::optional<std::uint64_t> unread) {
                       _gotUnreadBytes(uniqueName, unread);
                     });
}

void CallerTable::_gotUnreadBytes(const std::string& uniqueName,
                                  std::optional<std::uint64_t> unread) {
  --_unreadQuestions;
  const auto found = _callers.find(uniqueName);
  if (found == _callers.end()) return;
  Caller& caller = *found->second.caller;
  CallCounts& counts = *caller.counts();
  // Of what the others have left unread, without what is known now.
  counts.setAnsweredBytes(0);
  const std::size_t most = CallCounts::isMuchUnread() ? kMaxUnreadBytesWhenMuch : kMaxUnreadBytes;
  if (unread.value_or(0) <= most) {
    counts.setAnsweredBytes(unread.value_or(0));
    caller.resume();
    _takeBack();
    return;
  }
  logLevel(2, "%@: %@ leaves %lu bytes of answers unread", CallerTable::kClassName, uniqueName,
           *unread);
  // Asked again at its next call.
  counts.setAnsweredBytes(std::max<std::size_t>(*unread, kAnsweredBytesBeforeAsking));
  caller.turnAway({kLimitsExceeded, "This connection does not read its answers."});
  _takeBack();
}

void CallerTable::_identified(const std::string& uniqueName, const std::weak_ptr<Caller>& who,
                              CallerIdentification::Outcome outcome) {
  const auto caller = who.lock();
  const auto found = _callers.find(uniqueName);
  if (!caller || found == _callers.end() || found->second.caller != caller) return;
  if (!outcome.uid) {
    _callerHasLeft(uniqueName);
    return;
  }
  if (outcome.mayPass) {
    // Not kept: its next call is looked at afresh.
    --_unknownCallers;
    _callers.erase(found);
    logLevel(2, "%@: refusing a call of %@: %@", CallerTable::kClassName, uniqueName,
             outcome.refusal);
    caller->refuse({kLimitsExceeded, std::move(outcome.refusal)});
  } else if (!_count(found->second, *outcome.uid)) {
    _callers.erase(found);  // not kept either
    caller->refuse({kLimitsExceeded, "This user has too many connections to the service."});
  } else if (!outcome.descriptor) {
    logLevel(3, "%@: refusing %@: %@", CallerTable::kClassName, uniqueName, outcome.refusal);
    RecentFailures::shared().note(makeError(kAccessDenied, -1, failureText(outcome)));
    caller->refuse({kAccessDenied, std::move(outcome.refusal)});
  } else {
    logLevel(3, "%@: %@ is %@, known by %@", CallerTable::kClassName, uniqueName,
             description(outcome.process), outcome.descriptor->fileName);
    _accept(*caller, {uniqueName, *outcome.uid, outcome.process.pid, outcome.descriptor->client,
                      outcome.descriptor->mayActAsOthers, outcome.descriptor->mayShowDialogs});
  }
}

bool CallerTable::_count(Entry& entry, std::uint32_t uid) {
  --_unknownCallers;
  std::size_t& count = _callersOfUser[uid];
  // The entry itself is in the table.
  if (count + _countOfThoseWhoHaveLeft(uid) >= kMaxCallersPerUser ||
      _callers.size() - _unknownCallers + _countOfThoseWhoHaveLeft() > kMaxCallers) {
    if (count == 0) _callersOfUser.erase(uid);
    return false;
  }
  ++count;
  entry.uid = uid;
  return true;
}

std::size_t CallerTable::_countOfThoseWhoHaveLeft(std::optional<std::uint32_t> uid) const {
  return static_cast<std::size_t>(
      std::count_if(_leftBehind.begin(), _leftBehind.end(), [uid](const auto& each) {
        const auto counts = each.second.lock();
        return counts && counts->waiting > 0 && (!uid || each.first == *uid);
      }));
}

void CallerTable::_accept(Caller& caller, XPCConnection connection) {
  if (auto service = _delegate.listenerShouldAcceptNewConnection(connection)) {
    caller.accept(std::move(connection), std::move(service));
  } else {
    caller.refuse({kAccessDenied, "The service does not accept this connection."});
  }
}

void CallerTable::_callerHasLeft(const std::string& uniqueName) {
  const auto found = _callers.find(uniqueName);
  if (found == _callers.end()) return;
  const Entry entry = std::move(found->second);
  _callers.erase(found);
  if (!entry.uid) {
    --_unknownCallers;
  } else if (const auto count = _callersOfUser.find(*entry.uid); --count->second == 0) {
    _callersOfUser.erase(count);
  }
  entry.caller->forgetObservers();
  std::erase_if(_leftBehind, [](const auto& each) { return each.second.expired(); });
  if (entry.uid && entry.caller->counts()->waiting > 0)
    _leftBehind.emplace_back(*entry.uid, entry.caller->counts());
}

void CallerTable::actAs(Caller& caller, std::string identifier, ActedAs done) {
  const XPCConnection& who = caller.connection();
  const auto found = _callers.find(who.uniqueName);
  const bool isAsked = found != _callers.end() && found->second.own;
  const auto& client = isAsked ? found->second.own->storeClient : who.storeClient;
  const bool isItself = client && client->identifier == identifier;
  if (!isItself && !who.mayActAsOthers) {
    done(kAccessDenied,
         "This client may not act as others; see may-act-as-others in "
         "tallowd-clients.d(5).");
    return;
  }
  caller.suspend();
  if (isItself || _ownUserOnly || who.uid == 0) {
    _become(who.uniqueName, std::move(identifier), /*isAsked=*/false, std::move(done));
    return;
  }
  _identification.findProcess(
      RemoteTransactionService::kName,
      [this, uniqueName = who.uniqueName, pid = who.pid, identifier = std::move(identifier),
       done = std::move(done)](std::optional<std::uint32_t> transactionService) {
        if (transactionService == pid && RemoteTransactionService::isAskedFor(identifier)) {
          _become(uniqueName, identifier, /*isAsked=*/true, done);
        } else {
          _stayAs(uniqueName, kAccessDenied,
                  "On the system bus only root may act as another client, and a transaction "
                  "service for the client that it is asked to sign in.",
                  done);
        }
      });
}

void CallerTable::_become(const std::string& uniqueName, std::string identifier, bool isAsked,
                          ActedAs done) {
  WorkerPool::shared().async([this, connection = _connection, uniqueName, isAsked,
                              identifier = std::move(identifier), done = std::move(done)] {
    auto client = ClientDescriptors::shared().clientWithIdentifier(identifier);
    connection->post([this, uniqueName, identifier, isAsked, client = std::move(client), done] {
      if (!client) {
        _stayAs(uniqueName, kNoSuchClient,
                "No client descriptor has the identifier \"" + identifier + "\".", done);
        return;
      }
      const auto found = _callers.find(uniqueName);
      if (found == _callers.end()) return;
      Caller& waiting = *found->second.caller;
      auto& own = found->second.own;
      if (!isAsked) own.reset();
      if (isAsked && !own) own = waiting.connection();
      waiting.forgetObservers();
      XPCConnection as = waiting.connection();
      as.storeClient = client;
      done(nullptr, {});
      _accept(waiting, std::move(as));
      if (isAsked) _takeBack();  // it may have answered meanwhile
    });
  });
}

void CallerTable::_takeBack() {
  if (_ownUserOnly) return;
  for (auto& [name, entry] : _callers) {
    Caller& caller = *entry.caller;
    // About one that is undecided it is asked again when it has been decided.
    if (!entry.own || caller.isUndecided() || caller.refusal() != nullptr ||
        RemoteTransactionService::isAskedFor(std::string(caller.identifier())))
      continue;
    caller.forgetObservers();
    _accept(caller, *std::exchange(entry.own, std::nullopt));
  }
}

bool CallerTable::_mayHold(const std::string& sender, std::size_t bytes) const {
  if (CallCounts::totalWaitingBytes.load(std::memory_order_relaxed) + bytes <= kMuchWaitingBytes)
    return true;
  const auto found = _callers.find(sender);
  if (found == _callers.end()) return true;
  std::size_t held = bytes;
  for (const auto& [name, entry] : _callers)
    if (entry.uid == found->second.uid) held += entry.caller->counts()->waitingBytes;
  for (const auto& [uid, answering] : _leftBehind)
    if (const auto counts = answering.lock(); counts && uid == found->second.uid)
      held += counts->waitingBytes;
  return held <= kMaxWaitingBytesPerUser;
}

void CallerTable::_stayAs(const std::string& uniqueName, const char* errorName,
                          const std::string& errorText, const ActedAs& done) {
  const auto found = _callers.find(uniqueName);
  if (found == _callers.end()) return;
  done(errorName, errorText);
  found->second.caller->resume();
  _takeBack();
}

std::size_t CallerTable::waitingCalls() const {
  std::size_t count = 0;
  for (const auto& [name, entry] : _callers) count += entry.caller->counts()->waiting.load();
  return count;
}

Array CallerTable::describeTo(std::uint32_t uid) const {
  std::vector<Value> list;
  for (const auto& [name, entry] : _callers) {
    if (uid != 0 && entry.uid != uid) continue;
    const Caller& caller = *entry.caller;
    Dictionary line{{"name", name},
                    {"uid", entry.uid},
                    {"waitingCalls", caller.counts()->waiting.load()},
                    {"observers", caller.observerCount()},
                    {"showsDialogs", caller.dialogAgent() != nullptr},
                    {"refused", !caller.isUndecided() && caller.refusal() != nullptr}};
    if (caller.refusal() == nullptr) {
      line = line.setting("pid", caller.connection().pid);
      if (const auto& client = caller.connection().storeClient)
        line = line.setting("identifier", client->identifier);
    }
    list.emplace_back(std::move(line));
  }
  return Array(std::move(list));
}

}  // namespace tallow
