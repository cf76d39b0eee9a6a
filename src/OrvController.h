#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/Base/Value.h"
#include "platform/VendBase/HSStoreClient.h"

namespace tallow {

// The process-wide source of machine-identity request headers. This machine has no identity to show
// yet: it hands out no headers and carries out no server action.
// Any thread may call.
class OrvController {
 public:
  static constexpr const char* kClassName = "OrvController";

  static OrvController& sharedController();

  // Headers that identify the machine without an account.
  Dictionary httpRequestHeaders();
  // Headers that identify the machine to an account. Nil for a nil DSID.
  std::optional<Dictionary> httpRequestHeadersForDSID(std::optional<std::uint64_t> dsID);
  // Reads a response's action headers. Returns at once.
  void processHTTPHeaders(const Dictionary& headers,
                          const std::shared_ptr<const HSStoreClient>& forStoreClient);
};

}  // namespace tallow
