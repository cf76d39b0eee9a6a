#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>

#include "platform/Base/Data.h"
#include "platform/Orv/SecretBytes.h"

namespace tallow {

// The few cryptographic operations that machine identity is made of. Failures that only a fault of
// this program or machine can cause abort; what a peer can cause is nullopt. Callable from any
// thread.
namespace OrvCrypto {

using Bytes = std::span<const std::uint8_t>;
using Key = SecretBytes<32>;
using PublicKey = std::array<std::uint8_t, 32>;

// X25519 (RFC 7748).
struct KeyPair {
  Key privateKey;
  PublicKey publicKey{};
};
KeyPair makeKeyPair();
// What both sides of an agreement compute; nullopt for a public key that would make it no secret.
std::optional<Key> agree(const Key& privateKey, const PublicKey& with);

// HKDF (RFC 5869) with SHA-256, as long as `output`.
void hkdf(Bytes inputKey, Bytes salt, Bytes info, std::span<std::uint8_t> output);
// HMAC-SHA-256 over the parts, one after the other.
Key hmac(Bytes key, std::initializer_list<Bytes> parts);

// AES-256-GCM under a nonce drawn at random, which comes first in what is sealed; the tag comes
// last. `alongside` is authenticated, not sealed.
constexpr std::size_t kSealingBytes = 12 + 16;
Data seal(const Key& key, Bytes alongside, Bytes plain);
std::optional<SecretVector> open(const Key& key, Bytes alongside, Bytes sealed);

// The password of a time step, in decimal digits (1 to 9): RFC 6238 with SHA-256.
std::string timeBasedPassword(Bytes key, std::uint64_t step, int digits);

// In time that does not tell where they differ.
bool areEqual(Bytes a, Bytes b);

}  // namespace OrvCrypto

}  // namespace tallow
