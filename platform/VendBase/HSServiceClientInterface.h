#pragma once

#include <memory>

#include "platform/Concurrency/SerialQueue.h"
#include "platform/VendBase/HSAccountService.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// Base of the per-connection interface: the only object that a caller can reach. Supplies the
// caller's store client and the connection's serial request queue. One lives per caller; it is made
// at the caller's first call and dropped when the caller leaves the bus.
class HSServiceClientInterface : public HSAccountService,
                                 public std::enable_shared_from_this<HSServiceClientInterface> {
 public:
  // Null for a caller that has no store client of its own.
  const std::shared_ptr<const HSStoreClient>& storeClient() const { return _storeClient; }
  SerialQueue& requestQueue() const { return _requestQueue; }

 protected:
  explicit HSServiceClientInterface(std::shared_ptr<const HSStoreClient> storeClient);

 private:
  std::shared_ptr<const HSStoreClient> _storeClient;
  mutable SerialQueue _requestQueue;
};

}  // namespace tallow
