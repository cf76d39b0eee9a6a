#include "platform/XPC/PendingReply.h"

#include "platform/VendBase/VBLogManager.h"

namespace tallow {

PendingReplyBase::PendingReplyBase(std::shared_ptr<BusConnection> connection,
                                   std::shared_ptr<WaitingCalls> waiting, std::size_t bytes)
    : _connection(std::move(connection)), _waiting(std::move(waiting)), _bytes(bytes) {
  _waiting->count.fetch_add(1, std::memory_order_relaxed);
  _waiting->bytes.fetch_add(_bytes, std::memory_order_relaxed);
}

bool PendingReplyBase::claim() {
  if (_claimed.exchange(true, std::memory_order_relaxed)) return false;
  _waiting->count.fetch_sub(1, std::memory_order_relaxed);
  _waiting->bytes.fetch_sub(_bytes, std::memory_order_relaxed);
  return true;
}

void PendingReplyBase::logFailure(const sdbus::Error& error) {
  logLevel(2, "PendingReply: cannot answer a call: %@", error.getMessage());
}

}  // namespace tallow
