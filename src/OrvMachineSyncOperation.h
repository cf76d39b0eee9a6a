#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "platform/Base/Data.h"
#include "platform/VendBase/HSOperation.h"

namespace tallow {

// Synchronises this machine with a store, as the store has ordered: gives the machine-identity
// library what the store sent, posts what it makes of that, and keeps the state that the answer
// brings, also when the answer states a failure. No retry.
//
// Errors: as of OrvProvisioningOperation. Run by the OrvController on its queue, synchronously; the
// state may be read from any thread.
class OrvMachineSyncOperation final : public HSOperation {
 public:
  static constexpr const char* kClassName = "OrvMachineSyncOperation";

  OrvMachineSyncOperation(std::optional<Data> initWithData, std::optional<std::uint64_t> dsID,
                          std::shared_ptr<const HSStoreClient> storeClient);

  std::optional<Data> syncState() const;
  void setSyncState(std::optional<Data> syncState);

 protected:
  void run() override;

 private:
  const std::optional<Data> _data;
  const std::optional<std::uint64_t> _dsID;
  mutable std::mutex _lock;
  std::optional<Data> _syncState;  // guarded by _lock
};

}  // namespace tallow
