#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "platform/Orv/OrvCrypto.h"
#include "platform/Orv/OrvMessages.h"

namespace tallow {

// What a machine and its store share once the machine is provisioned for a DSID.
struct OrvIdentityKeys {
  OrvCrypto::Key password, identifier, sync;
};

// The agreement that provisioning is made of, the same on both sides. The store's first key comes
// in a response's header, through whatever process handed that header in; its second one comes with
// the answer to the machine's own request. The keys follow from both, so whoever saw only one
// learns nothing, and from the DSID and everything else that was said. A plain value.
class OrvAgreement {
 public:
  // nullopt where a public key is none.
  static std::optional<OrvAgreement> ofMachine(std::uint64_t dsID,
                                               const OrvCrypto::KeyPair& machine,
                                               const OrvMessages::ProvisioningStart& start);
  static std::optional<OrvAgreement> ofStore(std::uint64_t dsID, const OrvCrypto::KeyPair& store,
                                             const OrvMessages::ProvisioningRequest& request);

  // Under which the machine's request is sealed: as long as the second half is not there.
  OrvCrypto::Key requestKey() const;

  // The second half. False where a public key is none.
  bool addTransportKeyOfStore(const OrvCrypto::KeyPair& machine,
                              const OrvCrypto::PublicKey& storeKey);
  bool addTransportKeyOfMachine(const OrvCrypto::KeyPair& store,
                                const OrvCrypto::PublicKey& machineKey);

  // Once the second half is there: under which the store's settings are sealed, and what both keep.
  OrvCrypto::Key settingsKey() const;
  OrvIdentityKeys identityKeys() const;

 private:
  OrvAgreement() = default;
  void derive(std::string_view purpose, std::span<std::uint8_t> output) const;

  std::uint64_t _dsID = 0;
  OrvMessages::ID _provisioning{};
  OrvCrypto::PublicKey _storeKey{}, _machineKey{}, _transportKey{};
  OrvCrypto::Key _first, _second;  // the second is all zero until it is there
};

}  // namespace tallow
