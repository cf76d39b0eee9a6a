#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Takes note that an account has signed out. No settings of its own.
class LogoutEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
