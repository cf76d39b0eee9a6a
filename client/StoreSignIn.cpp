#include "client/StoreSignIn.h"

#include <utility>

#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSDevice.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSRequestHop.h"
#include "platform/VendBase/HSSignInOperation.h"
#include "platform/VendBase/HSStoreURLOperation.h"
#include "platform/VendBase/StoreProtocolKeys.h"

namespace tallow {

Result<URL> StoreSignIn::_address() {
  Result<Value> value = _service.valueForURLBagKey(kAuthenticateAccountBagKey);
  // A bag that has just been loaded may be made invalid again by what its own ping brings.
  if (value && value->isNil()) value = _service.valueForURLBagKey(kAuthenticateAccountBagKey);
  if (!value) return value.error();
  const std::string* text = value->string();
  const std::optional<URL> url = text != nullptr ? URL::parse(*text) : std::nullopt;
  if (!url)
    return HSError(kHSErrorNoBagEntry, std::nullopt, "The store does not say where to sign in");
  if (url->scheme() != "https")
    return HSError(kHSErrorNotTrusted, std::nullopt, "The store asks for a password over http");
  const Result<bool> isTrusted = _service.urlIsTrustedByURLBag(*text);
  if (!isTrusted) return isTrusted.error();
  if (!*isTrusted)
    return HSError(kHSErrorNotTrusted, std::nullopt,
                   "The store's settings do not trust the address to sign in at");
  return *url;
}

// Redirects are not followed: a password goes to no second address.
Result<HTTPResponse> StoreSignIn::_exchange(const URL& address,
                                            const TransactionAgent::Credentials& credentials) {
  std::optional<Data> body =
      HSSignInOperation::requestBody(_context, credentials.accountName, credentials.password);
  if (!body)
    return HSError(kHSErrorSignInRefused, "The name or the password has unusable characters in it.",
                   std::nullopt);
  HSRequestHop hop(address);
  hop.addHeader("Content-Type", kStoreContentType);
  if (auto error = _addStandardHeaders(hop)) return *error;
  HTTPRequest request(address);
  request.method = "POST";
  request.headers = std::move(hop.headers);
  request.body = *std::move(body);
  request.bypassCaches = true;
  Result<HTTPResponse> response = HTTPTransport::shared().perform(std::move(request));
  if (!response) return response.error();
  if (auto failure = HSStoreURLOperation::failureForStatus(response->statusCode)) return *failure;
  return response;
}

std::optional<Error> StoreSignIn::_addStandardHeaders(HSRequestHop& hop) {
  const Result<Dictionary> given =
      _service.httpHeadersForURL(hop.url.absoluteString(), _context.dsID, true);
  if (!given) return given.error();
  const Result<std::optional<std::string>> storeFront = _service.storeFront();
  if (!storeFront) return storeFront.error();
  if (const auto client = ClientDescriptors::shared().clientWithIdentifier(_client))
    hop.addHeader("User-Agent", client->userAgent);
  hop.addHeader(kStoreFrontHeader, storeFront->value_or(""));
  for (const auto& [name, value] : *given)
    if (const std::string* const text = value.string()) hop.addHeader(name, *text);
  const auto maySendGUID = _service.shouldSendGUIDWithRequestForURL(hop.url.absoluteString());
  if (!maySendGUID) return maySendGUID.error();
  if (*maySendGUID) hop.addHeader(kGUIDHeader, HSDevice::shared().guid().value_or(""));
  return std::nullopt;
}

std::optional<Error> StoreSignIn::_takeIn(const HTTPResponse& response) {
  if (auto error = _service.consumeCookiesWithHTTPHeaders(response.headerDictionary(),
                                                          response.url.absoluteString()))
    return error;
  const auto storeFront = HSStoreURLOperation::storeFrontSetBy(response);
  return storeFront ? _service.setStoreFrontID(storeFront) : std::nullopt;
}

Result<std::uint64_t> StoreSignIn::signInWithCredentials(
    const TransactionAgent::Credentials& credentials) {
  const Result<URL> address = _address();
  if (!address) return address.error();
  const Result<HTTPResponse> response = _exchange(*address, credentials);
  if (!response) return response.error();
  const Result<Value> answer = PropertyList::decode(response->body);
  if (!answer || answer->dictionary() == nullptr)
    return HSError(kHSErrorInvalidResponse, std::nullopt, "The store's answer cannot be used");
  // Somebody else's session is not taken in; a refusal has none.
  const Result<std::uint64_t> dsID = HSSignInOperation::dsIDFromAnswer(*answer, _context);
  if (!dsID) return dsID.error();
  if (auto error = _takeIn(*response)) return *error;
  const auto account = _service.addAccountWithAuthenticationResponse(*answer->dictionary(), true);
  if (!account) return account.error();
  return *dsID;
}

}  // namespace tallow
