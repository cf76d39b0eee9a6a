#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "devstore/Identity.h"
#include "platform/Base/Result.h"

namespace tallow::devstore {

class StateDirectory;

// Signs documents for the store: a root, an intermediate and a leaf that stay the same across
// restarts, and beside them every kind of chain that a verifier has to refuse, made when first
// asked for. Owned by the store; callable from any thread.
class SigningAuthority {
 public:
  enum class ChainKind {
    Good,
    Expired,
    NotYetValid,
    SelfSigned,           // a leaf alone that has signed itself
    WrongAnchor,          // good in itself, but leads to another root
    MissingIntermediate,  // the leaf alone
    NotACA,               // the intermediate may not issue certificates
    WrongKeyUsage,        // the leaf may not sign documents
    WeakDigest,           // the leaf's certificate is signed with SHA-1
    ShortKey,             // a leaf of RSA with 1024 bits
    TooLong,              // eleven certificates
    TrailingByte,         // good, but with one byte after the leaf's DER
    Empty,                // no certificate at all
  };

  // Takes the keys that the folder holds; makes and keeps new ones where any is missing or expired.
  static Result<std::unique_ptr<SigningAuthority>> open(const StateDirectory& directory);

  Data rootPEM() const { return _root.certificatePEM(); }
  // The certificates (DER) of the chain, the leaf first, the root left out.
  Array chain(ChainKind chainKind, KeyKind keyKind) const;
  // The signature of that chain's leaf.
  Data signatureOver(const Data& document, ChainKind chainKind, KeyKind keyKind) const;
  // The signature of a key that is in no chain.
  Data strangersSignatureOver(const Data& document) const;

 private:
  struct Chain {
    Identity leaf;
    std::vector<Identity> issuers;  // from the leaf's own upwards, without the root
  };

  SigningAuthority(Identity root, Identity intermediate, Identity leaf);
  const Chain& chainFor(ChainKind chainKind, KeyKind keyKind) const;
  Chain makeChain(ChainKind chainKind, KeyKind keyKind) const;
  Chain makeChainToAnotherRoot(KeyKind keyKind) const;
  Chain makeTooLongChain(KeyKind keyKind) const;

  const Identity _root, _intermediate, _leaf;
  mutable std::mutex _lock;
  mutable std::map<std::pair<ChainKind, KeyKind>, Chain> _chains;  // guarded by _lock; only grows
};

}  // namespace tallow::devstore
