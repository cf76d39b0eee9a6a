#include "client/StoreSignIn.h"

#include <utility>

#include "platform/Base/Format.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/ClientDescriptors.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/HSSignInOperation.h"
#include "platform/VendBase/HSStoreURLOperation.h"

namespace tallow {

namespace {

constexpr const char* kURLBagKey = "authenticateAccount";
constexpr const char* kStoreFrontHeader = "X-Vantor-Store-Front";

}  // namespace

Result<URL> StoreSignIn::_address() {
  Result<Value> value = _service.valueForURLBagKey(kURLBagKey);
  // A bag that has just been loaded may be made invalid again by what its own ping brings.
  if (value && value->isNil()) value = _service.valueForURLBagKey(kURLBagKey);
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
Result<Dictionary> StoreSignIn::_answerOfStore(const URL& address,
                                               const TransactionAgent::Credentials& credentials) {
  const std::string& url = address.absoluteString();
  Result<HTTPHeaderList> headers = _standardHeaders(url);
  if (!headers) return headers.error();
  std::optional<Data> body =
      HSSignInOperation::requestBody(_context, credentials.accountName, credentials.password);
  if (!body)
    return HSError(kHSErrorSignInRefused, "The name or the password has unusable characters in it.",
                   std::nullopt);
  HTTPRequest request(address);
  request.method = "POST";
  request.headers = *std::move(headers);
  request.headers.emplace_back("Content-Type", "application/x-vantor-plist");
  request.body = *std::move(body);
  request.bypassCaches = true;
  const Result<HTTPResponse> response = HTTPTransport::shared().perform(std::move(request));
  if (!response) return response.error();
  const Result<Value> answer = PropertyList::decode(response->body);
  const Dictionary* dictionary = answer ? answer->dictionary() : nullptr;
  if (response->statusCode != 200 || dictionary == nullptr)
    return HSError(kHSErrorInvalidResponse, std::nullopt,
                   format("The store's answer cannot be used (status %d)", response->statusCode));
  // Somebody else's session is not taken in; a refusal has none.
  const Result<std::uint64_t> dsID = HSSignInOperation::dsIDFromAnswer(*dictionary, _context);
  if (!dsID) return dsID.error();
  if (auto error = _takeIn(*response, url)) return *error;
  return *dictionary;
}

Result<HTTPHeaderList> StoreSignIn::_standardHeaders(const std::string& url) {
  const Result<Dictionary> given = _service.httpHeadersForURL(url, _context.dsID, true);
  if (!given) return given.error();
  const Result<std::optional<std::string>> storeFront = _service.storeFront();
  if (!storeFront) return storeFront.error();
  HTTPHeaderList headers;
  for (const auto& header : *given)
    if (header.value.string() != nullptr) headers.emplace_back(header.key, *header.value.string());
  if (*storeFront) headers.emplace_back(kStoreFrontHeader, **storeFront);
  const auto client = ClientDescriptors::shared().clientWithIdentifier(_client);
  if (client && !client->userAgent.empty()) headers.emplace_back("User-Agent", client->userAgent);
  return headers;
}

std::optional<Error> StoreSignIn::_takeIn(const HTTPResponse& response, const std::string& url) {
  if (auto error = _service.consumeCookiesWithHTTPHeaders(response.headerDictionary(), url))
    return error;
  const auto storeFront = HSStoreURLOperation::storeFrontSetBy(response);
  return storeFront ? _service.setStoreFrontID(storeFront) : std::nullopt;
}

Result<std::uint64_t> StoreSignIn::signInWithCredentials(
    const TransactionAgent::Credentials& credentials) {
  const Result<URL> address = _address();
  if (!address) return address.error();
  const Result<Dictionary> answer = _answerOfStore(*address, credentials);
  if (!answer) return answer.error();
  const auto account = _service.addAccountWithAuthenticationResponse(*answer, true);
  if (!account) return account.error();
  return *HSSignInOperation::dsIDFromAnswer(*answer, _context);
}

}  // namespace tallow
