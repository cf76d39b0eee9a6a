#pragma once

#include <optional>

#include "platform/VendBase/HSURLBagObserver.h"
#include "platform/XPC/RemoteObserver.h"

namespace tallow {

// A caller's com.vantor.HSURLBagObserver. Any thread.
class RemoteURLBagObserver final : public RemoteObserver<HSURLBagObserver> {
 public:
  using RemoteObserver::RemoteObserver;

  void urlBagDidUpdateWithSuccess(bool success, const std::optional<Error>& error) override;
};

}  // namespace tallow
