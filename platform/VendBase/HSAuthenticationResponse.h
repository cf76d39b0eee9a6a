#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/Base/Value.h"

namespace tallow {

// What a store answered to somebody who proved who they are: whose account it is and the token that
// stands for the password from now on. Made from the store's own property list, which is what
// travels; this class only reads it. Keys, each of which may be absent or of the wrong type and is
// then nil:
//
//   "dsPersonId", else "dsid"   the account's DSID, a number or its decimal text
//   "identifier"                the account name
//   "token"                     the token, a string that is not empty
//   "storefront"                the account's storefront identifier
//   "creditDisplay"             the account's credit, for people
//   "kind"                      the account's kind, an integer
//
// A text for the account's record that is longer than kMaxTextBytes counts as absent, too: every
// account is kept, and written with all the others at every change.
//
// A plain value; the token is in it, so it is never logged or sent to other callers.
class HSAuthenticationResponse {
 public:
  // Of one text of an account's record. A list takes up to twice as much for text that is not all
  // ASCII, and has to hold all accounts that a store may know.
  static constexpr std::size_t kMaxTextBytes = 2048;

  HSAuthenticationResponse() = default;
  explicit HSAuthenticationResponse(Dictionary responseDictionary)
      : _responseDictionary(std::move(responseDictionary)) {}

  const Dictionary& responseDictionary() const { return _responseDictionary; }

  std::optional<std::uint64_t> dsID() const;
  std::optional<std::string> identifier() const;
  std::optional<std::string> token() const;
  std::optional<std::string> storeFront() const;
  std::optional<std::string> creditString() const;
  std::optional<std::int64_t> kind() const;

  // Whether a text is left out, or a token is there, for being too long.
  bool hasTooLongText() const;

 private:
  static constexpr const char* kIdentifierKey = "identifier";
  static constexpr const char* kTokenKey = "token";
  static constexpr const char* kStoreFrontKey = "storefront";

  // Nil when it is too long for a record.
  std::optional<std::string> recordText(std::string_view key) const;
  std::optional<std::string> string(std::string_view key) const;

  Dictionary _responseDictionary;
};

}  // namespace tallow
