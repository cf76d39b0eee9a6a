#include "src/OrvExchange.h"

#include <string>
#include <utility>

#include "platform/Base/Base64.h"
#include "platform/Base/Format.h"
#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSError.h"
#include "platform/VendBase/StoreProtocolKeys.h"

namespace tallow::OrvExchange {

namespace {}  // namespace

Error libraryError(std::int32_t status) {
  return Error{OrvLibrary::kErrorDomain, status, {}};
}

std::span<const std::uint8_t> bytesOf(const std::optional<Data>& data) {
  return data ? data->span() : std::span<const std::uint8_t>();
}

Value base64Of(const OrvBuffer& buffer) {
  return base64Encode(buffer.span());
}

Result<URL> secureURL(HSOperation& operation, const char* urlBagKey) {
  std::optional<URL> url = operation.urlForURLBagKey(urlBagKey, kTotalTimeoutSeconds);
  if (!url)
    return HSError(kHSErrorNoBagEntry, std::nullopt,
                   format("There is no URL under the bag key %s", urlBagKey));
  // Nothing but the connection vouches for whom the keys are agreed with.
  if (url->scheme() != "https")
    return HSError(kHSErrorNotTrusted, std::nullopt,
                   format("The URL under the bag key %s is not https", urlBagKey));
  return *std::move(url);
}

std::shared_ptr<HSStoreURLOperation> postOperation(
    const Dictionary& body, URL url, const std::shared_ptr<const HSStoreClient>& storeClient) {
  HSURLRequest request(std::move(url));
  request.suppressOrvHeaders = true;
  request.method = "POST";
  request.body = PropertyList::encode(body, PropertyList::Format::XML);
  request.headers = {{"Content-Type", kStoreContentType}};

  const auto provider = HSPropertyListProvider::providerWithStoreClient(storeClient);
  provider->setShouldProcessDialogs(false);  // nor is anybody asked to sign in
  provider->setShouldTriggerDownloads(false);

  auto operation = std::make_shared<HSStoreURLOperation>(storeClient);
  operation->setRequest(std::move(request));
  operation->setDataProvider(provider);
  operation->setHandsInOrvActions(false);
  operation->setTotalTimeoutSeconds(kTotalTimeoutSeconds);
  return operation;
}

std::optional<Error> serverError(const Dictionary& answer) {
  const Value& type = answer[kStoreFailureTypeKey];
  if (type.isNil()) return std::nullopt;
  // Some servers write the number as text.
  return HSError(type.intValue().value_or(0), answer[kStoreCustomerMessageKey].stringOrNil(),
                 std::nullopt);
}

std::optional<Data> decodedData(const Dictionary& answer, const char* key) {
  const std::string* const text = answer[key].string();
  return text == nullptr ? std::nullopt : base64Decode(*text);
}

}  // namespace tallow::OrvExchange
