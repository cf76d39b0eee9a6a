#include "devstore/MachineRegistry.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include "platform/Base/ASCII.h"
#include "platform/Base/Base64.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Random.h"
#include "platform/Orv/ByteLayout.h"
#include "platform/PropertyList/PropertyList.h"

namespace tallow::devstore {

namespace {

constexpr std::uint32_t kPeriodSeconds = 30;
constexpr std::uint64_t kToleratedSteps = 1;  // to either side, for clocks and slow requests
constexpr std::size_t kMostKept = 4096;
constexpr int kFailureType = 5001;
constexpr std::uint8_t kSyncStateVersion = 1;
constexpr const char* kIdentityHeaders[] = {"X-Vantor-MD", "X-Vantor-MD-M", "X-Vantor-AMD",
                                            "X-Vantor-AMD-M", "X-Vantor-MD-S"};
constexpr const char* kContentType = "application/x-vantor-plist";

std::uint64_t nowInMilliseconds() {
  return static_cast<std::uint64_t>(std::llround(Clock::shared().now().secondsSince1970 * 1000));
}

OrvMessages::ID randomID() {
  OrvMessages::ID id;
  Random::shared().fill(id);
  return id;
}

Identity makeSigner() {
  Identity::Request request;
  request.commonName = "Development Machine Registry";
  request.keyKind = KeyKind::Ed25519;
  request.notAfter = Date{4e9};
  return Identity::make(request, nullptr);
}

// Any one goes when there are too many: whoever still needs it is ordered to begin anew.
template <class Map>
void makeRoom(Map& map) {
  if (map.size() >= kMostKept) map.erase(map.begin());
}

// Why a request is not granted.
class Refusal {
 public:
  explicit Refusal(std::string reason) : _reason(std::move(reason)) {}
  const std::string& reason() const { return _reason; }
  Dictionary failure() const {
    return {{"failureType", kFailureType}, {"customerMessage", _reason}};
  }

 private:
  std::string _reason;
};

// The body of an exchange's request, if the request is as it should be.
Dictionary bodyOf(const ReceivedRequest& request, bool isAnonymous) {
  if (request.method != "POST") throw Refusal("not a POST");
  const std::string* const contentType = request.header("Content-Type");
  if (contentType == nullptr || *contentType != kContentType)
    throw Refusal(std::string("the body is not ") + kContentType);
  for (const auto& [name, value] : request.headers)
    for (const char* identity : kIdentityHeaders)
      if (ascii::equalIgnoringCase(name, identity))
        throw Refusal("an exchange must not carry " + name);
  const Result<Value> body = PropertyList::decode(request.body);
  if (!body || body->dictionary() == nullptr) throw Refusal("the body is no dictionary");
  const bool saysAnonymous = (*body->dictionary())["dsId"] == Value(IdentityOrder::kAnonymous);
  if (saysAnonymous != isAnonymous) throw Refusal("the dsId is not one for this address");
  return *body->dictionary();
}

std::uint64_t dsIDOf(const Dictionary& body) {
  return body["dsId"].unsignedValue();
}

// A message under a key, in base64.
template <class Message>
Message decoded(const Dictionary& body, const char* key) {
  const std::string* const text = body[key].string();
  const auto bytes = text == nullptr ? std::nullopt : base64Decode(*text);
  const auto message = bytes ? Message::decode(bytes->span()) : std::nullopt;
  if (!message) throw Refusal(std::string(key) + " is not what it should be");
  return *message;
}

}  // namespace

MachineRegistry::MachineRegistry() : _signer(makeSigner()) {}

MachineRegistry::Machine* MachineRegistry::machineOf(std::uint64_t dsID) {
  const auto id = _machineOfDSID.find(dsID);
  const auto machine = id == _machineOfDSID.end() ? _machines.end() : _machines.find(id->second);
  return machine == _machines.end() ? nullptr : &machine->second;
}

void MachineRegistry::order(const IdentityOrder& order, Answer& answer) {
  const std::lock_guard guard(_lock);
  std::string action = "RP";
  std::optional<Data> data;
  if (order.action == IdentityOrder::Action::Provision) {
    OrvMessages::ProvisioningStart start;
    start.provisioning = randomID();
    const OrvCrypto::KeyPair pair = OrvCrypto::makeKeyPair();
    start.storeKey = pair.publicKey;
    makeRoom(_provisionings);
    _provisionings.emplace(start.provisioning, pair);
    action = "SP";
    data = start.encode();
  } else if (order.action == IdentityOrder::Action::Synchronise) {
    Machine* const machine = machineOf(order.dsID);
    OrvMessages::SyncStart start;
    start.challenge = randomID();
    start.storeTime = nowInMilliseconds();
    if (machine != nullptr) {
      start.proof = start.proofWith(machine->keys.sync);
      machine->challenge = start.challenge;
    }
    action = "SM";
    data = start.encode();
  }
  // Clients look for exactly these names.
  const std::string prefix = order.isAnonymous() ? "x-vantor-amd-" : "x-vantor-md-";
  answer.setHeader(prefix + "action", action);
  if (data) answer.setHeader(prefix + "data", base64Encode(*data));
}

Dictionary MachineRegistry::finishProvisioning(const ReceivedRequest& received,
                                               bool isAnonymous) try {
  const Dictionary body = bodyOf(received, isAnonymous);
  const auto request = decoded<OrvMessages::ProvisioningRequest>(body, "clientData");
  const std::uint64_t dsID = dsIDOf(body);
  const std::lock_guard guard(_lock);
  const auto begun = _provisionings.find(request.provisioning);
  if (begun == _provisionings.end()) throw Refusal("no such provisioning has been begun");
  const OrvCrypto::KeyPair first = begun->second;
  _provisionings.erase(begun);  // good for one answer

  auto agreement = OrvAgreement::ofStore(dsID, first, request);
  if (!agreement) throw Refusal("the machine's key is none");
  const auto fingerprint = OrvCrypto::open(agreement->requestKey(), request.provisioning,
                                           request.sealedFingerprint.span());
  if (!fingerprint) throw Refusal("what the machine has sealed does not open");
  const OrvCrypto::KeyPair second = OrvCrypto::makeKeyPair();
  if (!agreement->addTransportKeyOfMachine(second, request.machineKey))
    throw Refusal("the machine's key is none");

  OrvMessages::Settings settings;
  settings.machine = randomID();
  settings.periodSeconds = kPeriodSeconds;
  settings.storeTime = nowInMilliseconds();
  makeRoom(_machines);
  _machines[settings.machine] = Machine{
      dsID, Data(std::span<const std::uint8_t>(*fingerprint)), agreement->identityKeys(), {}};
  makeRoom(_machineOfDSID);
  // Another machine of the DSID gives way when this one has shown that it got the answer.
  _machineOfDSID.try_emplace(dsID, settings.machine);
  return {{"settingInfo", base64Encode(settings.seal(agreement->settingsKey()))},
          {"transportKey", base64Encode(OrvMessages::TransportKey{second.publicKey}.encode())}};
} catch (const Refusal& refusal) {
  return refusal.failure();
}

Dictionary MachineRegistry::synchronise(const ReceivedRequest& received, bool isAnonymous) try {
  const Dictionary body = bodyOf(received, isAnonymous);
  const auto request = decoded<OrvMessages::SyncRequest>(body, "clientData");
  const std::string* const identifier = body["machineId"].string();
  if (identifier == nullptr) throw Refusal("there is no machineId");
  const std::lock_guard guard(_lock);
  Machine& machine = machineIdentifiedBy(*identifier, isAnonymous);
  if (machine.dsID != dsIDOf(body)) throw Refusal("the machine is that of another dsId");
  if (machine.challenge != request.challenge) throw Refusal("no such synchronisation was ordered");
  machine.challenge.reset();  // good for one answer
  if (!OrvCrypto::areEqual(request.proof, request.proofWith(machine.keys.sync)))
    throw Refusal("the machine does not prove what it says");
  const auto id = OrvMessages::MachineIdentifier::decode(base64Decode(*identifier)->span());
  return {{"syncState", base64Encode(syncState(id->machine))}};
} catch (const Refusal& refusal) {
  return refusal.failure();
}

MachineRegistry::Machine& MachineRegistry::machineIdentifiedBy(const std::string& base64,
                                                               bool isAnonymous) {
  const auto bytes = base64Decode(base64);
  const auto identifier =
      bytes ? OrvMessages::MachineIdentifier::decode(bytes->span()) : std::nullopt;
  if (!identifier) throw Refusal("the machine identifier is none");
  const auto found = _machines.find(identifier->machine);
  if (found == _machines.end()) throw Refusal("the machine is not known");
  Machine& machine = found->second;
  const OrvMessages::Proof proof = OrvMessages::MachineIdentifier::proofFor(
      machine.keys.identifier, machine.dsID, machine.fingerprint.span());
  if (!OrvCrypto::areEqual(proof, identifier->proof))
    throw Refusal("the machine identifier is not genuine");
  if ((machine.dsID == IdentityOrder::kAnonymous) != isAnonymous)
    throw Refusal("the machine identifier is in the wrong header");
  _machineOfDSID[machine.dsID] = identifier->machine;
  return machine;
}

void MachineRegistry::checkPassword(const Machine& machine, const std::string& base64) const {
  const auto password = base64Decode(base64);
  if (!password) throw Refusal("the password is not base64");
  const std::uint64_t now = nowInMilliseconds() / (std::uint64_t{1000} * kPeriodSeconds);
  for (std::uint64_t step = now - kToleratedSteps; step <= now + kToleratedSteps; ++step)
    if (password->view() == OrvCrypto::timeBasedPassword(machine.keys.password.span(), step,
                                                         OrvMessages::kPasswordDigits))
      return;
  throw Refusal("the password is wrong");
}

Dictionary MachineRegistry::verdictOn(const ReceivedRequest& request, bool isAnonymous) try {
  const std::string prefix = isAnonymous ? "X-Vantor-AMD" : "X-Vantor-MD";
  const std::string* const identifier = request.header(prefix + "-M");
  const std::string* const password = request.header(prefix);
  if (identifier == nullptr || password == nullptr) throw Refusal("missing");
  const Machine& machine = machineIdentifiedBy(*identifier, isAnonymous);
  checkPassword(machine, *password);
  return {{"verified", true}, {"dsid", machine.dsID}};
} catch (const Refusal& refusal) {
  return {{"verified", false}, {"reason", refusal.reason()}};
}

Dictionary MachineRegistry::verdict(const ReceivedRequest& request) {
  const std::lock_guard guard(_lock);
  const std::string* const text = request.header("X-Vantor-MD-S");
  const auto state = text == nullptr ? std::nullopt : base64Decode(*text);
  // Of a machine that the very same request proves to be.
  const auto isOf = [&](const Dictionary& verdict, const char* header) {
    if (!state || !verdict["verified"].boolValue().value_or(false)) return false;
    const auto bytes = base64Decode(*request.header(header));
    return isSyncState(*state, OrvMessages::MachineIdentifier::decode(bytes->span())->machine);
  };
  const Dictionary account = verdictOn(request, false);
  const Dictionary anonymous = verdictOn(request, true);
  return {{"account", account},
          {"anonymous", anonymous},
          {"synchronised", isOf(account, "X-Vantor-MD-M") || isOf(anonymous, "X-Vantor-AMD-M")}};
}

// A sync state: version, machine, when it was issued, and the store's signature over these.
Data MachineRegistry::syncState(const OrvMessages::ID& machine) const {
  std::vector<std::uint8_t> said(1 + machine.size() + sizeof(std::uint64_t));
  ByteWriter(said).number(kSyncStateVersion).bytes(machine).number(nowInMilliseconds());
  const Data signature = _signer.signatureOver(Data(std::span<const std::uint8_t>(said)));
  said.insert(said.end(), signature.span().begin(), signature.span().end());
  return Data(std::move(said));
}

bool MachineRegistry::isSyncState(const Data& state, const OrvMessages::ID& machine) const {
  const std::size_t saidBytes = 1 + machine.size() + sizeof(std::uint64_t);
  if (state.length() <= saidBytes || state.bytes()[0] != kSyncStateVersion) return false;
  // Ed25519 gives one and the same signature each time.
  const Data signature = _signer.signatureOver(Data(state.span().first(saidBytes)));
  return OrvCrypto::areEqual(signature.span(), state.span().subspan(saidBytes)) &&
         OrvCrypto::areEqual(state.span().subspan(1, machine.size()), machine);
}

}  // namespace tallow::devstore
