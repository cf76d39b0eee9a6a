#include "platform/VendBase/HSStoreClient.h"

#include "platform/VendBase/ClientDescriptors.h"

namespace tallow {

std::shared_ptr<const HSStoreClient> HSStoreClient::initWithStoreClientType(
    std::int64_t clientType) {
  if (auto client = ClientDescriptors::shared().clientWithType(clientType)) return client;
  auto client = std::make_shared<HSStoreClient>();
  client->clientType = clientType;
  return client;
}

bool HSStoreClient::isEqualToStoreClient(const HSStoreClient& other) const {
  return identifier == other.identifier && clientType == other.clientType &&
         requiredBagType == other.requiredBagType &&
         appPreferencesDomain == other.appPreferencesDomain &&
         agentPreferencesDomain == other.agentPreferencesDomain &&
         productionBagURLs == other.productionBagURLs && sandboxBagURLs == other.sandboxBagURLs &&
         mediaTypeMask == other.mediaTypeMask && userAgent == other.userAgent;
}

std::string description(const HSStoreClient& client) {
  return "<HSStoreClient " + client.identifier.value_or("(null)") + " type " +
         std::to_string(client.clientType) + " bag " + std::to_string(client.requiredBagType) + ">";
}

}  // namespace tallow
