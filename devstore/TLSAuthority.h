#pragma once

#include "devstore/Identity.h"
#include "platform/Base/Result.h"

namespace tallow::devstore {

class StateDirectory;

// The certificate under which the store serves https as localhost, 127.0.0.1 and ::1, and the
// authority that has issued it, which clients are to trust. Both stay the same across restarts.
// Immutable.
class TLSAuthority {
 public:
  // Takes the keys that the folder holds; makes and keeps new ones where any is missing or expired.
  static Result<TLSAuthority> open(const StateDirectory& directory);

  Data authorityPEM() const { return _authority.certificatePEM(); }
  const Identity& server() const { return _server; }

 private:
  TLSAuthority(Identity authority, Identity server);

  Identity _authority, _server;
};

}  // namespace tallow::devstore
