#include "devstore/Identity.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>
#include <vector>

namespace tallow::devstore {

namespace {

using KeyPointer = std::shared_ptr<EVP_PKEY>;
using CertificatePointer = std::shared_ptr<X509>;
template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* object) const {
    Free(object);
  }
};
using BIOPointer = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, Deleter<EVP_MD_CTX_free>>;
using ExtensionPointer = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

// OpenSSL's answer to a call that only a fault of this program or machine can make fail.
void require(bool succeeded, const char* what) {
  if (succeeded) return;
  std::fprintf(stderr, "Identity: %s failed: %s\n", what,
               ERR_error_string(ERR_get_error(), nullptr));
  std::abort();
}

KeyPointer makeKey(KeyKind kind) {
  EVP_PKEY* key = nullptr;
  switch (kind) {
    case KeyKind::P256:
      key = EVP_EC_gen("P-256");
      break;
    case KeyKind::P384:
      key = EVP_EC_gen("P-384");
      break;
    case KeyKind::RSA:
    case KeyKind::RSAPSS:
      key = EVP_RSA_gen(2048);
      break;
    case KeyKind::ShortRSA:
      key = EVP_RSA_gen(1024);
      break;
    case KeyKind::Ed25519:
      key = EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519");
      break;
  }
  require(key != nullptr, "making a key");
  return {key, EVP_PKEY_free};
}

void addExtension(X509* certificate, X509* issuer, int nid, const std::string& text) {
  if (text.empty()) return;
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  const ExtensionPointer extension(X509V3_EXT_conf_nid(nullptr, &context, nid, text.c_str()));
  require(extension != nullptr, "making an extension");
  require(X509_add_ext(certificate, extension.get(), -1) == 1, "adding an extension");
}

void setRandomSerialNumber(X509* certificate) {
  std::uint64_t number = 0;
  require(RAND_bytes(reinterpret_cast<unsigned char*>(&number), sizeof(number)) == 1,
          "drawing a serial number");
  require(ASN1_INTEGER_set_uint64(X509_get_serialNumber(certificate), number >> 1 | 1) == 1,
          "setting the serial number");
}

void setTimes(X509* certificate, const Date& notBefore, const Date& notAfter) {
  const auto seconds = [](const Date& date) {
    return static_cast<std::time_t>(std::floor(date.secondsSince1970));
  };
  require(ASN1_TIME_set(X509_getm_notBefore(certificate), seconds(notBefore)) != nullptr &&
              ASN1_TIME_set(X509_getm_notAfter(certificate), seconds(notAfter)) != nullptr,
          "setting the dates");
}

// The digest for certificates and documents; Ed25519 brings its own.
const EVP_MD* digestFor(const EVP_PKEY* key) {
  return EVP_PKEY_is_a(key, "ED25519") == 1 ? nullptr : EVP_sha256();
}

Data contents(BIO* memory) {
  char* bytes = nullptr;
  const long length = BIO_get_mem_data(memory, &bytes);
  require(length >= 0, "reading a memory buffer");
  return Data(std::string_view(bytes, static_cast<std::size_t>(length)));
}

BIOPointer emptyMemory() {
  BIOPointer memory(BIO_new(BIO_s_mem()));
  require(memory != nullptr, "making a memory buffer");
  return memory;
}

}  // namespace

Identity::Identity(KeyPointer key, CertificatePointer certificate, bool signsWithPSS)
    : _key(std::move(key)), _certificate(std::move(certificate)), _signsWithPSS(signsWithPSS) {}

Identity Identity::make(const Request& request, const Identity* issuer) {
  KeyPointer key = makeKey(request.keyKind);
  CertificatePointer certificate(X509_new(), X509_free);
  X509* const x509 = certificate.get();
  require(x509 != nullptr && X509_set_version(x509, X509_VERSION_3) == 1, "making a certificate");
  setRandomSerialNumber(x509);
  setTimes(x509, request.notBefore, request.notAfter);
  require(X509_set_pubkey(x509, key.get()) == 1, "setting the public key");

  X509_NAME* const name = X509_get_subject_name(x509);
  require(X509_NAME_add_entry_by_txt(
              name, "CN", MBSTRING_UTF8,
              reinterpret_cast<const unsigned char*>(request.commonName.c_str()), -1, -1, 0) == 1,
          "setting the name");
  X509* const signer = issuer != nullptr ? issuer->certificate() : x509;
  require(X509_set_issuer_name(x509, X509_get_subject_name(signer)) == 1, "setting the issuer");

  addExtension(x509, signer, NID_basic_constraints, request.basicConstraints);
  addExtension(x509, signer, NID_key_usage, request.keyUsage);
  addExtension(x509, signer, NID_ext_key_usage, request.extendedKeyUsage);
  addExtension(x509, signer, NID_subject_alt_name, request.alternativeNames);
  addExtension(x509, signer, NID_subject_key_identifier, "hash");
  if (issuer != nullptr) addExtension(x509, signer, NID_authority_key_identifier, "keyid:always");

  EVP_PKEY* const signingKey = issuer != nullptr ? issuer->key() : key.get();
  const EVP_MD* digest = request.signedWithSHA1 ? EVP_sha1() : digestFor(signingKey);
  require(X509_sign(x509, signingKey, digest) > 0, "signing a certificate");
  return {std::move(key), std::move(certificate), request.keyKind == KeyKind::RSAPSS};
}

std::optional<Identity> Identity::fromPEM(const Data& pem) {
  const auto read = [&](auto function) {
    const BIOPointer memory(BIO_new_mem_buf(pem.bytes(), static_cast<int>(pem.length())));
    require(memory != nullptr, "making a memory buffer");
    // A pass phrase that is there keeps the library from asking for one on the terminal.
    static char noPassPhrase[] = "";
    return function(memory.get(), nullptr, nullptr, noPassPhrase);
  };
  KeyPointer key(read(PEM_read_bio_PrivateKey), EVP_PKEY_free);
  CertificatePointer certificate(read(PEM_read_bio_X509), X509_free);
  const bool isWhole = key != nullptr && certificate != nullptr &&
                       X509_check_private_key(certificate.get(), key.get()) == 1;
  ERR_clear_error();
  if (!isWhole) return std::nullopt;
  return Identity(std::move(key), std::move(certificate), false);
}

Data Identity::certificateDER() const {
  std::uint8_t* bytes = nullptr;
  const int length = i2d_X509(_certificate.get(), &bytes);
  require(length > 0, "encoding a certificate");
  Data der(std::span<const std::uint8_t>(bytes, static_cast<std::size_t>(length)));
  OPENSSL_free(bytes);
  return der;
}

Data Identity::certificatePEM() const {
  const BIOPointer memory = emptyMemory();
  require(PEM_write_bio_X509(memory.get(), _certificate.get()) == 1, "encoding a certificate");
  return contents(memory.get());
}

Data Identity::pemWithKey() const {
  const BIOPointer memory = emptyMemory();
  require(PEM_write_bio_PKCS8PrivateKey(memory.get(), _key.get(), nullptr, nullptr, 0, nullptr,
                                        nullptr) == 1 &&
              PEM_write_bio_X509(memory.get(), _certificate.get()) == 1,
          "encoding a key and its certificate");
  return contents(memory.get());
}

bool Identity::isValidAt(const Date& moment) const {
  auto seconds = static_cast<std::time_t>(moment.secondsSince1970);
  return X509_cmp_time(X509_get0_notBefore(_certificate.get()), &seconds) < 0 &&
         X509_cmp_time(X509_get0_notAfter(_certificate.get()), &seconds) > 0;
}

bool Identity::isIssuedBy(const Identity& issuer) const {
  const bool isIssued = X509_verify(_certificate.get(), issuer.key()) == 1;
  ERR_clear_error();
  return isIssued;
}

Data Identity::signatureOver(const Data& document) const {
  const DigestContext context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* keyContext = nullptr;  // owned by the digest context
  require(context != nullptr && EVP_DigestSignInit(context.get(), &keyContext,
                                                   digestFor(_key.get()), nullptr, _key.get()) == 1,
          "starting a signature");
  if (_signsWithPSS) {
    require(EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING) == 1 &&
                EVP_PKEY_CTX_set_rsa_pss_saltlen(keyContext, RSA_PSS_SALTLEN_DIGEST) == 1,
            "choosing the padding");
  }
  std::size_t length = 0;
  require(EVP_DigestSign(context.get(), nullptr, &length, document.bytes(), document.length()) == 1,
          "sizing a signature");
  std::vector<std::uint8_t> signature(length);
  require(EVP_DigestSign(context.get(), signature.data(), &length, document.bytes(),
                         document.length()) == 1,
          "signing");
  signature.resize(length);
  return Data(std::move(signature));
}

}  // namespace tallow::devstore
