#include "platform/VendBase/HSAuthenticationContext.h"

#include "platform/VendBase/HSStoreAccount.h"

namespace tallow {

namespace {

std::optional<std::string> stringOrNil(const Value& value) {
  return value.string() != nullptr ? std::optional(*value.string()) : std::nullopt;
}

}  // namespace

HSAuthenticationContext HSAuthenticationContext::initWithDictionary(const Dictionary& dictionary) {
  HSAuthenticationContext context;
  const Value& reason = dictionary["reason"];
  if (reason.isNumber()) context.authenticationReason = reason.signedValue();
  context.dsID = HSStoreAccount::dsidFromPlistValue(dictionary["dsid"]);
  context.identifier = stringOrNil(dictionary["identifier"]);
  context.title = stringOrNil(dictionary["title"]);
  context.message = stringOrNil(dictionary["message"]);
  return context;
}

Dictionary HSAuthenticationContext::dictionaryRepresentation() const {
  return {{"reason", authenticationReason},
          {"dsid", dsID},
          {"identifier", identifier},
          {"title", title},
          {"message", message}};
}

}  // namespace tallow
