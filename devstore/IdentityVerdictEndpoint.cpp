#include "devstore/IdentityVerdictEndpoint.h"

#include "devstore/IdentityOrder.h"
#include "devstore/MachineRegistry.h"
#include "platform/PropertyList/JSON.h"

namespace tallow::devstore {

Answer IdentityVerdictEndpoint::answer(const ReceivedRequest& request, const Settings*,
                                       PropertyList::Format) {
  const auto order = IdentityOrder::ofQuery(request);
  if (!order) return Answer::text(400, order.error().localizedDescription() + "\n");
  Answer answer = Answer::json(200, JSON::encode(_machines.verdict(request)) + "\n");
  if (*order) _machines.order(**order, answer);
  return answer;
}

}  // namespace tallow::devstore
