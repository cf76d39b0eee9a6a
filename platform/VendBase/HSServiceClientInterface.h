#pragma once

#include <memory>
#include <vector>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSAccountService.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

class HSOperation;

// Base of the per-connection interface: the only object that a caller can reach. Supplies the
// caller's store client and the connection's serial request queue. One lives per caller; it is made
// at the caller's first call and dropped when the caller leaves the bus or becomes another client:
// what it has under way and nobody waits for any more is then cancelled.
class HSServiceClientInterface : public HSAccountService,
                                 public std::enable_shared_from_this<HSServiceClientInterface> {
 public:
  // Null for a caller that has no store client of its own.
  const std::shared_ptr<const HSStoreClient>& storeClient() const { return _storeClient; }
  SerialQueue& requestQueue() const { return _requestQueue; }
  ~HSServiceClientInterface() override;

 protected:
  explicit HSServiceClientInterface(std::shared_ptr<const HSStoreClient> storeClient);

  // The operation is of use to this caller alone: cancelled when it leaves. In a block of the
  // request queue.
  void cancelWithCaller(const std::shared_ptr<HSOperation>& operation);

 private:
  std::shared_ptr<const HSStoreClient> _storeClient;
  mutable SerialQueue _requestQueue;
  std::vector<std::weak_ptr<HSOperation>> _operations;  // guarded by _requestQueue
};

}  // namespace tallow
