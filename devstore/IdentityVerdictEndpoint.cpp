#include "devstore/IdentityVerdictEndpoint.h"

#include "devstore/IdentityOrder.h"
#include "devstore/MachineRegistry.h"
#include "platform/PropertyList/JSON.h"

namespace tallow::devstore {

Answer IdentityVerdictEndpoint::answer(const ReceivedRequest& request, const Settings*,
                                       PropertyList::Format) {
  Answer answer = Answer::json(200, JSON::encode(_machines.verdict(request)) + "\n");
  if (const auto order = IdentityOrder::ofQuery(request)) _machines.order(*order, answer);
  return answer;
}

}  // namespace tallow::devstore
