#include "platform/XPC/PeerBacklog.h"

#include <algorithm>
#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/PeerConnection.h"
#include "platform/XPC/XPCTransaction.h"

namespace tallow {

bool PeerBacklog::add(Call call, std::size_t bytes, Dropped dropped) {
  Waiting added{std::move(call), bytes, std::move(dropped), 0};
  {
    const std::lock_guard lock(_lock);
    added.number = ++_lastNumber;
    if (!_waiting.empty() || !hasRoomFor(bytes)) {
      if (_waiting.size() == kMaxWaiting || _waitingBytes + bytes > kMaxWaitingBytes) {
        logLevel(1, "%@: The %s has too much to do already; a call is dropped",
                 PeerBacklog::kClassName, _what);
        return false;
      }
      _waiting.push_back(std::move(added));
      _waitingBytes += bytes;
      return true;
    }
    begin(added);
  }
  make(std::make_shared<Waiting>(std::move(added)));
  return true;
}

// With the lock held, as what follows.
bool PeerBacklog::hasRoomFor(std::size_t bytes) const {
  if (_untilRoom) return false;
  return _unanswered == 0 ||
         (_unanswered < kMaxUnanswered && _unansweredBytes + bytes <= kMaxUnansweredBytes);
}

void PeerBacklog::begin(const Waiting& call) {
  ++_unanswered;
  _unansweredBytes += call.bytes;
  if (!_transaction) _transaction = XPCTransaction::work();
}

// Without the lock.
void PeerBacklog::make(std::shared_ptr<Waiting> call) {
  const Call& work = call->call;
  work([this, call](const std::optional<Error>& error) { return answered(call, error); });
}

bool PeerBacklog::answered(std::shared_ptr<Waiting> call, const std::optional<Error>& error) {
  const bool isRefused = error && PeerConnection::wasRefusedByBus(*error);
  std::list<Waiting> dropped;
  {
    const std::lock_guard lock(_lock);
    --_unanswered;
    _unansweredBytes -= call->bytes;
    if (isRefused) {
      _waitingBytes += call->bytes;
      const auto later = [&](const Waiting& each) { return each.number > call->number; };
      _waiting.insert(std::find_if(_waiting.begin(), _waiting.end(), later), std::move(*call));
      waitForRoom();
    } else if (error && PeerConnection::cannotBeReached(*error)) {
      dropped.swap(_waiting);
      _waitingBytes = 0;
    }
    if (_unanswered == 0 && _waiting.empty()) _transaction.reset();
  }
  if (!dropped.empty())
    logLevel(1, "%@: The %s cannot be reached; %lu calls that waited are dropped",
             PeerBacklog::kClassName, _what, dropped.size());
  for (const Waiting& each : dropped)
    if (each.dropped) each.dropped(*error);
  if (!isRefused) makeNext();
  return !isRefused;
}

// With the lock held.
void PeerBacklog::waitForRoom() {
  if (_untilRoom) return;
  logLevel(2, "%@: The bus takes no more calls for now; %lu of the %s wait",
           PeerBacklog::kClassName, _waiting.size(), _what);
  _untilRoom = RunLoop::main().addTimer(kSecondsBetweenTries, [this] {
    {
      const std::lock_guard lock(_lock);
      _untilRoom.reset();
    }
    makeNext();
  });
}

void PeerBacklog::makeNext() {
  for (;;) {
    std::shared_ptr<Waiting> next;
    {
      const std::lock_guard lock(_lock);
      if (_waiting.empty() || !hasRoomFor(_waiting.front().bytes)) return;
      next = std::make_shared<Waiting>(std::move(_waiting.front()));
      _waitingBytes -= next->bytes;
      _waiting.pop_front();
      begin(*next);
    }
    make(std::move(next));
  }
}

}  // namespace tallow
