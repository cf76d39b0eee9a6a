#pragma once

#include <cstdint>
#include <optional>

#include "platform/Base/Result.h"

namespace tallow::devstore {

class JSONReader;
struct ReceivedRequest;

// What the store orders a machine to do about its identity, in a response's headers. A plain value.
struct IdentityOrder {
  enum class Action { Reset, Provision, Synchronise };

  static constexpr std::uint64_t kAnonymous = UINT64_MAX;

  Action action = Action::Provision;
  std::uint64_t dsID = 0;  // 0: of an account that the machine does not know

  bool isAnonymous() const { return dsID == kAnonymous; }

  // Takes the key "identity" of an answer's staging; nullopt where there is none.
  static std::optional<IdentityOrder> read(JSONReader& reader);
  // The query parameters "order", "dsid" and "anonymous"; nullopt without the first, an error where
  // they are no order.
  static Result<std::optional<IdentityOrder>> ofQuery(const ReceivedRequest& request);
};

}  // namespace tallow::devstore
