#include "platform/VendBase/HSServiceClientInterface.h"

#include <utility>

namespace tallow {

namespace {

std::string queueLabel(const HSStoreClient* client) {
  const std::string whose = client == nullptr ? "(null)" : client->identifier.value_or("(null)");
  return "Client Interface Request Queue (" + whose + ")";
}

}  // namespace

HSServiceClientInterface::HSServiceClientInterface(std::shared_ptr<const HSStoreClient> storeClient)
    : _storeClient(std::move(storeClient)), _requestQueue(queueLabel(_storeClient.get())) {}

}  // namespace tallow
