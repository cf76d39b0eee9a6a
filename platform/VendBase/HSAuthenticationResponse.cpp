#include "platform/VendBase/HSAuthenticationResponse.h"

#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/StoreProtocolKeys.h"

namespace tallow {

// A NUL, which a binary list can have and a record cannot, is what it would be read back as.
std::optional<std::string> HSAuthenticationResponse::string(std::string_view key) const {
  constexpr std::string_view kReplacement = "\uFFFD";
  const Value& value = _responseDictionary[key];
  if (value.string() == nullptr) return std::nullopt;
  std::string text = *value.string();
  for (std::size_t at = 0; (at = text.find('\0', at)) != std::string::npos;)
    text.replace(at, 1, kReplacement);
  return text;
}

std::optional<std::uint64_t> HSAuthenticationResponse::dsID() const {
  if (auto dsID = HSStoreAccount::dsidFromPlistValue(_responseDictionary[kStorePersonIDKey]))
    return dsID;
  return HSStoreAccount::dsidFromPlistValue(_responseDictionary[kStoreDSIDKey]);
}

std::optional<std::string> HSAuthenticationResponse::identifier() const {
  return string("identifier");
}

std::optional<std::string> HSAuthenticationResponse::token() const {
  auto token = string("token");
  return token && !token->empty() ? token : std::nullopt;
}

std::optional<std::string> HSAuthenticationResponse::storeFront() const {
  return string("storefront");
}

std::optional<std::string> HSAuthenticationResponse::creditString() const {
  return string(kStoreCreditDisplayKey);
}

std::optional<std::int64_t> HSAuthenticationResponse::kind() const {
  const Value& kind = _responseDictionary["kind"];
  if (!kind.isNumber() || kind.boolean() != nullptr || kind.isReal()) return std::nullopt;
  return kind.signedValue();
}

}  // namespace tallow
