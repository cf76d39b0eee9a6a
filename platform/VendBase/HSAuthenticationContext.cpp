#include "platform/VendBase/HSAuthenticationContext.h"

#include "platform/VendBase/HSStoreAccount.h"

namespace tallow {

HSAuthenticationContext HSAuthenticationContext::initWithDictionary(const Dictionary& dictionary) {
  HSAuthenticationContext context;
  const Value& reason = dictionary["reason"];
  if (reason.isNumber()) context.authenticationReason = reason.signedValue();
  context.dsID = HSStoreAccount::dsidFromPlistValue(dictionary["dsid"]);
  context.identifier = dictionary["identifier"].stringOrNil();
  context.title = dictionary["title"].stringOrNil();
  context.message = dictionary["message"].stringOrNil();
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
