#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Base/Data.h"
#include "platform/VendBase/HSOperation.h"

namespace tallow {

// Provisions this machine for a DSID, as a store has ordered: gives the machine-identity library
// what the store sent, posts what it makes of that, and gives it the store's answer. The library's
// session is ended whatever becomes of it. No retry: the next order starts afresh.
//
// Errors: "OrvErrorDomain" with the library's status; the store's own ("failureType") and those of
// the request in kHSErrorDomain. Run by the OrvController on its queue, synchronously.
class OrvProvisioningOperation final : public HSOperation {
 public:
  static constexpr const char* kClassName = "OrvProvisioningOperation";

  OrvProvisioningOperation(std::optional<Data> initWithData, std::optional<std::uint64_t> dsID,
                           std::shared_ptr<const HSStoreClient> storeClient);

 protected:
  void run() override;

 private:
  // The exchange with the store, once the library has begun.
  void exchange(std::uint32_t session, const Dictionary& body);
  void fail(std::optional<Error> error);

  const std::optional<Data> _data;
  const std::optional<std::uint64_t> _dsID;
};

}  // namespace tallow
