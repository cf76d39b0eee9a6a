#include "devstore/BagSettings.h"

#include <nlohmann/json.hpp>

#include "devstore/JSONReader.h"
#include "devstore/JSONValue.h"

namespace tallow::devstore {

BagSettings BagSettings::read(JSONReader& reader) {
  using ChainKind = SigningAuthority::ChainKind;
  BagSettings settings;
  settings.signature = reader
                           .choice<Signature>("signature", {{"good", Signature::Good},
                                                            {"flip", Signature::Flipped},
                                                            {"missing", Signature::Missing},
                                                            {"wrong-key", Signature::WrongKey},
                                                            {"empty", Signature::Empty},
                                                            {"wrong-type", Signature::WrongType}})
                           .value_or(settings.signature);
  settings.chain =
      reader
          .choice<ChainKind>("chain", {{"good", ChainKind::Good},
                                       {"expired", ChainKind::Expired},
                                       {"not-yet-valid", ChainKind::NotYetValid},
                                       {"self-signed", ChainKind::SelfSigned},
                                       {"wrong-anchor", ChainKind::WrongAnchor},
                                       {"no-intermediate", ChainKind::MissingIntermediate},
                                       {"not-a-ca", ChainKind::NotACA},
                                       {"wrong-key-usage", ChainKind::WrongKeyUsage},
                                       {"weak-digest", ChainKind::WeakDigest},
                                       {"short-key", ChainKind::ShortKey},
                                       {"too-long", ChainKind::TooLong},
                                       {"trailing-byte", ChainKind::TrailingByte},
                                       {"empty", ChainKind::Empty}})
          .value_or(settings.chain);
  settings.keyKind = reader
                         .choice<KeyKind>("key", {{"p256", KeyKind::P256},
                                                  {"p384", KeyKind::P384},
                                                  {"rsa", KeyKind::RSA},
                                                  {"rsa-pss", KeyKind::RSAPSS},
                                                  {"ed25519", KeyKind::Ed25519}})
                         .value_or(settings.keyKind);
  settings.wrap = reader
                      .choice<Wrap>("wrap", {{"signed", Wrap::Signed},
                                             {"unsigned-dictionary", Wrap::UnsignedDictionary},
                                             {"unsigned-data", Wrap::UnsignedData},
                                             {"urlBag", Wrap::URLBag},
                                             {"bare", Wrap::Bare}})
                      .value_or(settings.wrap);
  settings.urlsAreSecure =
      reader.choice<bool>("urls", {{"https", true}, {"http", false}}).value_or(true);
  if (const auto index = reader.integer("flipByte", 0, 64 << 20)) {
    settings.flipByte = static_cast<std::size_t>(*index);
  }
  if (const nlohmann::json* changes = reader.member("set")) {
    const std::optional<Value> value = valueFromJSON(*changes);
    if (value && value->dictionary() != nullptr) {
      settings.set = *value->dictionary();
    } else {
      reader.fail("set", "must be an object of property-list values; \"remove\" takes keys away");
    }
  }
  settings.remove = reader.strings("remove").value_or(settings.remove);
  return settings;
}

}  // namespace tallow::devstore
