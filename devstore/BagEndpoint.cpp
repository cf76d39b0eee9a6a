#include "devstore/BagEndpoint.h"

#include <utility>

#include "devstore/BagSettings.h"
#include "devstore/Bytes.h"
#include "devstore/SigningAuthority.h"

namespace tallow::devstore {

namespace {

using Signature = BagSettings::Signature;
using Wrap = BagSettings::Wrap;

Dictionary signedBag(const Data& bag, const SigningAuthority& authority,
                     const BagSettings& settings) {
  Value signature;
  switch (settings.signature) {
    case Signature::Good:
    case Signature::Flipped:
    case Signature::WrongType:
      signature = authority.signatureOver(bag, settings.chain, settings.keyKind);
      break;
    case Signature::WrongKey:
      signature = authority.strangersSignatureOver(bag);
      break;
    case Signature::Empty:
      signature = Data();
      break;
    case Signature::Missing:
      break;
  }
  if (settings.signature == Signature::Flipped) {
    signature = withFlippedBit(*signature.data(), signature.data()->length() / 2);
  }
  if (settings.signature == Signature::WrongType) signature = "signature";
  const Data sent = settings.flipByte ? withFlippedBit(bag, *settings.flipByte) : bag;
  return {{"certs", authority.chain(settings.chain, settings.keyKind)},
          {"signature", signature},
          {"bag", sent}};
}

}  // namespace

BagEndpoint::BagEndpoint(BagEnvironment environment, const SigningAuthority& authority,
                         StoreURLs urls)
    : _environment(environment), _authority(authority), _urls(std::move(urls)) {}

std::shared_ptr<const Endpoint::Settings> BagEndpoint::readSettings(JSONReader& reader) const {
  return std::make_shared<const BagSettings>(BagSettings::read(reader));
}

Answer BagEndpoint::answer(const ReceivedRequest&, const Settings* staged,
                           PropertyList::Format format) {
  const BagSettings good;
  const BagSettings& settings = staged != nullptr ? static_cast<const BagSettings&>(*staged) : good;
  Dictionary bag = bagContents(_environment, settings.urlsAreSecure ? _urls.https : _urls.http)
                       .merging(settings.set);
  for (const std::string& key : settings.remove) bag = bag.removing(key);

  Dictionary response = bag;
  switch (settings.wrap) {
    case Wrap::Signed:
      response = signedBag(PropertyList::encode(bag, format), _authority, settings);
      break;
    case Wrap::UnsignedDictionary:
      response = {{"bag", bag}};
      break;
    case Wrap::UnsignedData:
      response = {{"bag", PropertyList::encode(bag, format)}};
      break;
    case Wrap::URLBag:
      response = {{"urlBag", bag}};
      break;
    case Wrap::Bare:
      break;
  }
  Answer answer = Answer::propertyList(response, format);
  answer.setHeader("Cache-Control", "max-age=3600");
  return answer;
}

}  // namespace tallow::devstore
