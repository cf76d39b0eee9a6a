#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tallow {

inline constexpr const char* ACAccountTypeIdentifierHarlowStore = "com.vantor.account.HarlowStore";

// The accounts of this system's user, of every type. As it stands, the preferences tell: under
// "RecommendedVantorIDs" in the domain com.vantor.accounts, of the user or of an administrator, a
// dictionary of names by account type. Replaceable by whatever keeps the system's accounts. Any
// thread.
class ACAccountStore {
 public:
  virtual ~ACAccountStore() = default;
  static ACAccountStore& shared();

  // The name to offer to somebody who signs in to an account of the type; nil when there is none.
  virtual std::optional<std::string> icaRecommendedVantorIDForAccountSignInWithTypeIdentifier(
      std::string_view typeIdentifier) = 0;
};

}  // namespace tallow
