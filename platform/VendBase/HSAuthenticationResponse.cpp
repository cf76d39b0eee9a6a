#include "platform/VendBase/HSAuthenticationResponse.h"

#include <algorithm>
#include <iterator>

#include "platform/Base/UTF8.h"
#include "platform/VendBase/HSStoreAccount.h"
#include "platform/VendBase/StoreProtocolKeys.h"

namespace tallow {

namespace {

bool isTooLong(const Value& value) {
  return value.string() != nullptr &&
         value.string()->size() > HSAuthenticationResponse::kMaxTextBytes;
}

}  // namespace

// A NUL, which a binary list can have and a record cannot, is what it would be read back as.
std::optional<std::string> HSAuthenticationResponse::string(std::string_view key) const {
  const Value& value = _responseDictionary[key];
  if (value.string() == nullptr) return std::nullopt;
  return replacingCharacters(*value.string(), [](char c) { return c == '\0'; });
}

std::optional<std::string> HSAuthenticationResponse::recordText(std::string_view key) const {
  return isTooLong(_responseDictionary[key]) ? std::nullopt : string(key);
}

bool HSAuthenticationResponse::hasTooLongText() const {
  const char* const texts[] = {kIdentifierKey, kTokenKey, kStoreFrontKey, kStoreCreditDisplayKey};
  return std::any_of(std::begin(texts), std::end(texts),
                     [this](const char* key) { return isTooLong(_responseDictionary[key]); });
}

std::optional<std::uint64_t> HSAuthenticationResponse::dsID() const {
  if (auto dsID = HSStoreAccount::dsidFromPlistValue(_responseDictionary[kStorePersonIDKey]))
    return dsID;
  return HSStoreAccount::dsidFromPlistValue(_responseDictionary[kStoreDSIDKey]);
}

std::optional<std::string> HSAuthenticationResponse::identifier() const {
  return recordText(kIdentifierKey);
}

std::optional<std::string> HSAuthenticationResponse::token() const {
  auto token = string(kTokenKey);
  return token && !token->empty() ? token : std::nullopt;
}

std::optional<std::string> HSAuthenticationResponse::storeFront() const {
  return recordText(kStoreFrontKey);
}

std::optional<std::string> HSAuthenticationResponse::creditString() const {
  return recordText(kStoreCreditDisplayKey);
}

std::optional<std::int64_t> HSAuthenticationResponse::kind() const {
  const Value& kind = _responseDictionary["kind"];
  if (!kind.isNumber() || kind.boolean() != nullptr || kind.isReal()) return std::nullopt;
  return kind.signedValue();
}

}  // namespace tallow
