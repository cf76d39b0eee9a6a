#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/Base/Data.h"
#include "platform/Orv/OrvCrypto.h"

namespace tallow {

// What a machine and its store say to each other about the machine's identity: the bytes inside the
// base64 of headers and property lists. docs/machine-identity.md tells the exchanges. Every message
// begins with its version (1); numbers are big-endian; times are milliseconds since 1970-01-01 UTC
// by the store's clock. decode() is nullopt for anything of another length or version. Plain
// values.
namespace OrvMessages {

using Bytes = std::span<const std::uint8_t>;
using ID = std::array<std::uint8_t, 16>;
using Proof = std::array<std::uint8_t, 32>;

// How many digits a one-time password has, and how long a store may ask one to last.
constexpr int kPasswordDigits = 8;
constexpr std::uint32_t kLongestPeriodSeconds = 3600;

// Store to machine, in a response's header: begin.
struct ProvisioningStart {
  ID provisioning{};
  OrvCrypto::PublicKey storeKey{};

  Data encode() const;
  static std::optional<ProvisioningStart> decode(Bytes bytes);
};

// Machine to store ("clientData"): who is asking, sealed.
struct ProvisioningRequest {
  ID provisioning{};
  OrvCrypto::PublicKey machineKey{};
  Data sealedFingerprint;  // 32 bytes

  Data encode() const;
  static std::optional<ProvisioningRequest> decode(Bytes bytes);
};

// Store to machine ("transportKey"): the store's second key, made for this answer.
struct TransportKey {
  OrvCrypto::PublicKey storeKey{};

  Data encode() const;
  static std::optional<TransportKey> decode(Bytes bytes);
};

// Store to machine ("settingInfo"): what the machine is called and how long a password lasts,
// sealed.
struct Settings {
  ID machine{};
  std::uint32_t periodSeconds = 30;  // 1 to kLongestPeriodSeconds
  std::uint64_t storeTime = 0;

  Data seal(const OrvCrypto::Key& key) const;
  static std::optional<Settings> open(const OrvCrypto::Key& key, Bytes bytes);
};

// Machine to store, with every request: which machine, proven by what only it and the store know.
struct MachineIdentifier {
  ID machine{};
  Proof proof{};

  Data encode() const;
  static std::optional<MachineIdentifier> decode(Bytes bytes);
  static Proof proofFor(const OrvCrypto::Key& identifierKey, std::uint64_t dsID, Bytes fingerprint);
};

// Store to machine, in a response's header: synchronise; what time it is.
struct SyncStart {
  ID challenge{};
  std::uint64_t storeTime = 0;
  Proof proof{};

  Data encode() const;
  static std::optional<SyncStart> decode(Bytes bytes);
  Proof proofWith(const OrvCrypto::Key& syncKey) const;
};

// Machine to store ("clientData"): that it has heard.
struct SyncRequest {
  ID challenge{};
  std::uint64_t machineTime = 0;  // as the machine had thought it to be
  Proof proof{};

  Data encode() const;
  static std::optional<SyncRequest> decode(Bytes bytes);
  Proof proofWith(const OrvCrypto::Key& syncKey) const;
};

}  // namespace OrvMessages

}  // namespace tallow
