#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Base/Value.h"

namespace tallow {

// Why somebody is asked to sign in, and what may be shown to them: goes with a sign-in request to
// the transaction service. A plain value; travels as the dictionary below, in which nil fields are
// left out and wrongly typed ones are read as nil.
struct HSAuthenticationContext {
  HSAuthenticationContext() = default;
  static HSAuthenticationContext initWithDictionary(const Dictionary& dictionary);
  Dictionary dictionaryRepresentation() const;

  // What the sign-in is for, by the store's own numbers; 0 when a person simply signs in.
  void setAuthenticationReason(std::int64_t reason) { authenticationReason = reason; }

  std::int64_t authenticationReason = 0;  // "reason"
  std::optional<std::uint64_t> dsID;      // "dsid": only this account will do
  std::optional<std::string> identifier;  // "identifier": the account name to offer
  std::optional<std::string> title;       // "title" and "message": the store's own words
  std::optional<std::string> message;
};

}  // namespace tallow
