#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "devstore/Endpoint.h"
#include "devstore/SigningAuthority.h"
#include "platform/Base/Value.h"

namespace tallow::devstore {

// What can be staged of a bag and of nothing else. A plain value; the defaults make a good bag.
struct BagSettings final : Endpoint::Settings {
  enum class Signature { Good, Flipped, Missing, WrongKey, Empty, WrongType };
  enum class Wrap { Signed, UnsignedDictionary, UnsignedData, URLBag, Bare };

  static BagSettings read(JSONReader& reader);

  Signature signature = Signature::Good;
  std::optional<std::size_t> flipByte;  // of the bag's bytes, after they have been signed
  SigningAuthority::ChainKind chain = SigningAuthority::ChainKind::Good;
  KeyKind keyKind = KeyKind::P256;
  Wrap wrap = Wrap::Signed;
  bool urlsAreSecure = true;
  Dictionary set;
  std::vector<std::string> remove;
};

}  // namespace tallow::devstore
