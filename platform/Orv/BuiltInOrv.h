#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/Orv/MachineSecretStore.h"
#include "platform/Orv/OrvAgreement.h"
#include "platform/Orv/OrvStatus.h"

namespace tallow {

// The machine-identity library that is built in. Keys are agreed with the store during provisioning
// (X25519, HKDF, AES-GCM); passwords are those of RFC 6238 with SHA-256 by the store's clock; the
// machine is known by an identifier that only it can prove; what is kept is sealed for this
// machine. docs/machine-identity.md tells what that protects against and what not.
//
// Reached, and owned, through builtInOrvTable(); one thread at a time. Functions return an
// OrvStatus; outputs are set on success only.
class BuiltInOrv {
 public:
  using Bytes = std::span<const std::uint8_t>;

  // `machineID` is what is known of this machine and no other; below `folder` it has one of its
  // own, so that machines may share a home. `boot` is which start of the machine this is.
  BuiltInOrv(const std::filesystem::path& folder, Bytes machineID, const StoreClock::Boot& boot,
             MachineSecretStore::Log log);

  // Whether requestPassword would do with what is in memory.
  bool passwordIsAtHand(std::uint64_t dsID) const;

  std::int32_t requestPassword(std::uint64_t dsID, SecretVector& machineIdentifier,
                               SecretVector& password);
  std::int32_t resetProvisioning(std::uint64_t dsID);
  std::int32_t startProvisioning(std::uint64_t dsID, Bytes data, SecretVector& clientData,
                                 std::uint32_t& session);
  std::int32_t finishProvisioning(std::uint32_t session, Bytes settingInfo, Bytes transportKey);
  void endSession(std::uint32_t session);
  std::int32_t synchronizeMachine(std::uint64_t dsID, Bytes data, SecretVector& machineIdentifier,
                                  SecretVector& clientData);
  std::vector<std::uint64_t> provisionedDSIDs();

 private:
  struct Session {
    std::uint64_t dsID = 0;
    OrvCrypto::KeyPair machine;
    OrvAgreement agreement;
    double startedAt = 0;  // monotonic
  };

  // What the store knows this machine by, for one DSID: two accounts' cannot be told to be of one
  // machine.
  OrvCrypto::Key fingerprint(std::uint64_t dsID) const;

  // After this machine's own clock has been set: writes down by how much, for the time after its
  // next start.
  void keepClock(std::uint64_t dsID, MachineSecret& secret);

  const OrvCrypto::Key _fingerprintKey;
  const StoreClock::Boot _boot;
  MachineSecretStore _secrets;
  // Of which DSIDs, and not before when (monotonic). Seen where writing was not in order.
  std::map<std::uint64_t, double> _clocksToKeep;
  std::map<std::uint32_t, Session> _sessions;
  std::uint32_t _lastSession = 0;
};

}  // namespace tallow
