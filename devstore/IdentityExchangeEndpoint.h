#pragma once

#include "devstore/Endpoint.h"

namespace tallow::devstore {

class MachineRegistry;

// Answers the requests of a machine that was ordered to provision or synchronise itself; below
// "/identity/anonymous/" those without an account. No settings of its own.
class IdentityExchangeEndpoint final : public Endpoint {
 public:
  enum class Exchange { Provisioning, Synchronisation };

  IdentityExchangeEndpoint(Exchange exchange, MachineRegistry& machines)
      : _exchange(exchange), _machines(machines) {}

  Answer answer(const ReceivedRequest& request, const Settings* settings,
                PropertyList::Format format) override;

 private:
  const Exchange _exchange;
  MachineRegistry& _machines;
};

}  // namespace tallow::devstore
