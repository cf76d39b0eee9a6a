#include "platform/Certificates/HSCertificate.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Base/Clock.h"
#include "platform/Base/Format.h"
#include "platform/Certificates/AnchorStore.h"
#include "platform/Certificates/CryptoContext.h"
#include "platform/Certificates/OpenSSLPointers.h"

namespace tallow {
namespace {

constexpr std::size_t kMaxCertificates = 10;
constexpr std::size_t kMaxCertificateBytes = 64u << 10;
// Certificates between the leaf and the anchor.
constexpr int kMaxIntermediates = static_cast<int>(kMaxCertificates) - 1;
constexpr int kMinRSABits = 2048;
// The library's level of 112 bits: no MD5, no SHA-1, no short keys. What it lets pass beyond that
// (SHA-224, other curves) is refused by problemOfCertificate().
constexpr int kSecurityLevel = 2;

using StoreContextPointer = std::unique_ptr<X509_STORE_CTX, Freeing<X509_STORE_CTX_free>>;
using KeyContextPointer = std::unique_ptr<EVP_PKEY_CTX, Freeing<EVP_PKEY_CTX_free>>;
using DigestContextPointer = std::unique_ptr<EVP_MD_CTX, Freeing<EVP_MD_CTX_free>>;
// Owns the list, not the certificates in it.
using X509ListPointer =
    std::unique_ptr<STACK_OF(X509), decltype([](STACK_OF(X509) * list) { sk_X509_free(list); })>;

// Keeps the library's per-thread error queue as it was.
class ErrorMark {
 public:
  ErrorMark() { ERR_set_mark(); }
  ~ErrorMark() { ERR_pop_to_mark(); }
  ErrorMark(const ErrorMark&) = delete;
  ErrorMark& operator=(const ErrorMark&) = delete;
};

OSSL_LIB_CTX* libraryContext() {
  return static_cast<OSSL_LIB_CTX*>(certificateCryptoContext());
}

X509Pointer decodeCertificate(const Data& der) {
  X509* certificate = X509_new_ex(libraryContext(), nullptr);
  const unsigned char* position = der.bytes();
  const bool decoded =
      certificate != nullptr &&
      d2i_X509(&certificate, &position, static_cast<long>(der.length())) != nullptr &&
      position == der.bytes() + der.length();
  X509Pointer result(certificate);
  if (!decoded) result.reset();
  return result;
}

enum class KeyKind { Refused, RSA, RSAPSS, P256, P384, Ed25519 };

KeyKind ellipticKeyKind(const EVP_PKEY* key) {
  int isExplicit = 0;
  // Curve parameters that are written out are not compared with anything: refuse them.
  if (EVP_PKEY_get_int_param(key, OSSL_PKEY_PARAM_EC_DECODED_FROM_EXPLICIT_PARAMS, &isExplicit) !=
          1 ||
      isExplicit != 0)
    return KeyKind::Refused;
  std::array<char, 64> name = {};
  if (EVP_PKEY_get_group_name(key, name.data(), name.size(), nullptr) != 1) return KeyKind::Refused;
  const std::string_view group = name.data();
  if (group == SN_X9_62_prime256v1) return KeyKind::P256;
  if (group == SN_secp384r1) return KeyKind::P384;
  return KeyKind::Refused;
}

KeyKind keyKind(const EVP_PKEY* key) {
  if (key == nullptr) return KeyKind::Refused;
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      return EVP_PKEY_get_bits(key) >= kMinRSABits ? KeyKind::RSA : KeyKind::Refused;
    case EVP_PKEY_RSA_PSS:
      return EVP_PKEY_get_bits(key) >= kMinRSABits ? KeyKind::RSAPSS : KeyKind::Refused;
    case EVP_PKEY_EC:
      return ellipticKeyKind(key);
    case EVP_PKEY_ED25519:
      return KeyKind::Ed25519;
    default:
      return KeyKind::Refused;
  }
}

bool isSignedWithAcceptedDigest(X509* certificate) {
  int digest = NID_undef;
  int algorithm = NID_undef;
  if (X509_get_signature_info(certificate, &digest, &algorithm, nullptr, nullptr) != 1)
    return false;
  return digest == NID_sha256 || digest == NID_sha384 || digest == NID_sha512 ||
         (digest == NID_undef && algorithm == NID_ED25519);
}

// What the library's verification leaves open for one certificate of the verified chain: that keys
// and digests are among the accepted ones, that whoever issues says so in basic constraints (the
// library also takes older ways of saying it), and that the leaf may sign documents. Empty when all
// is well.
std::string problemOfCertificate(X509* certificate, bool isLeaf) {
  if (keyKind(X509_get0_pubkey(certificate)) == KeyKind::Refused)
    return "the key's type or size is not accepted";
  if (!isSignedWithAcceptedDigest(certificate))
    return "it is signed with a digest that is not accepted";
  const std::uint32_t flags = X509_get_extension_flags(certificate);
  const bool issues = (flags & EXFLAG_BCONS) != 0 && (flags & EXFLAG_CA) != 0;
  if (!isLeaf) return issues ? "" : "it may not issue certificates";
  // Without a key-usage extension every usage is allowed, but what an issuer has to sign is
  // certificates: it signs documents only where it says so.
  const bool statesUsage = (flags & EXFLAG_KUSAGE) != 0;
  const bool signs = (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
  if (statesUsage ? !signs : issues) return "its key is not meant for signing documents";
  // RFC 5280 section 4.2.1.12: whoever states purposes may be used for those only.
  if ((flags & EXFLAG_XKUSAGE) != 0 &&
      (X509_get_extended_key_usage(certificate) & (XKU_CODE_SIGN | XKU_ANYEKU)) == 0)
    return "its purposes do not include signing";
  return "";
}

// One way in which a detached signature can have been made.
struct SignatureForm {
  const char* digest;
  int rsaPadding;  // 0: not RSA
};

// The forms to try for a key, the most likely first; a digest's forms stand together, so that the
// data is read once per digest.
std::vector<SignatureForm> signatureForms(KeyKind kind) {
  switch (kind) {
    case KeyKind::RSA:
      return {{"SHA256", RSA_PKCS1_PADDING}, {"SHA256", RSA_PKCS1_PSS_PADDING},
              {"SHA384", RSA_PKCS1_PADDING}, {"SHA384", RSA_PKCS1_PSS_PADDING},
              {"SHA512", RSA_PKCS1_PADDING}, {"SHA512", RSA_PKCS1_PSS_PADDING}};
    case KeyKind::RSAPSS:
      return {{"SHA256", RSA_PKCS1_PSS_PADDING},
              {"SHA384", RSA_PKCS1_PSS_PADDING},
              {"SHA512", RSA_PKCS1_PSS_PADDING}};
    case KeyKind::P256:
      return {{"SHA256", 0}, {"SHA384", 0}, {"SHA512", 0}};
    case KeyKind::P384:
      return {{"SHA384", 0}, {"SHA256", 0}, {"SHA512", 0}};
    default:
      return {};
  }
}

using DigestPointer = std::unique_ptr<EVP_MD, Freeing<EVP_MD_free>>;

bool verifyDigest(EVP_PKEY* key, const SignatureForm& form, const EVP_MD* digest,
                  std::span<const std::uint8_t> hash, const Data& signature) {
  const KeyContextPointer context(EVP_PKEY_CTX_new_from_pkey(libraryContext(), key, nullptr));
  return context && EVP_PKEY_verify_init(context.get()) == 1 &&
         (form.rsaPadding == 0 ||
          EVP_PKEY_CTX_set_rsa_padding(context.get(), form.rsaPadding) == 1) &&
         EVP_PKEY_CTX_set_signature_md(context.get(), digest) == 1 &&
         EVP_PKEY_verify(context.get(), signature.bytes(), signature.length(), hash.data(),
                         hash.size()) == 1;
}

bool verifyEdwards(EVP_PKEY* key, const Data& data, const Data& signature) {
  const DigestContextPointer context(EVP_MD_CTX_new());
  return context &&
         EVP_DigestVerifyInit_ex(context.get(), nullptr, nullptr, libraryContext(), nullptr, key,
                                 nullptr) == 1 &&
         EVP_DigestVerify(context.get(), signature.bytes(), signature.length(), data.bytes(),
                          data.length()) == 1;
}

bool verifySignature(EVP_PKEY* key, const Data& data, const Data& signature) {
  const KeyKind kind = keyKind(key);
  if (kind == KeyKind::Ed25519) return verifyEdwards(key, data, signature);
  DigestPointer digest;
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> hash = {};
  unsigned hashLength = 0;
  for (const SignatureForm& form : signatureForms(kind)) {
    if (!digest || EVP_MD_is_a(digest.get(), form.digest) != 1) {
      digest.reset(EVP_MD_fetch(libraryContext(), form.digest, nullptr));
      if (!digest || EVP_Digest(data.bytes(), data.length(), hash.data(), &hashLength, digest.get(),
                                nullptr) != 1)
        return false;
    }
    if (verifyDigest(key, form, digest.get(), {hash.data(), hashLength}, signature)) return true;
  }
  return false;
}

}  // namespace

struct HSCertificate::State {
  std::vector<X509Pointer> certificates;  // the leaf first
  std::string problem;                    // why there is nothing to check
  std::optional<bool> verdict;            // of the last isValid()
  std::string reason;

  std::string load(const Array& elements);
  std::string verify() const;
};

// Decodes the certificates; says what is wrong with them, or nothing.
std::string HSCertificate::State::load(const Array& elements) {
  if (elements.empty()) return "the chain is empty";
  if (elements.count() > kMaxCertificates)
    return format("the chain has more than %lu certificates", kMaxCertificates);
  for (std::size_t i = 0; i < elements.count(); ++i) {
    const Data* der = elements[i].data();
    if (der == nullptr)
      return format("certificate %lu of the chain is a %s", i, elements[i].typeName());
    X509Pointer certificate =
        der->length() <= kMaxCertificateBytes ? decodeCertificate(*der) : nullptr;
    if (!certificate)
      return format("certificate %lu of the chain is not exactly one DER certificate", i);
    certificates.push_back(std::move(certificate));
  }
  return "";
}

// Judges the chain at the present moment; says what is wrong with it, or nothing.
std::string HSCertificate::State::verify() const {
  const AnchorStore::Anchors anchors = AnchorStore::shared().current();
  if (anchors.count == 0) return "no trust anchors are installed";

  const X509ListPointer untrusted(sk_X509_new_null());
  const StoreContextPointer context(X509_STORE_CTX_new_ex(libraryContext(), nullptr));
  if (!untrusted || !context) return "out of memory";
  for (std::size_t i = 1; i < certificates.size(); ++i)
    if (sk_X509_push(untrusted.get(), certificates[i].get()) == 0) return "out of memory";
  if (X509_STORE_CTX_init(context.get(), static_cast<X509_STORE*>(anchors.store.get()),
                          certificates[0].get(), untrusted.get()) != 1)
    return "out of memory";

  // An anchor is an anchor because it is installed, not because it has signed itself.
  X509_VERIFY_PARAM* parameters = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_PARTIAL_CHAIN | X509_V_FLAG_POLICY_CHECK);
  X509_VERIFY_PARAM_set_auth_level(parameters, kSecurityLevel);
  X509_VERIFY_PARAM_set_depth(parameters, kMaxIntermediates);
  X509_VERIFY_PARAM_set_time(
      parameters, static_cast<std::time_t>(std::floor(Clock::shared().now().secondsSince1970)));

  if (X509_verify_cert(context.get()) != 1) {
    return format("%s (certificate %d of the path)",
                  X509_verify_cert_error_string(X509_STORE_CTX_get_error(context.get())),
                  X509_STORE_CTX_get_error_depth(context.get()));
  }
  STACK_OF(X509)* path = X509_STORE_CTX_get0_chain(context.get());
  for (int i = 0; i < sk_X509_num(path); ++i) {
    const std::string found = problemOfCertificate(sk_X509_value(path, i), i == 0);
    if (!found.empty()) return format("%s (certificate %d of the path)", found, i);
  }
  return "";
}

HSCertificate::HSCertificate() : _state(std::make_unique<State>()) {
  _state->problem = "no certificate has been set";
}
HSCertificate::~HSCertificate() = default;
HSCertificate::HSCertificate(HSCertificate&&) noexcept = default;

void HSCertificate::setCertificateData(const Array& certificates) {
  const ErrorMark mark;
  *_state = State();
  _state->problem = _state->load(certificates);
}

bool HSCertificate::isValid() const {
  const ErrorMark mark;
  _state->reason = !_state->problem.empty() ? _state->problem : _state->verify();
  _state->verdict = _state->reason.empty();
  return *_state->verdict;
}

bool HSCertificate::checkData(const Data& data, const Data& againstSignature) const {
  // The verdict on the chain is expensive and a moment old at most: this object is made for one
  // check.
  if (!(_state->verdict ? *_state->verdict : isValid())) return false;
  const ErrorMark mark;
  const bool verified =
      !againstSignature.empty() &&
      verifySignature(X509_get0_pubkey(_state->certificates[0].get()), data, againstSignature);
  _state->reason = verified ? "" : "the signature does not match the data";
  return verified;
}

void HSCertificate::prepare() {
  // By whoever uses the library first: else a process that ends cleans it up at once, in the midst
  // of what other threads are doing with it.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  const ErrorMark mark;
  const AnchorStore::Anchors anchors = AnchorStore::shared().current();
  if (anchors.count == 0) return;
  STACK_OF(X509_OBJECT)* all =
      X509_STORE_get0_objects(static_cast<X509_STORE*>(anchors.store.get()));
  X509* anchor = X509_OBJECT_get0_X509(sk_X509_OBJECT_value(all, 0));
  // Whether it has signed itself is of no interest; looking makes the library find its algorithms.
  if (anchor != nullptr) X509_verify(anchor, X509_get0_pubkey(anchor));
}

const std::string& HSCertificate::reason() const {
  return _state->reason;
}

}  // namespace tallow
