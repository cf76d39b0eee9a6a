#include "platform/XPC/PeerBacklog.h"

#include <utility>

#include "platform/VendBase/VBLogManager.h"
#include "platform/XPC/PeerConnection.h"
#include "platform/XPC/XPCTransaction.h"

namespace tallow {

bool PeerBacklog::add(Call call, std::size_t bytes, Dropped dropped) {
  {
    const std::lock_guard lock(_lock);
    if (_unanswered == kMaxUnanswered) {
      if (_waiting.size() == kMaxWaiting || _waitingBytes + bytes > kMaxWaitingBytes) {
        logLevel(1, "%@: The %s has too much to do already; a call is dropped",
                 PeerBacklog::kClassName, _what);
        return false;
      }
      _waiting.push_back({std::move(call), bytes, std::move(dropped)});
      _waitingBytes += bytes;
      return true;
    }
    ++_unanswered;
    if (!_transaction) _transaction = XPCTransaction::hold();
  }
  make(call);
  return true;
}

void PeerBacklog::make(const Call& call) {
  call([this](const std::optional<Error>& error) { answered(error); });
}

void PeerBacklog::answered(const std::optional<Error>& error) {
  std::deque<Waiting> dropped;
  Call next;
  {
    const std::lock_guard lock(_lock);
    if (error && PeerConnection::cannotBeReached(*error)) {
      dropped.swap(_waiting);
      _waitingBytes = 0;
    }
    if (_waiting.empty()) {
      if (--_unanswered == 0) _transaction.reset();
    } else {
      next = std::move(_waiting.front().call);
      _waitingBytes -= _waiting.front().bytes;
      _waiting.pop_front();
    }
  }
  if (!dropped.empty())
    logLevel(1, "%@: The %s cannot be reached; %lu calls that waited are dropped",
             PeerBacklog::kClassName, _what, dropped.size());
  for (const Waiting& each : dropped)
    if (each.dropped) each.dropped(*error);
  if (next) make(next);
}

}  // namespace tallow
