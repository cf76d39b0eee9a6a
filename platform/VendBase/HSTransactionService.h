#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/Base/Error.h"
#include "platform/VendBase/HSAuthenticationContext.h"

namespace tallow {

// Asks a person who they are, as one client sees it: shows a sign-in, sends what was entered to the
// store, hands the store's answer in with addAccountWithAuthenticationResponse, and only then
// replies. Reached through HSServiceProxy; on the bus it is the interface
// com.vantor.HSTransactionService. Any thread may call.
class HSTransactionService {
 public:
  // Called once, on any thread, and must not block there. `dsID` is whose account it is, nil when
  // nobody has signed in; `error` says why not, and is nil when a person simply did not want to.
  // Where no such service runs or can be started, and when it goes away or does not answer in time,
  // the error is kHSErrorServiceUnavailable.
  using Reply = std::function<void(bool success, std::optional<std::uint64_t> dsID,
                                   std::optional<Error> error)>;

  virtual ~HSTransactionService() = default;
  // Returns at once. A person may take minutes.
  virtual void dsidByAuthenticatingWithContext(HSAuthenticationContext context, Reply reply) = 0;
};

}  // namespace tallow
