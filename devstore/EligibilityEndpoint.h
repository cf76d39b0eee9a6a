#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

// Says, as JSON, whether the account may use the subscription service. No settings of its own:
// stage "text" for another answer.
class EligibilityEndpoint final : public Endpoint {
 public:
  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;
};

}  // namespace tallow::devstore
