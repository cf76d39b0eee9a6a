#include "devstore/IdentityExchangeEndpoint.h"

#include "devstore/MachineRegistry.h"

namespace tallow::devstore {

Answer IdentityExchangeEndpoint::answer(const ReceivedRequest& request, const Settings*,
                                        PropertyList::Format format) {
  const bool isAnonymous = request.path.starts_with("/identity/anonymous/");
  return Answer::propertyList(_exchange == Exchange::Provisioning
                                  ? _machines.finishProvisioning(request, isAnonymous)
                                  : _machines.synchronise(request, isAnonymous),
                              format);
}

}  // namespace tallow::devstore
