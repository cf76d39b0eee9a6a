#include "tests/support/CertificateAuthority.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace tallow {
namespace {

// Test code: what cannot fail ends the test when it does.
template <class T>
T require(T result, const char* what) {
  if (result == T{} || result == T(-1)) {
    std::fprintf(stderr, "CertificateAuthority: %s failed\n", what);
    std::abort();
  }
  return result;
}

EVP_PKEY* keyOf(const TestKey& key) {
  return static_cast<EVP_PKEY*>(key.handle());
}

using ContextPointer = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;
using DigestPointer = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
using BIOPointer = std::unique_ptr<BIO, decltype(&BIO_free)>;

EVP_PKEY* generate(const char* algorithm, const OSSL_PARAM* parameters) {
  const ContextPointer context(EVP_PKEY_CTX_new_from_name(nullptr, algorithm, nullptr),
                               &EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  require(EVP_PKEY_keygen_init(context.get()), "keygen_init");
  require(EVP_PKEY_CTX_set_params(context.get(), parameters), "set_params");
  require(EVP_PKEY_generate(context.get(), &key), "generate");
  return key;
}

std::string contents(BIO* bio) {
  char* text = nullptr;
  const long length = BIO_get_mem_data(bio, &text);
  return std::string(text, static_cast<std::size_t>(length));
}

void setTime(const ASN1_TIME* field, Date date) {
  require(ASN1_TIME_adj(const_cast<ASN1_TIME*>(field), static_cast<time_t>(date.secondsSince1970),
                        0, 0),
          "ASN1_TIME_adj");
}

void addExtension(X509* certificate, X509* issuer, const std::string& name,
                  const std::string& value) {
  if (value.empty()) return;
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509V3_set_ctx_nodb(&context);
  X509_EXTENSION* extension =
      require(X509V3_EXT_nconf(nullptr, &context, name.c_str(), value.c_str()), name.c_str());
  require(X509_add_ext(certificate, extension, -1), "X509_add_ext");
  X509_EXTENSION_free(extension);
}

// What a key signs with; Edwards keys bring their own digest.
DigestPointer signing(const TestKey& key, const char* digest, TestKey::Padding padding) {
  const bool hasOwnDigest = EVP_PKEY_get_base_id(keyOf(key)) == EVP_PKEY_ED25519 ||
                            EVP_PKEY_get_base_id(keyOf(key)) == EVP_PKEY_ED448;
  DigestPointer context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
  EVP_PKEY_CTX* keyContext = nullptr;
  require(EVP_DigestSignInit_ex(context.get(), &keyContext, hasOwnDigest ? nullptr : digest,
                                nullptr, nullptr, keyOf(key), nullptr),
          "DigestSignInit");
  if (padding == TestKey::Padding::PSS)
    require(EVP_PKEY_CTX_set_rsa_padding(keyContext, RSA_PKCS1_PSS_PADDING), "set_rsa_padding");
  return context;
}

EVP_PKEY* generateRSA(const char* algorithm, int bits) {
  const OSSL_PARAM parameters[] = {OSSL_PARAM_construct_int(OSSL_PKEY_PARAM_RSA_BITS, &bits),
                                   OSSL_PARAM_construct_end()};
  return generate(algorithm, parameters);
}

}  // namespace

TestKey::TestKey(void* key)
    : _key(require(key, "key"), [](void* owned) { EVP_PKEY_free(static_cast<EVP_PKEY*>(owned)); }) {
}

TestKey TestKey::rsa(int bits) {
  return TestKey(generateRSA("RSA", bits));
}

TestKey TestKey::rsaPSS(int bits) {
  return TestKey(generateRSA("RSA-PSS", bits));
}

TestKey TestKey::ellipticCurve(const char* group) {
  return TestKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", group));
}

TestKey TestKey::explicitP256() {
  char group[] = "P-256";
  char encoding[] = OSSL_PKEY_EC_ENCODING_EXPLICIT;
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_GROUP_NAME, &group[0], 0),
      OSSL_PARAM_construct_utf8_string(OSSL_PKEY_PARAM_EC_ENCODING, &encoding[0], 0),
      OSSL_PARAM_construct_end()};
  return TestKey(generate("EC", parameters));
}

TestKey TestKey::ed25519() {
  return TestKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
}

TestKey TestKey::ed448() {
  return TestKey(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"));
}

Data TestKey::sign(const Data& data, const char* digest, Padding padding) const {
  const DigestPointer context = signing(*this, digest, padding);
  std::size_t length = 0;
  require(EVP_DigestSign(context.get(), nullptr, &length, data.bytes(), data.length()), "length");
  std::vector<std::uint8_t> signature(length);
  require(EVP_DigestSign(context.get(), signature.data(), &length, data.bytes(), data.length()),
          "DigestSign");
  signature.resize(length);
  return Data(std::move(signature));
}

std::string TestKey::pem() const {
  const BIOPointer bio(BIO_new(BIO_s_mem()), &BIO_free);
  require(PEM_write_bio_PrivateKey(bio.get(), keyOf(*this), nullptr, nullptr, 0, nullptr, nullptr),
          "PEM_write_bio_PrivateKey");
  return contents(bio.get());
}

CertificateOptions CertificateOptions::authority(std::string commonName) {
  return {.commonName = std::move(commonName),
          .basicConstraints = "critical,CA:TRUE",
          .keyUsage = "critical,keyCertSign,cRLSign"};
}

CertificateOptions CertificateOptions::signer(std::string commonName) {
  return {.commonName = std::move(commonName),
          .basicConstraints = "critical,CA:FALSE",
          .keyUsage = "critical,digitalSignature"};
}

TestCertificate::TestCertificate(TestKey key, std::shared_ptr<void> certificate)
    : _key(std::move(key)), _certificate(std::move(certificate)) {
  unsigned char* bytes = nullptr;
  const int length = require(i2d_X509(static_cast<X509*>(_certificate.get()), &bytes), "i2d_X509");
  _der = Data(std::span<const std::uint8_t>(bytes, static_cast<std::size_t>(length)));
  OPENSSL_free(bytes);
}

TestCertificate TestCertificate::selfSigned(TestKey key, const CertificateOptions& options) {
  return make(std::move(key), options, nullptr);
}

TestCertificate TestCertificate::issue(TestKey key, const CertificateOptions& options) const {
  return make(std::move(key), options, this);
}

TestCertificate TestCertificate::make(TestKey key, const CertificateOptions& options,
                                      const TestCertificate* issuer) {
  static std::atomic<long> serial{0};
  const std::shared_ptr<void> made(require(X509_new(), "X509_new"), [](void* certificate) {
    X509_free(static_cast<X509*>(certificate));
  });
  auto* certificate = static_cast<X509*>(made.get());
  X509* issuerCertificate =
      issuer != nullptr ? static_cast<X509*>(issuer->_certificate.get()) : certificate;
  require(X509_set_version(certificate, X509_VERSION_3), "version");
  require(ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial), "serial");
  setTime(X509_get0_notBefore(certificate), options.notBefore);
  setTime(X509_get0_notAfter(certificate), options.notAfter);
  require(X509_NAME_add_entry_by_txt(
              X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
              reinterpret_cast<const unsigned char*>(options.commonName.c_str()), -1, -1, 0),
          "subject");
  require(X509_set_issuer_name(certificate, X509_get_subject_name(issuerCertificate)), "issuer");
  require(X509_set_pubkey(certificate, keyOf(key)), "pubkey");
  // With these a verifier tells two issuers of the same name apart.
  addExtension(certificate, issuerCertificate, "subjectKeyIdentifier", "hash");
  addExtension(certificate, issuerCertificate, "authorityKeyIdentifier", "keyid");
  addExtension(certificate, issuerCertificate, "basicConstraints", options.basicConstraints);
  addExtension(certificate, issuerCertificate, "keyUsage", options.keyUsage);
  for (const auto& [name, value] : options.extensions)
    addExtension(certificate, issuerCertificate, name, value);
  const DigestPointer signer =
      signing(issuer != nullptr ? issuer->_key : key, options.digest, options.padding);
  require(X509_sign_ctx(certificate, signer.get()), "X509_sign_ctx");
  return TestCertificate(std::move(key), made);
}

std::string TestCertificate::pem() const {
  const BIOPointer bio(BIO_new(BIO_s_mem()), &BIO_free);
  require(PEM_write_bio_X509(bio.get(), static_cast<X509*>(_certificate.get())), "PEM_write_bio");
  return contents(bio.get());
}

TestChain::TestChain()
    : root(TestCertificate::selfSigned(TestKey::ellipticCurve("P-256"),
                                       CertificateOptions::authority("Test Root"))),
      intermediate(root.issue(TestKey::ellipticCurve("P-256"),
                              CertificateOptions::authority("Test Intermediate"))),
      leaf(intermediate.issue(TestKey::ellipticCurve("P-256"),
                              CertificateOptions::signer("Test Leaf"))) {}

}  // namespace tallow
