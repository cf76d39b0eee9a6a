#include "platform/VendBase/HSPropertyListProvider.h"

#include <utility>

#include "platform/PropertyList/PropertyList.h"
#include "platform/VendBase/HSError.h"

namespace tallow {

std::shared_ptr<HSPropertyListProvider> HSPropertyListProvider::providerWithStoreClient(
    std::shared_ptr<const HSStoreClient> storeClient) {
  auto provider = std::make_shared<HSPropertyListProvider>();
  provider->_storeClient = std::move(storeClient);
  return provider;
}

Result<Value> HSPropertyListProvider::outputForResponse(const HTTPResponse& response) {
  _output = Value();
  _outcome = {};
  Result<Value> decoded = PropertyList::decode(response.body);
  if (!decoded) {
    return HSError(
        kHSErrorInvalidPropertyList, std::nullopt,
        "The store's answer is not a property list: " + decoded.error().localizedDescription());
  }
  _output = *decoded;
  return decoded;
}

std::optional<Error> HSPropertyListProvider::actOnOutput(HSStoreURLOperation& operation) {
  const Dictionary* const answer = _output.dictionary();
  if (!_shouldProcessProtocol || answer == nullptr) return std::nullopt;
  HSStoreProtocol protocol(operation,
                           {_shouldProcessDialogs.value_or(false), _shouldTriggerDownloads});
  _outcome = protocol.process(*answer);
  return _outcome.error;
}

}  // namespace tallow
