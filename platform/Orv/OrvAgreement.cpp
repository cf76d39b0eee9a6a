#include "platform/Orv/OrvAgreement.h"

#include <vector>

#include "platform/Orv/ByteLayout.h"

namespace tallow {

std::optional<OrvAgreement> OrvAgreement::ofMachine(std::uint64_t dsID,
                                                    const OrvCrypto::KeyPair& machine,
                                                    const OrvMessages::ProvisioningStart& start) {
  const std::optional<OrvCrypto::Key> secret = OrvCrypto::agree(machine.privateKey, start.storeKey);
  if (!secret) return std::nullopt;
  OrvAgreement agreement;
  agreement._dsID = dsID;
  agreement._provisioning = start.provisioning;
  agreement._storeKey = start.storeKey;
  agreement._machineKey = machine.publicKey;
  agreement._first = *secret;
  return agreement;
}

std::optional<OrvAgreement> OrvAgreement::ofStore(std::uint64_t dsID,
                                                  const OrvCrypto::KeyPair& store,
                                                  const OrvMessages::ProvisioningRequest& request) {
  const std::optional<OrvCrypto::Key> secret =
      OrvCrypto::agree(store.privateKey, request.machineKey);
  if (!secret) return std::nullopt;
  OrvAgreement agreement;
  agreement._dsID = dsID;
  agreement._provisioning = request.provisioning;
  agreement._storeKey = store.publicKey;
  agreement._machineKey = request.machineKey;
  agreement._first = *secret;
  return agreement;
}

bool OrvAgreement::addTransportKeyOfStore(const OrvCrypto::KeyPair& machine,
                                          const OrvCrypto::PublicKey& storeKey) {
  const std::optional<OrvCrypto::Key> secret = OrvCrypto::agree(machine.privateKey, storeKey);
  if (!secret) return false;
  _transportKey = storeKey;
  _second = *secret;
  return true;
}

bool OrvAgreement::addTransportKeyOfMachine(const OrvCrypto::KeyPair& store,
                                            const OrvCrypto::PublicKey& machineKey) {
  const std::optional<OrvCrypto::Key> secret = OrvCrypto::agree(store.privateKey, machineKey);
  if (!secret) return false;
  _transportKey = store.publicKey;
  _second = *secret;
  return true;
}

// Everything that was said goes into each key, so that both sides have the same ones only if both
// have heard the same.
void OrvAgreement::derive(std::string_view purpose, std::span<std::uint8_t> output) const {
  SecretVector secrets(_first.span().begin(), _first.span().end());
  secrets.insert(secrets.end(), _second.span().begin(), _second.span().end());
  std::vector<std::uint8_t> said(purpose.begin(), purpose.end());
  const std::size_t start = said.size();
  said.resize(start + sizeof(_dsID) + 3 * _storeKey.size());
  ByteWriter(std::span(said).subspan(start))
      .number(_dsID)
      .bytes(_storeKey)
      .bytes(_machineKey)
      .bytes(_transportKey);
  OrvCrypto::hkdf(secrets, _provisioning, said, output);
}

OrvCrypto::Key OrvAgreement::requestKey() const {
  OrvCrypto::Key key;
  derive("tallow-orv 1 request", key.writable());
  return key;
}

OrvCrypto::Key OrvAgreement::settingsKey() const {
  OrvCrypto::Key key;
  derive("tallow-orv 1 settings", key.writable());
  return key;
}

OrvIdentityKeys OrvAgreement::identityKeys() const {
  OrvIdentityKeys keys;
  derive("tallow-orv 1 password", keys.password.writable());
  derive("tallow-orv 1 identifier", keys.identifier.writable());
  derive("tallow-orv 1 sync", keys.sync.writable());
  return keys;
}

}  // namespace tallow
