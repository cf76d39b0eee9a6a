#pragma once

#include <memory>

#include "platform/VendBase/HSAccountStoreObserver.h"
#include "platform/XPC/RemoteObserver.h"

namespace tallow {

// A caller's com.vantor.HSAccountStoreObserver. Any thread.
class RemoteAccountStoreObserver final : public RemoteObserver<HSAccountStoreObserver> {
 public:
  using RemoteObserver::RemoteObserver;

  void primaryAccountDidChange(const std::shared_ptr<HSStoreAccount>& account) override;
};

}  // namespace tallow
