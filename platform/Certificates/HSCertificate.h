#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "platform/Base/Result.h"

namespace tallow {

// A chain of DER certificates that signs store documents, and the check of a signature made with
// its leaf. The chain is judged as TLS would judge a signing chain (RFC 5280 section 6): trust
// anchors from the files tallowd/anchors/*.pem of the system's configuration directories only,
// validity dates, basic constraints, path length, key usage, no unknown critical extension, at most
// 10 certificates, no byte after the DER. Keys: RSA of 2048 bits and up (PKCS#1 v1.5 and PSS),
// ECDSA P-256 and P-384, Ed25519; digests SHA-256 and up; SHA-1 and MD5 are refused everywhere.
//
// A value made for one check; not shared between threads.
class HSCertificate {
 public:
  HSCertificate();
  ~HSCertificate();
  HSCertificate(HSCertificate&&) noexcept;

  // `certificates`: an array of data, the leaf first, the rest in any order.
  void setCertificateData(const Array& certificates);
  // The verdict on the chain at the present moment (Clock::shared()).
  bool isValid() const;
  // Whether `signature` over exactly `data` verifies with the leaf's key. False unless isValid().
  bool checkData(const Data& data, const Data& againstSignature) const;
  // Why the last isValid() or checkData() said no, for logs and people; empty after a yes.
  const std::string& reason() const;

  // Does beforehand what the first check of a process would wait for, which is most of what it
  // takes: reads the anchors and has the library find its algorithms. Any thread; changes nothing
  // else.
  static void prepare();

 private:
  struct State;
  std::unique_ptr<State> _state;
};

}  // namespace tallow
