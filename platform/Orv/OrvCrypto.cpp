#include "platform/Orv/OrvCrypto.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "platform/Base/Random.h"
#include "platform/Certificates/CryptoContext.h"

namespace tallow::OrvCrypto {

namespace {

constexpr std::size_t kNonceBytes = 12;
constexpr std::size_t kTagBytes = 16;
static_assert(kSealingBytes == kNonceBytes + kTagBytes);

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* object) const {
    Free(object);
  }
};
using KeyPointer = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using MACContext = std::unique_ptr<EVP_MAC_CTX, Deleter<EVP_MAC_CTX_free>>;
using KDFContext = std::unique_ptr<EVP_KDF_CTX, Deleter<EVP_KDF_CTX_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;

OSSL_LIB_CTX* library() {
  return static_cast<OSSL_LIB_CTX*>(certificateCryptoContext());
}

void require(bool succeeded, const char* what) {
  if (succeeded) return;
  std::fprintf(stderr, "OrvCrypto: %s failed: %s\n", what,
               ERR_error_string(ERR_get_error(), nullptr));
  std::abort();
}

// Fetched once: fetching costs more than what is done with them. They live for the process.
EVP_KDF* hkdfAlgorithm() {
  static EVP_KDF* const algorithm = EVP_KDF_fetch(library(), OSSL_KDF_NAME_HKDF, nullptr);
  require(algorithm != nullptr, "finding HKDF");
  return algorithm;
}

EVP_CIPHER* cipher() {
  static EVP_CIPHER* const algorithm = EVP_CIPHER_fetch(library(), "AES-256-GCM", nullptr);
  require(algorithm != nullptr, "finding AES-256-GCM");
  return algorithm;
}

OSSL_PARAM digestParameter() {
  static char name[] = "SHA256";
  return OSSL_PARAM_construct_utf8_string(OSSL_ALG_PARAM_DIGEST, name, 0);
}

// An HMAC-SHA-256 that only lacks its key: to copy one is cheaper than to have its digest found.
MACContext hmacContext() {
  static EVP_MAC_CTX* const prepared = [] {
    EVP_MAC* const algorithm = EVP_MAC_fetch(library(), OSSL_MAC_NAME_HMAC, nullptr);
    EVP_MAC_CTX* const made = EVP_MAC_CTX_new(algorithm);
    const OSSL_PARAM parameters[] = {digestParameter(), OSSL_PARAM_construct_end()};
    require(made != nullptr && EVP_MAC_CTX_set_params(made, parameters) == 1, "finding HMAC");
    return made;
  }();
  return MACContext(EVP_MAC_CTX_dup(prepared));
}

OSSL_PARAM bytesParameter(const char* name, Bytes bytes) {
  static std::uint8_t nothing = 0;  // a parameter without bytes needs an address all the same
  // The library takes inputs and outputs through one type; it does not write to this one.
  auto* const address = bytes.empty() ? &nothing : const_cast<std::uint8_t*>(bytes.data());
  return OSSL_PARAM_construct_octet_string(name, address, bytes.size());
}

int intLength(Bytes bytes) {
  return static_cast<int>(bytes.size());
}

}  // namespace

KeyPair makeKeyPair() {
  KeyPair pair;
  Random::shared().fill(pair.privateKey.writable());
  const KeyPointer key(EVP_PKEY_new_raw_private_key_ex(
      library(), "X25519", nullptr, pair.privateKey.span().data(), pair.privateKey.span().size()));
  std::size_t length = pair.publicKey.size();
  require(
      key != nullptr && EVP_PKEY_get_raw_public_key(key.get(), pair.publicKey.data(), &length) == 1,
      "making a key");
  return pair;
}

std::optional<Key> agree(const Key& privateKey, const PublicKey& with) {
  const KeyPointer mine(EVP_PKEY_new_raw_private_key_ex(
      library(), "X25519", nullptr, privateKey.span().data(), privateKey.span().size()));
  const KeyPointer theirs(
      EVP_PKEY_new_raw_public_key_ex(library(), "X25519", nullptr, with.data(), with.size()));
  require(mine != nullptr && theirs != nullptr, "reading a key");
  const KeyContext context(EVP_PKEY_CTX_new_from_pkey(library(), mine.get(), nullptr));
  require(context != nullptr && EVP_PKEY_derive_init(context.get()) == 1 &&
              EVP_PKEY_derive_set_peer(context.get(), theirs.get()) == 1,
          "preparing an agreement");
  Key secret;
  std::size_t length = secret.span().size();
  const bool isAgreed = EVP_PKEY_derive(context.get(), secret.writable().data(), &length) == 1 &&
                        length == secret.span().size();
  ERR_clear_error();
  return isAgreed ? std::optional(secret) : std::nullopt;
}

void hkdf(Bytes inputKey, Bytes salt, Bytes info, std::span<std::uint8_t> output) {
  const KDFContext context(EVP_KDF_CTX_new(hkdfAlgorithm()));
  const OSSL_PARAM parameters[] = {digestParameter(), bytesParameter(OSSL_KDF_PARAM_KEY, inputKey),
                                   bytesParameter(OSSL_KDF_PARAM_SALT, salt),
                                   bytesParameter(OSSL_KDF_PARAM_INFO, info),
                                   OSSL_PARAM_construct_end()};
  require(context != nullptr &&
              EVP_KDF_derive(context.get(), output.data(), output.size(), parameters) == 1,
          "deriving a key");
}

Key hmac(Bytes key, std::initializer_list<Bytes> parts) {
  const MACContext context = hmacContext();
  require(context != nullptr && EVP_MAC_init(context.get(), key.data(), key.size(), nullptr) == 1,
          "starting an HMAC");
  for (const Bytes part : parts)
    require(EVP_MAC_update(context.get(), part.data(), part.size()) == 1, "computing an HMAC");
  Key result;
  std::size_t length = 0;
  require(
      EVP_MAC_final(context.get(), result.writable().data(), &length, result.span().size()) == 1 &&
          length == result.span().size(),
      "ending an HMAC");
  return result;
}

Data seal(const Key& key, Bytes alongside, Bytes plain) {
  std::vector<std::uint8_t> sealed(kNonceBytes + plain.size() + kTagBytes);
  Random::shared().fill(std::span(sealed).first(kNonceBytes));
  std::uint8_t* const body = sealed.data() + kNonceBytes;
  const CipherContext context(EVP_CIPHER_CTX_new());
  int length = 0;
  require(
      context != nullptr &&
          EVP_EncryptInit_ex2(context.get(), cipher(), key.span().data(), sealed.data(), nullptr) ==
              1 &&
          EVP_EncryptUpdate(context.get(), nullptr, &length, alongside.data(),
                            intLength(alongside)) == 1 &&
          EVP_EncryptUpdate(context.get(), body, &length, plain.data(), intLength(plain)) == 1 &&
          EVP_EncryptFinal_ex(context.get(), body + length, &length) == 1 &&
          EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_GET_TAG, kTagBytes,
                              body + plain.size()) == 1,
      "sealing");
  return Data(std::move(sealed));
}

std::optional<SecretVector> open(const Key& key, Bytes alongside, Bytes sealed) {
  if (sealed.size() < kSealingBytes) return std::nullopt;
  const Bytes body = sealed.subspan(kNonceBytes, sealed.size() - kSealingBytes);
  std::array<std::uint8_t, kTagBytes> tag;
  std::copy(sealed.end() - kTagBytes, sealed.end(), tag.begin());
  SecretVector plain(body.size() + 1);  // never empty, so that it has an address
  const CipherContext context(EVP_CIPHER_CTX_new());
  int length = 0;
  require(context != nullptr &&
              EVP_DecryptInit_ex2(context.get(), cipher(), key.span().data(), sealed.data(),
                                  nullptr) == 1 &&
              EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_AEAD_SET_TAG, kTagBytes, tag.data()) == 1,
          "preparing to open");
  const bool isGenuine =
      EVP_DecryptUpdate(context.get(), nullptr, &length, alongside.data(), intLength(alongside)) ==
          1 &&
      EVP_DecryptUpdate(context.get(), plain.data(), &length, body.data(), intLength(body)) == 1 &&
      EVP_DecryptFinal_ex(context.get(), plain.data() + length, &length) == 1;
  ERR_clear_error();
  if (!isGenuine) return std::nullopt;
  plain.resize(body.size());
  return plain;
}

std::string timeBasedPassword(Bytes key, std::uint64_t step, int digits) {
  std::array<std::uint8_t, 8> counter;
  for (std::size_t i = 0; i < counter.size(); ++i)
    counter[i] = static_cast<std::uint8_t>(step >> (8 * (counter.size() - 1 - i)));
  const Key code = hmac(key, {counter});
  // RFC 4226 section 5.3: four bytes at the place that the last one's low bits name.
  const std::size_t place = code.span().back() & 15u;
  std::uint32_t number = code.span()[place] & 0x7fu;
  for (std::size_t i = 1; i < 4; ++i) number = number << 8 | code.span()[place + i];
  std::string text(static_cast<std::size_t>(digits), '0');
  for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number /= 10)
    *digit = static_cast<char>('0' + number % 10);
  return text;
}

bool areEqual(Bytes a, Bytes b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace tallow::OrvCrypto
