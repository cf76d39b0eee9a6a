#include "platform/XPC/PendingReply.h"

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

PendingReplyBase::PendingReplyBase(std::shared_ptr<BusConnection> connection,
                                   std::shared_ptr<CallCounts> counts, std::size_t bytes)
    : _connection(std::move(connection)), _counts(std::move(counts)), _bytes(bytes) {
  _counts->waiting.fetch_add(1, std::memory_order_relaxed);
  _counts->waitingBytes.fetch_add(_bytes, std::memory_order_relaxed);
  CallCounts::totalWaitingBytes.fetch_add(_bytes, std::memory_order_relaxed);
}

bool PendingReplyBase::claim() {
  if (_claimed.exchange(true, std::memory_order_relaxed)) return false;
  _counts->waiting.fetch_sub(1, std::memory_order_relaxed);
  _counts->waitingBytes.fetch_sub(_bytes, std::memory_order_relaxed);
  CallCounts::totalWaitingBytes.fetch_sub(_bytes, std::memory_order_relaxed);
  return true;
}

void PendingReplyBase::logDrop() {
  logLevel(2, "PendingReply: a call is not answered, since its caller does not read its answers");
}

void PendingReplyBase::logFailure(const sdbus::Error& error) {
  logLevel(2, "PendingReply: cannot answer a call: %@", error.getMessage());
}

}  // namespace tallow
