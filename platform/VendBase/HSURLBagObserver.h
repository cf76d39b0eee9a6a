#pragma once

#include <optional>

#include "platform/Base/Error.h"

namespace tallow {

// Wants to hear when a URL bag has been loaded, or failed to load. Usually a live proxy of an
// object that a client exports: then the call is sent without waiting and never blocks. Compared by
// identity: the transport hands out one proxy per caller and object path. Called on any thread.
class HSURLBagObserver {
 public:
  virtual ~HSURLBagObserver() = default;
  virtual void urlBagDidUpdateWithSuccess(bool success, const std::optional<Error>& error) = 0;
};

}  // namespace tallow
