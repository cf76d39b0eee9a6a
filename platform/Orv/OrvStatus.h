#pragma once

#include <cstdint>

namespace tallow {

// Statuses of machine-identity libraries. The system tells the first two apart; every other one is
// a failure, and its number is what logs and events carry.
enum OrvStatus : std::int32_t {
  kOrvSuccess = 0,
  kOrvNotProvisioned = -45061,

  // Of the built-in library.
  kOrvMalformed = -45001,   // what the store has sent is no message of its kind
  kOrvNotGenuine = -45002,  // it is one, but not from whom this machine is provisioned with
  kOrvOutdated = -45003,    // it is older than what the store has said before
  kOrvUnknownSession = -45004,
  kOrvTooManySessions = -45005,
  kOrvNotStored = -45006,    // the disk refuses
  kOrvNewerFormat = -45007,  // a newer program has written the secret

  // Of the service, for a library that does not keep to the interface or is not there.
  kOrvUnusableAnswer = -45090,
  kOrvNoLibrary = -45091,
};

}  // namespace tallow
