#include "devstore/SigningAuthority.h"

#include <string>

#include "devstore/StateDirectory.h"
#include "platform/Base/Clock.h"
#include "platform/Base/Value.h"

namespace tallow::devstore {

namespace {

constexpr double kYear = 365 * kSecondsPerDay;
constexpr const char* kSignsCertificates = "critical,keyCertSign,cRLSign";
constexpr int kTooManyIssuers = 10;

Identity::Request request(std::string commonName) {
  const Date now = Clock::shared().now();
  Identity::Request request;
  request.commonName = std::move(commonName);
  request.notBefore = now.addingSeconds(-kYear);
  request.notAfter = now.addingSeconds(10 * kYear);
  return request;
}

Identity::Request issuerRequest(std::string commonName, const std::string& pathLength = "") {
  Identity::Request issuer = request(std::move(commonName));
  issuer.basicConstraints =
      "critical,CA:TRUE" + (pathLength.empty() ? std::string() : ",pathlen:" + pathLength);
  issuer.keyUsage = kSignsCertificates;
  return issuer;
}

Identity::Request leafRequest(KeyKind keyKind) {
  Identity::Request leaf = request("Development Store Bag Signing");
  leaf.keyKind = keyKind;
  return leaf;
}

}  // namespace

SigningAuthority::SigningAuthority(Identity root, Identity intermediate, Identity leaf)
    : _root(std::move(root)), _intermediate(std::move(intermediate)), _leaf(std::move(leaf)) {}

Result<std::unique_ptr<SigningAuthority>> SigningAuthority::open(const StateDirectory& directory) {
  constexpr const char* kNames[] = {"signing-root", "signing-intermediate", "signing-leaf"};
  std::vector<Identity> kept;
  for (const char* name : kNames) {
    const Result<std::optional<Identity>> identity = directory.identity(name);
    if (!identity) return identity.error();
    // A day ahead, so that a chain never expires under a test that is running.
    const Date soon = Clock::shared().now().addingSeconds(kSecondsPerDay);
    if (*identity && (*identity)->isValidAt(soon) &&
        (*identity)->isIssuedBy(kept.empty() ? **identity : kept.back())) {
      kept.push_back(**identity);
    }
  }
  if (kept.size() != std::size(kNames)) {
    const Identity root = Identity::make(issuerRequest("Development Store Root"), nullptr);
    const Identity intermediate =
        Identity::make(issuerRequest("Development Store Intermediate", "0"), &root);
    kept = {root, intermediate, Identity::make(leafRequest(KeyKind::P256), &intermediate)};
    for (std::size_t i = 0; i < kept.size(); ++i) {
      if (std::optional<Error> error = directory.keepIdentity(kNames[i], kept[i])) return *error;
    }
  }
  return std::unique_ptr<SigningAuthority>(new SigningAuthority(kept[0], kept[1], kept[2]));
}

Array SigningAuthority::chain(ChainKind chainKind, KeyKind keyKind) const {
  if (chainKind == ChainKind::Empty) return Array();
  const Chain& chain = chainFor(chainKind, keyKind);
  Data leaf = chain.leaf.certificateDER();
  if (chainKind == ChainKind::TrailingByte) leaf = Data(std::string(leaf.view()) + '\0');
  std::vector<Value> certificates{leaf};
  for (const Identity& issuer : chain.issuers) certificates.emplace_back(issuer.certificateDER());
  return Array(std::move(certificates));
}

Data SigningAuthority::signatureOver(const Data& document, ChainKind chainKind,
                                     KeyKind keyKind) const {
  return chainFor(chainKind, keyKind).leaf.signatureOver(document);
}

Data SigningAuthority::strangersSignatureOver(const Data& document) const {
  return chainFor(ChainKind::SelfSigned, KeyKind::P256).leaf.signatureOver(document);
}

const SigningAuthority::Chain& SigningAuthority::chainFor(ChainKind chainKind,
                                                          KeyKind keyKind) const {
  const std::lock_guard guard(_lock);
  const auto found = _chains.find({chainKind, keyKind});
  if (found != _chains.end()) return found->second;
  return _chains.emplace(std::pair(chainKind, keyKind), makeChain(chainKind, keyKind))
      .first->second;
}

SigningAuthority::Chain SigningAuthority::makeChain(ChainKind chainKind, KeyKind keyKind) const {
  const Date now = Clock::shared().now();
  Identity::Request leaf = leafRequest(keyKind);
  switch (chainKind) {
    case ChainKind::Good:
    case ChainKind::TrailingByte:
    case ChainKind::Empty:
      if (keyKind == KeyKind::P256) return {_leaf, {_intermediate}};
      break;
    case ChainKind::Expired:
      leaf.notAfter = now.addingSeconds(-kSecondsPerDay);
      break;
    case ChainKind::NotYetValid:
      leaf.notBefore = now.addingSeconds(kSecondsPerDay);
      break;
    case ChainKind::SelfSigned:
      return {Identity::make(leaf, nullptr), {}};
    case ChainKind::WrongAnchor:
      return makeChainToAnotherRoot(keyKind);
    case ChainKind::MissingIntermediate:
      return {Identity::make(leaf, &_intermediate), {}};
    case ChainKind::NotACA: {
      const Identity intermediate =
          Identity::make(request("Development Store Intermediate"), &_root);
      return {Identity::make(leaf, &intermediate), {intermediate}};
    }
    case ChainKind::WrongKeyUsage:
      leaf.keyUsage = "critical,keyAgreement";
      break;
    case ChainKind::WeakDigest:
      leaf.signedWithSHA1 = true;
      break;
    case ChainKind::ShortKey:
      leaf.keyKind = KeyKind::ShortRSA;
      break;
    case ChainKind::TooLong:
      return makeTooLongChain(keyKind);
  }
  return {Identity::make(leaf, &_intermediate), {_intermediate}};
}

SigningAuthority::Chain SigningAuthority::makeChainToAnotherRoot(KeyKind keyKind) const {
  // The same names as in the good chain: only the keys tell them apart.
  const Identity root = Identity::make(issuerRequest("Development Store Root"), nullptr);
  const Identity intermediate =
      Identity::make(issuerRequest("Development Store Intermediate", "0"), &root);
  return {Identity::make(leafRequest(keyKind), &intermediate), {intermediate}};
}

SigningAuthority::Chain SigningAuthority::makeTooLongChain(KeyKind keyKind) const {
  std::vector<Identity> issuers;
  for (int i = 0; i < kTooManyIssuers; ++i) {
    const Identity above = issuers.empty() ? _root : issuers.front();
    issuers.insert(issuers.begin(),
                   Identity::make(issuerRequest("Development Store " + std::to_string(i)), &above));
  }
  const Identity leaf = Identity::make(leafRequest(keyKind), &issuers.front());
  return {leaf, std::move(issuers)};
}

}  // namespace tallow::devstore
