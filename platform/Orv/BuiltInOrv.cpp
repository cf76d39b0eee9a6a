#include "platform/Orv/BuiltInOrv.h"

#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "platform/Base/ASCII.h"
#include "platform/Base/Clock.h"
#include "platform/Orv/ByteLayout.h"

namespace tallow {

namespace {

// A provisioning has one session, which the service ends when it is over.
constexpr std::size_t kMostSessions = 16;
constexpr double kSecondsBetweenSaves = 60;

OrvCrypto::Key derived(std::span<const std::uint8_t> machineID, std::string_view purpose) {
  OrvCrypto::Key key;
  OrvCrypto::hkdf(machineID, {},
                  {reinterpret_cast<const std::uint8_t*>(purpose.data()), purpose.size()},
                  key.writable());
  return key;
}

// Hexadecimal digits that tell machines apart, and nothing else of them.
std::string folderName(std::span<const std::uint8_t> machineID) {
  const OrvCrypto::Key key = derived(machineID, "tallow-orv 1 folder");
  std::string name;
  ascii::appendHexadecimal(name, key.span().first(8));
  return name;
}

SecretVector secretCopy(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

}  // namespace

BuiltInOrv::BuiltInOrv(const std::filesystem::path& folder, Bytes machineID,
                       const StoreClock::Boot& boot, MachineSecretStore::Log log)
    : _fingerprintKey(derived(machineID, "tallow-orv 1 fingerprint")),
      _boot(boot),
      _secrets(folder / folderName(machineID), derived(machineID, "tallow-orv 1 storage"),
               std::move(log)) {}

OrvCrypto::Key BuiltInOrv::fingerprint(std::uint64_t dsID) const {
  std::array<std::uint8_t, sizeof(dsID)> number;
  ByteWriter(number).number(dsID);
  return OrvCrypto::hmac(_fingerprintKey.span(), {number});
}

std::int32_t BuiltInOrv::requestPassword(std::uint64_t dsID, SecretVector& identifier,
                                         SecretVector& password) {
  MachineSecret secret;
  if (const std::int32_t status = _secrets.load(dsID, secret); status != kOrvSuccess) return status;
  keepClock(dsID, secret);
  const std::uint64_t step = secret.clock.now(_boot) / (std::uint64_t{1000} * secret.periodSeconds);
  std::string digits =
      OrvCrypto::timeBasedPassword(secret.passwordKey.span(), step, OrvMessages::kPasswordDigits);
  password.assign(digits.begin(), digits.end());
  ::explicit_bzero(digits.data(), digits.size());
  identifier = secretCopy(secret.identifier.encode().span());
  return kOrvSuccess;
}

bool BuiltInOrv::passwordIsAtHand(std::uint64_t dsID) const {
  const auto toKeep = _clocksToKeep.find(dsID);
  return _secrets.isInMemory(dsID) &&
         (toKeep == _clocksToKeep.end() || Clock::shared().monotonicSeconds() < toKeep->second);
}

// Called also where writing would take too long: then the password is not at hand the next time.
void BuiltInOrv::keepClock(std::uint64_t dsID, MachineSecret& secret) {
  if (!secret.clock.isOwnClockSet(_boot)) {
    _clocksToKeep.erase(dsID);
    return;
  }
  const double now = Clock::shared().monotonicSeconds();
  const auto [toKeep, isNew] = _clocksToKeep.emplace(dsID, now);
  if (isNew || now < toKeep->second) return;
  secret.clock.compareOwnClock(_boot);
  if (_secrets.save(dsID, secret) == kOrvSuccess) {
    _clocksToKeep.erase(toKeep);
  } else {
    toKeep->second = now + kSecondsBetweenSaves;  // it is logged, and tried again
  }
}

std::vector<std::uint64_t> BuiltInOrv::provisionedDSIDs() {
  std::vector<std::uint64_t> provisioned;
  for (const std::uint64_t dsID : _secrets.dsIDs()) {
    MachineSecret secret;
    if (_secrets.load(dsID, secret) == kOrvSuccess) provisioned.push_back(dsID);
  }
  return provisioned;
}

std::int32_t BuiltInOrv::resetProvisioning(std::uint64_t dsID) {
  return _secrets.remove(dsID);
}

std::int32_t BuiltInOrv::startProvisioning(std::uint64_t dsID, Bytes data, SecretVector& clientData,
                                           std::uint32_t& session) {
  const auto start = OrvMessages::ProvisioningStart::decode(data);
  if (!start) return kOrvMalformed;
  if (_sessions.size() >= kMostSessions) return kOrvTooManySessions;
  // Before the store is told anything that this machine could not keep.
  if (_secrets.isFromTheFuture(dsID)) return kOrvNewerFormat;
  const OrvCrypto::KeyPair machine = OrvCrypto::makeKeyPair();
  const std::optional<OrvAgreement> agreement = OrvAgreement::ofMachine(dsID, machine, *start);
  if (!agreement) return kOrvMalformed;

  OrvMessages::ProvisioningRequest request;
  request.provisioning = start->provisioning;
  request.machineKey = machine.publicKey;
  request.sealedFingerprint =
      OrvCrypto::seal(agreement->requestKey(), start->provisioning, fingerprint(dsID).span());
  clientData = secretCopy(request.encode().span());
  do {
    session = ++_lastSession;
  } while (session == 0 || _sessions.contains(session));
  _sessions.emplace(session,
                    Session{dsID, machine, *agreement, Clock::shared().monotonicSeconds()});
  return kOrvSuccess;
}

std::int32_t BuiltInOrv::finishProvisioning(std::uint32_t session, Bytes settingInfo,
                                            Bytes transportKey) {
  const auto found = _sessions.find(session);
  if (found == _sessions.end()) return kOrvUnknownSession;
  const Session& open = found->second;
  const auto transport = OrvMessages::TransportKey::decode(transportKey);
  if (!transport) return kOrvMalformed;
  OrvAgreement agreement = open.agreement;
  if (!agreement.addTransportKeyOfStore(open.machine, transport->storeKey)) return kOrvMalformed;
  const auto settings = OrvMessages::Settings::open(agreement.settingsKey(), settingInfo);
  if (!settings) return kOrvNotGenuine;

  MachineSecret secret;
  const OrvIdentityKeys keys = agreement.identityKeys();
  secret.passwordKey = keys.password;
  secret.syncKey = keys.sync;
  secret.identifier.machine = settings->machine;
  secret.identifier.proof = OrvMessages::MachineIdentifier::proofFor(keys.identifier, open.dsID,
                                                                     fingerprint(open.dsID).span());
  secret.periodSeconds = settings->periodSeconds;
  // What the store said was on its way for about half of the exchange.
  const double way = (Clock::shared().monotonicSeconds() - open.startedAt) / 2;
  secret.clock = StoreClock::setNow(
      settings->storeTime + static_cast<std::uint64_t>(std::max(0.0, way) * 1000), _boot);
  return _secrets.save(open.dsID, secret);
}

void BuiltInOrv::endSession(std::uint32_t session) {
  _sessions.erase(session);
}

std::int32_t BuiltInOrv::synchronizeMachine(std::uint64_t dsID, Bytes data,
                                            SecretVector& identifier, SecretVector& clientData) {
  MachineSecret secret;
  if (const std::int32_t status = _secrets.load(dsID, secret); status != kOrvSuccess) return status;
  const auto start = OrvMessages::SyncStart::decode(data);
  if (!start) return kOrvMalformed;
  if (!OrvCrypto::areEqual(start->proof, start->proofWith(secret.syncKey))) return kOrvNotGenuine;
  if (start->storeTime <= secret.clock.lastHeard()) return kOrvOutdated;

  OrvMessages::SyncRequest request;
  request.challenge = start->challenge;
  request.machineTime = secret.clock.now(_boot);
  request.proof = request.proofWith(secret.syncKey);
  secret.clock.hear(start->storeTime, _boot);
  if (const std::int32_t status = _secrets.save(dsID, secret); status != kOrvSuccess) return status;
  identifier = secretCopy(secret.identifier.encode().span());
  clientData = secretCopy(request.encode().span());
  return kOrvSuccess;
}

}  // namespace tallow
