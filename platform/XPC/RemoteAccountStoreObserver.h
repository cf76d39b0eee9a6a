#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "platform/VendBase/HSAccountStoreObserver.h"
#include "platform/XPC/BusConnection.h"
#include "platform/XPC/PendingReply.h"

namespace tallow {

// The live proxy of a com.vantor.HSAccountStoreObserver that a caller exports. Sends without
// waiting and asks for no reply; says nothing any more once its caller has left, nor to one that
// leaves what it is sent unread: it counts among its answers. Any thread.
class RemoteAccountStoreObserver final : public HSAccountStoreObserver {
 public:
  RemoteAccountStoreObserver(std::shared_ptr<BusConnection> connection,
                             const std::string& uniqueName, const std::string& path,
                             std::shared_ptr<CallCounts> counts);
  ~RemoteAccountStoreObserver() override;

  void primaryAccountDidChange(const std::shared_ptr<HSStoreAccount>& account) override;
  void forget() { _isForgotten = true; }

 private:
  class Proxy;
  std::shared_ptr<BusConnection> _connection;
  std::unique_ptr<Proxy> _proxy;
  const std::shared_ptr<CallCounts> _counts;
  std::atomic<bool> _isForgotten{false};
};

}  // namespace tallow
