#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

class MachineRegistry;

// Says, in JSON, what the machine-identity headers of the request prove, and gives the order that
// the query asks for. No settings of its own.
class IdentityVerdictEndpoint final : public Endpoint {
 public:
  explicit IdentityVerdictEndpoint(MachineRegistry& machines) : _machines(machines) {}

  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  MachineRegistry& _machines;
};

}  // namespace tallow::devstore
