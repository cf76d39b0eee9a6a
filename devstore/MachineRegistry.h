#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "devstore/Answer.h"
#include "devstore/Identity.h"
#include "devstore/IdentityOrder.h"
#include "devstore/ReceivedRequest.h"
#include "platform/Base/Value.h"
#include "platform/Orv/OrvAgreement.h"
#include "platform/Orv/OrvMessages.h"

namespace tallow::devstore {

// The store's side of machine identity: which machines it has provisioned for which DSID, and what
// it holds against what they send. Kept in memory: a store that starts anew knows no machine.
// Owned by the store; any thread.
class MachineRegistry {
 public:
  MachineRegistry();

  // Puts the order's headers on an answer. To synchronise a machine that is not known is an order
  // that no machine will follow.
  void order(const IdentityOrder& order, Answer& answer);

  // The answers to a machine's requests: what it asked for, or "failureType" and "customerMessage".
  Dictionary finishProvisioning(const ReceivedRequest& request, bool isAnonymous);
  Dictionary synchronise(const ReceivedRequest& request, bool isAnonymous);

  // What the machine-identity headers of a request prove: under "account" and "anonymous" each
  // "verified" with "dsid", or "reason"; and "synchronised".
  Dictionary verdict(const ReceivedRequest& request);

 private:
  struct Machine {
    std::uint64_t dsID = 0;
    Data fingerprint;
    OrvIdentityKeys keys;
    std::optional<OrvMessages::ID> challenge;  // of a synchronisation that has been ordered
  };
  using Machines = std::map<OrvMessages::ID, Machine>;

  Machine* machineOf(std::uint64_t dsID);
  Machine& machineIdentifiedBy(const std::string& base64, bool isAnonymous);
  void checkPassword(const Machine& machine, const std::string& base64) const;
  Dictionary verdictOn(const ReceivedRequest& request, bool isAnonymous);
  Data syncState(const OrvMessages::ID& machine) const;
  bool isSyncState(const Data& state, const OrvMessages::ID& machine) const;

  const Identity _signer;  // of sync states
  std::mutex _lock;
  // Guarded by _lock.
  std::map<OrvMessages::ID, OrvCrypto::KeyPair> _provisionings;  // begun
  Machines _machines;
  std::map<std::uint64_t, OrvMessages::ID> _machineOfDSID;  // the last one
};

}  // namespace tallow::devstore
