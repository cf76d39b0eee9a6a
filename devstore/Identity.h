#pragma once

#include <memory>
#include <optional>
#include <string>

#include "devstore/KeyKind.h"
#include "platform/Base/Data.h"
#include "platform/Base/Date.h"

struct evp_pkey_st;
struct x509_st;

namespace tallow::devstore {

// A private key and the certificate of its public key. Immutable; copies share both. Callable from
// any thread. That making one fails is no peer's or user's doing and aborts.
class Identity {
 public:
  // What a certificate shall say.
  struct Request {
    std::string commonName;
    KeyKind keyKind = KeyKind::P256;
    Date notBefore, notAfter;
    // The extensions (RFC 5280) in the words of x509v3_config(5); "" leaves one out.
    std::string basicConstraints = "critical,CA:FALSE";
    std::string keyUsage = "critical,digitalSignature";
    std::string extendedKeyUsage;
    std::string alternativeNames;
    bool signedWithSHA1 = false;
  };

  // A fresh key. Without an issuer the certificate is signed by its own key.
  static Identity make(const Request& request, const Identity* issuer);
  // A key and its certificate as pemWithKey() gives them; nullopt when `pem` is anything else, or
  // the two do not belong together.
  static std::optional<Identity> fromPEM(const Data& pem);

  Data certificateDER() const;
  Data certificatePEM() const;
  Data pemWithKey() const;
  bool isValidAt(const Date& moment) const;
  // Whether `issuer`'s key has signed the certificate.
  bool isIssuedBy(const Identity& issuer) const;
  // The key's signature over `document`: with SHA-256, or PureEdDSA for Ed25519.
  Data signatureOver(const Data& document) const;

  evp_pkey_st* key() const { return _key.get(); }
  x509_st* certificate() const { return _certificate.get(); }

 private:
  Identity(std::shared_ptr<evp_pkey_st> key, std::shared_ptr<x509_st> certificate,
           bool signsWithPSS);

  std::shared_ptr<evp_pkey_st> _key;
  std::shared_ptr<x509_st> _certificate;
  bool _signsWithPSS;
};

}  // namespace tallow::devstore
