#pragma once

#include <memory>

#include "platform/VendBase/HSStoreAccount.h"

namespace tallow {

// Wants to hear when another account has become the primary one. Usually a live proxy of an object
// that a client exports: then the call is sent without waiting and never blocks. Compared by
// identity: the transport hands out one proxy per caller and object path. Called on any thread.
class HSAccountStoreObserver {
 public:
  virtual ~HSAccountStoreObserver() = default;
  // Null when nobody is signed in any more.
  virtual void primaryAccountDidChange(const std::shared_ptr<HSStoreAccount>& account) = 0;
};

}  // namespace tallow
