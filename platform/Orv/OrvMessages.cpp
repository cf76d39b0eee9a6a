#include "platform/Orv/OrvMessages.h"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Orv/ByteLayout.h"

namespace tallow::OrvMessages {

namespace {

constexpr std::uint8_t kVersion = 1;
constexpr std::size_t kFingerprintBytes = 32;

constexpr std::size_t kStartBytes = 1 + sizeof(ID) + sizeof(OrvCrypto::PublicKey);
constexpr std::size_t kRequestBytes = kStartBytes + kFingerprintBytes + OrvCrypto::kSealingBytes;
constexpr std::size_t kTransportBytes = 1 + sizeof(OrvCrypto::PublicKey);
constexpr std::size_t kSettingsBytes = sizeof(ID) + 4 + 8;
constexpr std::size_t kIdentifierBytes = 1 + sizeof(ID) + sizeof(Proof);
constexpr std::size_t kSyncBytes = 1 + sizeof(ID) + 8 + sizeof(Proof);

Bytes label(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::array<std::uint8_t, 8> bigEndian(std::uint64_t number) {
  std::array<std::uint8_t, 8> bytes;
  ByteWriter(bytes).number(number);
  return bytes;
}

bool isMessage(Bytes bytes, std::size_t length) {
  return bytes.size() == length && bytes.front() == kVersion;
}

// A message of the length, its version written; `write` adds the rest.
template <class Write>
Data message(std::size_t length, Write write) {
  std::vector<std::uint8_t> bytes(length);
  ByteWriter writer(bytes);
  write(writer.number(kVersion));
  return Data(std::move(bytes));
}

Proof proof(const OrvCrypto::Key& key, std::initializer_list<Bytes> parts) {
  const OrvCrypto::Key code = OrvCrypto::hmac(key.span(), parts);
  Proof result;
  std::copy(code.span().begin(), code.span().end(), result.begin());
  return result;
}

}  // namespace

Data ProvisioningStart::encode() const {
  return message(kStartBytes, [this](ByteWriter& to) { to.bytes(provisioning).bytes(storeKey); });
}

std::optional<ProvisioningStart> ProvisioningStart::decode(Bytes bytes) {
  if (!isMessage(bytes, kStartBytes)) return std::nullopt;
  ProvisioningStart start;
  ByteReader(bytes.subspan(1)).bytes(start.provisioning).bytes(start.storeKey);
  return start;
}

Data ProvisioningRequest::encode() const {
  return message(kRequestBytes, [this](ByteWriter& to) {
    to.bytes(provisioning).bytes(machineKey).bytes(sealedFingerprint.span());
  });
}

std::optional<ProvisioningRequest> ProvisioningRequest::decode(Bytes bytes) {
  if (!isMessage(bytes, kRequestBytes)) return std::nullopt;
  ProvisioningRequest request;
  ByteReader reader(bytes.subspan(1));
  reader.bytes(request.provisioning).bytes(request.machineKey);
  request.sealedFingerprint = Data(reader.take(kFingerprintBytes + OrvCrypto::kSealingBytes));
  return request;
}

Data TransportKey::encode() const {
  return message(kTransportBytes, [this](ByteWriter& to) { to.bytes(storeKey); });
}

std::optional<TransportKey> TransportKey::decode(Bytes bytes) {
  if (!isMessage(bytes, kTransportBytes)) return std::nullopt;
  TransportKey key;
  ByteReader(bytes.subspan(1)).bytes(key.storeKey);
  return key;
}

Data Settings::seal(const OrvCrypto::Key& key) const {
  std::array<std::uint8_t, kSettingsBytes> plain;
  ByteWriter(plain).bytes(machine).number(periodSeconds).number(storeTime);
  const Data sealed = OrvCrypto::seal(key, std::array{kVersion}, plain);
  return message(1 + sealed.length(), [&](ByteWriter& to) { to.bytes(sealed.span()); });
}

std::optional<Settings> Settings::open(const OrvCrypto::Key& key, Bytes bytes) {
  if (!isMessage(bytes, 1 + kSettingsBytes + OrvCrypto::kSealingBytes)) return std::nullopt;
  const auto plain = OrvCrypto::open(key, bytes.first(1), bytes.subspan(1));
  if (!plain) return std::nullopt;
  Settings settings;
  ByteReader(*plain)
      .bytes(settings.machine)
      .number(settings.periodSeconds)
      .number(settings.storeTime);
  const bool isSensible =
      settings.periodSeconds > 0 && settings.periodSeconds <= kLongestPeriodSeconds;
  return isSensible ? std::optional(settings) : std::nullopt;
}

Data MachineIdentifier::encode() const {
  return message(kIdentifierBytes, [this](ByteWriter& to) { to.bytes(machine).bytes(proof); });
}

std::optional<MachineIdentifier> MachineIdentifier::decode(Bytes bytes) {
  if (!isMessage(bytes, kIdentifierBytes)) return std::nullopt;
  MachineIdentifier identifier;
  ByteReader(bytes.subspan(1)).bytes(identifier.machine).bytes(identifier.proof);
  return identifier;
}

Proof MachineIdentifier::proofFor(const OrvCrypto::Key& identifierKey, std::uint64_t dsID,
                                  Bytes fingerprint) {
  return OrvMessages::proof(identifierKey, {label("machine"), bigEndian(dsID), fingerprint});
}

Data SyncStart::encode() const {
  return message(kSyncBytes,
                 [this](ByteWriter& to) { to.bytes(challenge).number(storeTime).bytes(proof); });
}

std::optional<SyncStart> SyncStart::decode(Bytes bytes) {
  if (!isMessage(bytes, kSyncBytes)) return std::nullopt;
  SyncStart start;
  ByteReader(bytes.subspan(1)).bytes(start.challenge).number(start.storeTime).bytes(start.proof);
  return start;
}

Proof SyncStart::proofWith(const OrvCrypto::Key& syncKey) const {
  return OrvMessages::proof(syncKey, {label("store"), challenge, bigEndian(storeTime)});
}

Data SyncRequest::encode() const {
  return message(kSyncBytes,
                 [this](ByteWriter& to) { to.bytes(challenge).number(machineTime).bytes(proof); });
}

std::optional<SyncRequest> SyncRequest::decode(Bytes bytes) {
  if (!isMessage(bytes, kSyncBytes)) return std::nullopt;
  SyncRequest request;
  ByteReader(bytes.subspan(1))
      .bytes(request.challenge)
      .number(request.machineTime)
      .bytes(request.proof);
  return request;
}

Proof SyncRequest::proofWith(const OrvCrypto::Key& syncKey) const {
  return OrvMessages::proof(syncKey, {label("machine time"), challenge, bigEndian(machineTime)});
}

}  // namespace tallow::OrvMessages
