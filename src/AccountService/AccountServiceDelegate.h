#pragma once

#include "platform/VendBase/HSServiceDelegate.h"

namespace tallow {

// The account service's listener delegate: every accepted connection gets an
// AccountServiceInterface. Owned by the host for the life of the process.
class AccountServiceDelegate final : public HSServiceDelegate {
 public:
  static constexpr const char* kClassName = "AccountServiceDelegate";

  using HSServiceDelegate::HSServiceDelegate;

  ClientInterfaceClass clientInterfaceClass() const override;
};

// Runs the service: sandbox, listener, main run loop. Takes main's arguments; the single argument
// "daemon" selects the system-wide instance, anything else the per-user one. The result is the
// process's exit status; in normal operation it never returns.
int runAccountService(int argc, const char* const* argv);

}  // namespace tallow
