#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Sends the client elsewhere: "/redirect?to=URL" there, "/redirect/loop" to itself without an end,
// "/redirect/chain?left=N" through N more redirects to a page. No settings of its own.
class RedirectEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
