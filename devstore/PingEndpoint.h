#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Answers the client-ID ping: a cookie and for how long no further ping is wanted. No settings of
// its own; a storefront comes only when staged, since a new one makes clients load their bags
// again.
class PingEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
