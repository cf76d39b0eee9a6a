#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Answers for the stand-ins of the service's peers on the bus (Peer.h), which hand every call that
// they get to the store: so calls of peers are listed and staged like requests. The body is the
// call's arguments, the answer its results; what is no success fails the call. The push agent's
// token is made from the environment's name.
class PeerEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
