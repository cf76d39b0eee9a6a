#pragma once

#include <memory>
#include <string_view>

#include "platform/Base/Value.h"

namespace tallow {

// The account of a cloud, as far as somebody tells about it.
class QKAccount {
 public:
  virtual ~QKAccount() = default;
  // Nil for a property that the account does not have.
  virtual Value property(std::string_view name) const = 0;
};

// Which cloud account is logged in on this machine. As it stands, the preferences tell: under
// "LoggedInAccount" in the domain com.vantor.QelAccounts, of the user or of an administrator, the
// account's properties as a dictionary. Replaceable by whatever keeps cloud accounts. Any thread.
class QelAccounts {
 public:
  virtual ~QelAccounts() = default;
  static QelAccounts& shared();

  // Null when nobody is logged in.
  virtual std::shared_ptr<const QKAccount> loggedInAccount() = 0;
};

inline constexpr const char* kQKPropertyAccountDSID = "AccountDSID";

inline std::shared_ptr<const QKAccount> QKCopyLoggedInAccount() {
  return QelAccounts::shared().loggedInAccount();
}
inline Value QKAccountCopyProperty(const QKAccount& account, std::string_view property) {
  return account.property(property);
}

}  // namespace tallow
