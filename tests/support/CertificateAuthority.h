#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/Base/Data.h"
#include "platform/Base/Date.h"
#include "platform/Base/Value.h"

namespace tallow {

// A private key made for tests. Copies share it.
class TestKey {
 public:
  static TestKey rsa(int bits);
  static TestKey rsaPSS(int bits);                  // usable with PSS alone
  static TestKey ellipticCurve(const char* group);  // "P-256", "P-384", "P-224"
  static TestKey explicitP256();                    // the curve written out instead of named
  static TestKey ed25519();
  static TestKey ed448();

  enum class Padding { Default, PSS };
  // A detached signature; `digest` is ignored by keys that bring their own.
  Data sign(const Data& data, const char* digest = "SHA256",
            Padding padding = Padding::Default) const;
  std::string pem() const;
  void* handle() const { return _key.get(); }  // EVP_PKEY

 private:
  explicit TestKey(void* key);
  std::shared_ptr<void> _key;
};

// What a certificate is to say. Extension values are written as in OpenSSL's x509v3_config(5).
struct CertificateOptions {
  std::string commonName = "Test";
  Date notBefore{1'700'000'000};
  Date notAfter{2'000'000'000};
  const char* digest = "SHA256";
  TestKey::Padding padding = TestKey::Padding::Default;
  std::string basicConstraints = {};  // "critical,CA:TRUE,pathlen:0"; "" leaves it out
  std::string keyUsage = {};          // "critical,keyCertSign"; "" leaves it out
  std::vector<std::pair<std::string, std::string>> extensions = {};  // OID or name, value

  static CertificateOptions authority(std::string commonName);
  static CertificateOptions signer(std::string commonName);
};

// A certificate made for tests together with its key: an authority that issues others, or a leaf
// that signs.
class TestCertificate {
 public:
  static TestCertificate selfSigned(TestKey key, const CertificateOptions& options);
  TestCertificate issue(TestKey key, const CertificateOptions& options) const;

  const Data& der() const { return _der; }
  std::string pem() const;
  const TestKey& key() const { return _key; }

 private:
  TestCertificate(TestKey key, std::shared_ptr<void> certificate);
  static TestCertificate make(TestKey key, const CertificateOptions& options,
                              const TestCertificate* issuer);

  TestKey _key;
  std::shared_ptr<void> _certificate;
  Data _der;
};

// A root, an intermediate and a leaf that signs documents, on P-256 keys.
struct TestChain {
  TestChain();
  // As a signed document carries it: leaf, intermediate.
  Array certificates() const { return {leaf.der(), intermediate.der()}; }

  TestCertificate root, intermediate, leaf;
};

}  // namespace tallow
